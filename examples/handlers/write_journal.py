"""Appends every posting to a file, one JSON object a line: callback "python://write_journal" with the listener data
{"file": "/path/of/the/journal"}.

A handler runs inside the posting: everyone who posts waits for it. So it must be quick, and it must not call the
server that runs it and wait for the answer, for that call would wait for the handler in turn.
"""
import json


def event_handler(posting):
    with open(posting["listener_data"]["file"], "a") as journal:
        journal.write(json.dumps(posting, sort_keys=True) + "\n")
