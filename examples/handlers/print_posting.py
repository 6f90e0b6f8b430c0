"""Prints every posting as one line: callback "python://print_posting"."""
from __future__ import print_function

import json
import sys


def event_handler(posting):
    data = posting.get("post_data", {})
    print("%s  %s  %s" % (posting["timestamp"], posting["event_name"], json.dumps(data, sort_keys=True)))
    sys.stdout.flush()
