"""Spoils conversations. The same random numbers give the same bytes."""

import struct
from dataclasses import replace

from conversation import Conversation, Step
from giop.messages import HEADER_SIZE, MAGIC, MessageType, header

# Beyond so many bytes a conversation does not grow.
LARGEST_DATA = 1 << 20
MOST_STEPS = 24
NUMBERS = (0, 1, 2, 3, 4, 7, 8, 127, 128, 255, 256, 1023, 1024, 1025, 0x7fff, 0x8000, 0xffff, 0x10000,
           (8 << 20) - 1, 8 << 20, (8 << 20) + 1, 0x7fffffff, 0x80000000, 0x80000001, 0xfffffff0,
           0xfffffffe, 0xffffffff)
# Service contexts that ORBs know, and one that none knows.
CONTEXTS = (0, 1, 2, 3, 5, 6, 9, 14, 15, 17, 18, 0x41545401, 0x7fffffff)
# Peers that may not control the daemon. Several, because each has a share of the daemon's objects.
ADDRESSES = tuple("127.0.0.%d" % last for last in range(66, 82))


def _order(data):
    """The byte order that the header of a message names."""
    return "<" if len(data) > 6 and data[6] & 1 else ">"


def _with_size(data):
    """Makes the size in the header of a single message right."""
    if len(data) < HEADER_SIZE:
        return data
    return data[:8] + struct.pack(_order(data) + "I", len(data) - HEADER_SIZE) + data[HEADER_SIZE:]


def _is_single(data):
    return (len(data) >= HEADER_SIZE and data[:4] == MAGIC and not data[6] & 2 and
            struct.unpack(_order(data) + "I", data[8:12])[0] == len(data) - HEADER_SIZE)


def flip_bits(rng, data):
    changed = bytearray(data)
    for _ in range(rng.choice((1, 1, 1, 2, 4, 16))):
        changed[rng.randrange(len(changed))] ^= 1 << rng.randrange(8)
    return bytes(changed)


