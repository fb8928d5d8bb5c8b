"""Conversations: what a peer sends on its connections, which answers it waits for, and their text form.

Seeds and findings have this form:

    conversation NAME from ADDRESS
    send CONNECTION KEEP ANSWER
      HEX  |TEXT|
    shut CONNECTION
    hang CONNECTION

KEEP is `-`, or `NAME:BEFORE`. The answer then contains a reference, and BEFORE names what stands before it
in the reply. The reference's key fills the place holders NAME in all later bytes. A daemon chooses new keys
in each run, so the files cannot contain them.

ANSWER is `-` if no answer is awaited. `shut` ends the sending side, and `hang` closes the connection with
a reset.
"""

from dataclasses import dataclass, replace

# The lengths of the keys. check_seed in play.py notices if the daemon changes them. The service has a second
# key beside its name: the first answer forwards every client to it.
KEY_SIZES = {"service": 14, "iterator": 38, "writer": 38}
BYTES_IN_A_LINE = 32
# A peer that may not control the daemon.
ADDRESS = "127.0.0.66"


def place_holder(name):
    return b"<%s>" % name.encode().ljust(KEY_SIZES[name] - 2, b".")


def fill(data, keys):
    """Puts the keys into their place holders. A place holder without a key stays."""
    for name, key in keys.items():
        data = data.replace(place_holder(name), key)
    return data


@dataclass(frozen=True)
class Step:
    kind: str  # send, shut, hang
    connection: int = 0
    data: bytes = b""
    keep: str = "-"
    answer: str = "-"


@dataclass(frozen=True)
class Conversation:
    name: str
    steps: tuple
    address: str = ADDRESS

    def with_steps(self, steps):
        return replace(self, steps=tuple(steps))


def _hex_lines(data):
    for start in range(0, len(data), BYTES_IN_A_LINE):
        part = data[start:start + BYTES_IN_A_LINE]
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in part)
        yield "  %-*s  |%s|" % (2 * BYTES_IN_A_LINE, part.hex(), text)


def to_text(conversations):
    lines = []
    for each in conversations:
        lines.append("conversation %s from %s" % (each.name, each.address))
        for step in each.steps:
            if step.kind == "send":
                lines.append("send %d %s %s" % (step.connection, step.keep, step.answer))
                lines.extend(_hex_lines(step.data))
            else:
                lines.append("%s %d" % (step.kind, step.connection))
    return "\n".join(lines) + "\n"


def _parse_step(words):
    kind = words[0]
    if kind == "send" and len(words) >= 4:
        return Step("send", int(words[1]), b"", words[2], " ".join(words[3:]))
    if kind in ("shut", "hang") and len(words) == 2:
        return Step(kind, int(words[1]))
    raise ValueError(" ".join(words))


def parse(text):
    """The conversations of a file. Empty lines and lines with # do not count. Raises ValueError."""
    result = []
    steps = []
    for number, line in enumerate(text.splitlines(), 1):
        words = line.split()
        try:
            if not words or line.startswith("#"):
                continue
            if line.startswith("  "):
                steps[-1] = replace(steps[-1], data=steps[-1].data + bytes.fromhex(words[0]))
            elif words[0] == "conversation" and len(words) == 4 and words[2] == "from":
                steps = []
                result.append((words[1], words[3], steps))
            else:
                steps.append(_parse_step(words))
        except (ValueError, IndexError) as error:
            raise ValueError("line %d: %s" % (number, error)) from None
    return [Conversation(name, tuple(steps), address) for name, address, steps in result]


def read_seeds(directory):
    """All conversations of the seed files, in the order of their names."""
    result = []
    for path in sorted(directory.glob("*.txt")):
        try:
            result += parse(path.read_text(encoding="ascii"))
        except ValueError as error:
            raise ValueError("%s: %s" % (path, error)) from None
    if not result:
        raise ValueError("no seeds in %s" % directory)
    return result
