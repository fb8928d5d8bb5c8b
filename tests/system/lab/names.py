"""Finds names that make a client register soon after its start."""

import ctypes
import itertools

RANGE = 300  # a client's first registration comes after rand() % 300 seconds


def prompt_names(count, soon=2, suffix="client"):
    """Returns names for clients that register within `soon` seconds after their start.

    A client takes its delay from rand(). The seed is the number at the start of its name, so the
    delay is the same at every start. So after a power cut, the clients of a large installation
    register at different times. Without a number the seed is 0, which gives 283 seconds with this C
    library. Some numbers give short delays: 95 gives 0 seconds, 4 and 96 give 1, 23 gives 2. This
    function finds such numbers in the C library that the daemons use as well.
    """
    libc = ctypes.CDLL(None)
    libc.srand.argtypes = [ctypes.c_uint]

    def delay(number):
        libc.srand(number)
        return libc.rand() % RANGE
    numbers = (number for number in itertools.count(1) if delay(number) <= soon)
    return ["%d%s" % (number, suffix) for number in itertools.islice(numbers, count)]
