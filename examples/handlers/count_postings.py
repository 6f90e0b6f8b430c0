"""Counts postings per event for as long as the server runs: callback "python://count_postings". A module is imported
once, so what it keeps in its variables stays between postings; handlers never run two at a time.
"""
from collections import Counter

counts = Counter()


def event_handler(posting):
    counts[posting["event_name"]] += 1
