"""Takes whatever has come into a watched folder to another: callback "python://sort_inbox" with the listener data
{"done": "folder"} (relative to the watched one's own). A change is posted once for many files, so it looks for all. Whoever
drops a file writes it under a name that begins with a dot and renames it when it is whole.
"""
import os


def event_handler(posting):
    inbox = posting["post_data"]["path"]
    done = os.path.join(os.path.dirname(inbox), posting["listener_data"]["done"])
    os.makedirs(done, exist_ok=True)
    for name in sorted(os.listdir(inbox)):
        if not name.startswith("."):
            os.replace(os.path.join(inbox, name), os.path.join(done, name))
