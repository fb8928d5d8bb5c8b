"""Names for clients that register soon."""

import ctypes
import itertools

RANGE = 300  # a client's first registration comes after rand() % 300 seconds


def prompt_names(count, soon=2, suffix="client"):
    """Names of hosts whose first registration comes within so many seconds.

    A client draws its delay from rand(), seeded with the number that its name starts with: the same
    at every start, so that the clients of a large installation do not all come at once after a
    power cut. A name that starts with no digit has the seed 0, which is 283 seconds with this C
    library. Whoever wants to see something soon picks numbers with short delays: 4 has 1 second, 95
    has 0, 96 has 1, 23 has 2, and there are more. They are looked up here in the C library that the
    daemons use as well.
    """
    libc = ctypes.CDLL(None)
    libc.srand.argtypes = [ctypes.c_uint]

    def delay(number):
        libc.srand(number)
        return libc.rand() % RANGE
    numbers = (number for number in itertools.count(1) if delay(number) <= soon)
    return ["%d%s" % (number, suffix) for number in itertools.islice(numbers, count)]
