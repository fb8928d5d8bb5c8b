"""What went wrong in a run."""

import sys

SHOWN_PROBLEMS = 50


class Problems:
    """Everything that went wrong. Ignores a text that it has had shortly before, and prints only the first
    ones."""

    def __init__(self):
        self.lines = []

    def __call__(self, text):
        if text in self.lines[-SHOWN_PROBLEMS:]:
            return
        self.lines.append(text)
        if len(self.lines) <= SHOWN_PROBLEMS:
            print("PROBLEM %s" % text, file=sys.stderr, flush=True)
