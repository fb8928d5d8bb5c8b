"""Checks the stamp of a payload. soak/Stamp.h describes it. This code shares nothing with the client's."""

import random
import zlib


def payload_of(name, generation, size=200):
    stamp = len("%s %d %d %08x\n" % (name, generation, size, 0))
    rest = random.Random(generation).randbytes(size - stamp)
    return b"%s %d %d %08x\n" % (name.encode(), generation, size, zlib.crc32(rest)) + rest


def version_of(name, payload):
    """(generation, size) of a payload; None if it is spoilt. An empty payload has generation 0."""
    if not payload:
        return 0, 0
    line, found, rest = payload.partition(b"\n")
    words = line.decode("ascii", errors="replace").split(" ")
    if not found or len(words) != 4 or words[0] != name:
        return None
    try:
        generation, size, checksum = int(words[1]), int(words[2]), int(words[3], 16)
    except ValueError:
        return None
    if size != len(payload) or checksum != zlib.crc32(rest):
        return None
    return generation, size


def matches(found, wanted):
    """Whether a payload's version is the wanted one. An empty payload has no generation."""
    return found[1] == wanted[1] and (found[1] == 0 or found[0] == wanted[0])