def boundary_number(rng, data):
    size, code = rng.choice(((4, "I"), (4, "I"), (2, "H"), (8, "Q"), (1, "B")))
    if len(data) < size:
        return data
    at = rng.randrange(len(data) // size) * size
    number = rng.choice(NUMBERS + (len(data), len(data) - at, len(data) - at - size))
    if size == 8 and rng.random() < 0.5:
        number = (1 << 64) - 1 - number
    number &= (1 << 8 * size) - 1
    return data[:at] + struct.pack(_order(data) + code, number) + data[at + size:]


def length_field(rng, data):
    """Changes a word that may be a length: it is not larger than the rest."""
    order = _order(data)
    places = [at for at in range(8, len(data) - 3, 4)
              if 0 < struct.unpack_from(order + "I", data, at)[0] <= len(data) - at]
    if not places:
        return boundary_number(rng, data)
    at = 8 if rng.random() < 0.2 and 8 in places else rng.choice(places)
    old = struct.unpack_from(order + "I", data, at)[0]
    new = rng.choice((0, old - 1, old + 1, old + 4, old * 2, old + 65536, len(data) - at - 4,
                      0x7fffffff, 0xffffffff, 0xffffffff - old))
    return data[:at] + struct.pack(order + "I", new & 0xffffffff) + data[at + 4:]


def cut(rng, data):
    """Cuts the end off. The header then promises too much, or fits."""
    shorter = data[:rng.randrange(len(data))]
    return _with_size(shorter) if rng.random() < 0.5 else shorter


def repeat_bytes(rng, data):
    begin = rng.randrange(len(data))
    end = min(len(data), begin + rng.choice((1, 4, 8, 64, len(data))))
    count = rng.choice((1, 1, 2, 16, 256, 4096))
    longer = data[:end] + data[begin:end] * count + data[end:]
    longer = longer[:LARGEST_DATA]
    return _with_size(longer) if rng.random() < 0.7 else longer


def drop_bytes(rng, data):
    begin = rng.randrange(len(data))
    shorter = data[:begin] + data[begin + rng.choice((1, 2, 4, 8, 32)):]
    return _with_size(shorter) if rng.random() < 0.5 else shorter


def header_octet(rng, data):
    """Another version, other flags or another kind of message."""
    if len(data) < HEADER_SIZE:
        return data
    at = rng.choice((4, 5, 6, 7, 7))
    return data[:at] + bytes([rng.choice((0, 1, 2, 3, 4, 5, 6, 7, 8, 255))]) + data[at + 1:]


def swap_order(rng, data):
    """Names the other byte order. The size in the header follows it, or does not."""
    if len(data) < HEADER_SIZE:
        return data
    swapped = data[:6] + bytes([data[6] ^ 1]) + data[7:]
    return _with_size(swapped) if rng.random() < 0.7 else swapped


def _contexts_at(data):
    """The offset of the service contexts of a single request, or None."""
    if not _is_single(data) or data[7] != MessageType.REQUEST:
        return None
    if data[5] < 2:
        return HEADER_SIZE
    try:
        at = 24
        for _ in range(2):  # the key and the operation
            at = -(-at // 4) * 4
            at += 4 + struct.unpack_from(_order(data) + "I", data, at)[0]
        return -(-at // 4) * 4
    except struct.error:
        return None


def service_contexts(rng, data):
    """Adds service contexts in front of those of a request."""
    at = _contexts_at(data)
    order = _order(data)
    if at is None or at + 4 > len(data):
        return flip_bits(rng, data)
    count = struct.unpack_from(order + "I", data, at)[0]
    more = rng.choice((1, 1, 2, 5, 100))
    added = b""
    for _ in range(more):
        body = bytes([rng.randrange(3)]) + rng.randbytes(rng.choice((0, 3, 7, 11, 31, 250)))
        if rng.random() < 0.1:
            body = b""
        added += struct.pack(order + "II", rng.choice(CONTEXTS), len(body)) + body
        added += bytes(-len(added) % 8)  # so that the rest keeps its alignment
    return _with_size(data[:at] + struct.pack(order + "I", (count + more) & 0xffffffff) + added +
                      data[at + 4:])


def fragments(rng, data):
    """Sends a message in fragments of random sizes. Sometimes one is lost, doubled, of another request or
    empty, or the last one never comes."""
    if not _is_single(data) or len(data) < HEADER_SIZE + 16 or data[5] < 1:
        return flip_bits(rng, data)
    little, minor, kind = bool(data[6] & 1), data[5], data[7]
    body, number = data[HEADER_SIZE:], data[HEADER_SIZE:HEADER_SIZE + 4]
    parts = []
    while body:
        size = rng.choice((8, 16, 24, 64, 100))
        parts.append(body[:size])
        body = body[size:]
    for at in range(1, len(parts)):
        parts[at] = (number if minor >= 2 else b"") + parts[at]
    mistake = rng.randrange(8)
    if mistake == 0 and len(parts) > 2:
        del parts[rng.randrange(1, len(parts))]
    elif mistake == 1:
        parts.insert(rng.randrange(1, len(parts) + 1), rng.choice(parts))
    elif mistake == 2 and len(parts) > 1:
        parts[-1] = rng.randbytes(4) + parts[-1][4:]
    elif mistake == 3:
        parts.insert(rng.randrange(1, len(parts) + 1), number if minor >= 2 else b"")
    last_more = mistake == 4
    return b"".join(header(MessageType.FRAGMENT if at else kind, len(part), little,
                           at + 1 < len(parts) or last_more, (1, minor))
                    for at, part in enumerate(parts))


def splice(rng, data, other):
    """The begin of one message and the end of another one."""
    joined = data[:rng.randrange(len(data) + 1)] + other[rng.randrange(len(other) + 1):]
    return _with_size(joined) if rng.random() < 0.7 else joined


ON_BYTES = (flip_bits, flip_bits, boundary_number, boundary_number, boundary_number, length_field,
            length_field, length_field, cut, repeat_bytes, drop_bytes, header_octet, swap_order,
            service_contexts, fragments)


def _sends(steps):
    return [at for at, step in enumerate(steps) if step.kind == "send" and step.data]


def spoil_bytes(rng, steps, _):
    at = rng.choice(_sends(steps))
    changed = rng.choice(ON_BYTES)(rng, steps[at].data)
    steps[at] = replace(steps[at], data=changed)


def splice_steps(rng, steps, seeds):
    at = rng.choice(_sends(steps))
    other = rng.choice(seeds).steps
    steps[at] = replace(steps[at], data=splice(rng, steps[at].data, other[rng.choice(_sends(other))].data))


def repeat_step(rng, steps, _):
    at = rng.choice(_sends(steps))
    steps[at:at] = [steps[at]] * rng.choice((1, 1, 2, 8))


def reorder(rng, steps, _):
    first, second = rng.randrange(len(steps)), rng.randrange(len(steps))
    steps[first], steps[second] = steps[second], steps[first]


def drop_step(rng, steps, _):
    if len(_sends(steps)) > 1:
        del steps[rng.choice(_sends(steps))]


def hurry(rng, steps, _):
    """Sends on without waiting for an answer, so that requests overlap."""
    for at in _sends(steps):
        if steps[at].keep == "-" and rng.random() < 0.7:
            steps[at] = replace(steps[at], answer="-")


def go(rng, steps, _):
    """Ends the sending side, or the connection, somewhere."""
    at = rng.randrange(1, len(steps) + 1)
    steps.insert(at, Step(rng.choice(("shut", "hang")), steps[at - 1].connection))


def interleave(rng, steps, seeds):
    """A second conversation on a second connection, or on the same one. Their messages mix, and may even be
    torn apart."""
    other = list(rng.choice(seeds).steps)
    connection = rng.choice((0, 1, 1))
    place = 0
    for step in other:
        place = rng.randrange(place, len(steps) + 1)
        steps.insert(place, replace(step, connection=connection))
        place += 1
    if rng.random() < 0.2:
        at = rng.choice(_sends(steps))
        data = steps[at].data
        middle = rng.randrange(len(data))
        steps[at:at + 1] = [replace(steps[at], data=data[:middle], keep="-", answer="-"),
                            replace(steps[at], data=data[middle:])]
        # The second half follows the step that comes next.
        if at + 2 < len(steps):
            steps[at + 1], steps[at + 2] = steps[at + 2], steps[at + 1]


def move_to_two(rng, steps, _):
    """Uses an object on another connection than the one that made it."""
    for at, step in enumerate(steps):
        steps[at] = replace(step, connection=rng.randrange(2))


ON_STEPS = (spoil_bytes,) * 12 + (splice_steps, splice_steps, repeat_step, reorder, reorder, drop_step,
                                  hurry, go, interleave, interleave, move_to_two)


def spoil(rng, seeds):
    """One conversation with one to four mutations."""
    seed = rng.choice(seeds)
    # Each has a record of its own. Otherwise one put of high priority would end all later puts.
    subject = b"put-%04d" % rng.randrange(10000)
    steps = [replace(step, data=step.data.replace(b"put-0000", subject)) for step in seed.steps]
    names = [seed.name]
    for _ in range(rng.choice((1, 1, 1, 2, 2, 3, 4))):
        mutation = rng.choice(ON_STEPS)
        if _sends(steps):
            mutation(rng, steps, seeds)
            names.append(mutation.__name__)
    return Conversation("+".join(names), tuple(steps[:MOST_STEPS]), rng.choice(ADDRESSES))


def batch(rng, seeds, size):
    return [spoil(rng, seeds) for _ in range(size)]
