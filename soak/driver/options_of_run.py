"""The options that scripts/soak and scripts/powercut share."""

import pathlib


def add(parser):
    parser.add_argument("--seed", type=int, default=1, metavar="N",
                        help="for all that happens at random (default: 1)")
    parser.add_argument("--root", type=pathlib.Path, metavar="DIR",
                        help="a new directory for all files; it stays. Without it they go to a "
                        "temporary directory, which stays only after a failure")
    parser.add_argument("--publish", action="store_true",
                        help="write the figures into docs/reliability.md")
