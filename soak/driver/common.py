"""What scripts/soak and scripts/powercut have in common: options, and the directory of a run."""

import argparse
import contextlib
import pathlib
import shutil
import signal
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parents[2]
PAGE = TOP / "docs" / "reliability.md"


def add_options(parser):
    parser.add_argument("--seed", type=int, default=1, metavar="N",
                        help="for all that happens at random (default: 1)")
    parser.add_argument("--root", type=pathlib.Path, metavar="DIR",
                        help="a new directory for all files; it stays. Without it they go to a "
                        "temporary directory, which stays only after a failure")
    parser.add_argument("--publish", action="store_true",
                        help="write the figures into docs/reliability.md")
    # For the scripts, which build the programs.
    parser.add_argument("--programs", type=pathlib.Path, default=TOP / "build" / "release" / "bin",
                        help=argparse.SUPPRESS)
    parser.add_argument("--check-options", action="store_true", help=argparse.SUPPRESS)


@contextlib.contextmanager
def work_directory(options, prefix, problems, say):
    """A directory for all files of a run. It stays if the user named it, or if something went wrong."""
    # A signal then leaves all blocks in order, and so ends the processes and the mounts.
    signal.signal(signal.SIGTERM, lambda number, _: sys.exit(128 + number))
    if options.root:
        options.root.mkdir(parents=True)
        work = options.root.resolve()
    else:
        work = pathlib.Path(tempfile.mkdtemp(prefix=prefix))
    stays = True
    try:
        yield work
        stays = options.root or problems.lines
    finally:
        if stays:
            say("the files are in %s" % work)
        else:
            shutil.rmtree(work)
