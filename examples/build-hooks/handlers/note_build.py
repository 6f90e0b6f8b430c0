"""Keeps a line for each build that a build server has posted: callback "python://note_build" with the listener data
{"file": "/path/of/the/list"}. What is posted comes from outside, so a member may be missing.
"""


def event_handler(posting):
    build = posting.get("post_data", {})
    with open(posting["listener_data"]["file"], "a") as builds:
        builds.write("%s %s %s\n" % (posting["timestamp"], build.get("project", "?"), build.get("result", "?")))
