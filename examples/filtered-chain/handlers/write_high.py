"""Appends each value to a file: callback "python://write_high" with the listener data {"file": "/path"}."""


def event_handler(posting):
    with open(posting["listener_data"]["file"], "a") as values:
        values.write("%s\n" % posting["post_data"]["value"])
