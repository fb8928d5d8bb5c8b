"""Tests of the tests' own client: it encodes values and references to bytes that are known."""

import pytest

import giop
from giop import CdrError, Decoder, Encoder, Ior, IorError, parse_reference

# octet 1, ulong 2, short -2, ulonglong 3, "ab", octets 05 06
LITTLE = bytes.fromhex("01000000 02000000 feff0000 00000000 0300000000000000"
                       "03000000 616200 00 02000000 0506")
BIG = bytes.fromhex("01000000 00000002 fffe0000 00000000 0000000000000003"
                    "00000003 616200 00 00000002 0506")


@pytest.mark.parametrize("little,data", [(True, LITTLE), (False, BIG)], ids=["little", "big"])
def test_both_byte_orders(little, data):
    encoder = Encoder(little)
    encoder.octet(1).ulong(2).short(-2).ulonglong(3).string("ab").octets(b"\5\6")
    assert encoder.bytes() == data
    decoder = Decoder(data, little)
    assert (decoder.octet(), decoder.ulong(), decoder.short(), decoder.ulonglong(),
            decoder.string(), decoder.octets()) == (1, 2, -2, 3, "ab", b"\5\6")
    decoder.end()


def test_alignment_counts_from_the_start_of_the_message():
    assert Encoder(start=12).ulonglong(1).bytes() == bytes(4) + b"\1" + bytes(7)
    assert Decoder(bytes(4) + b"\1" + bytes(7), start=12).ulonglong() == 1


def test_text_is_utf_8():
    assert Encoder().string("é日").bytes() == b"\6\0\0\0\xc3\xa9\xe6\x97\xa5\0"


@pytest.mark.parametrize("read,data", [
    (Decoder.ulong, b"\1\0\0"),
    (Decoder.boolean, b"\2"),
    (Decoder.octets, b"\5\0\0\0abcd"),
    (Decoder.string, b"\0\0\0\0"),
    (Decoder.string, b"\2\0\0\0ab"),
    (Decoder.string, b"\3\0\0\0a\0\0"),
    (Decoder.encapsulation, b"\1\0\0\0\7"),
    (Decoder.end, b"x"),
    (lambda d: d.sequence(Decoder.octet), b"\xff\xff\xff\xff"),
    (lambda d: d.enum(giop.DiscoveryStatus), b"\6\0\0\0"),
])
def test_what_is_no_value(read, data):
    with pytest.raises(CdrError):
        read(Decoder(data))


# Type "T" and one IIOP 1.2 profile: host "h", port 258, key "k", no components.
IOR = ("IOR:01000000" "02000000" "5400" "0000" "01000000" "00000000" "18000000"
       "01" "0102" "00" "02000000" "6800" "0201" "01000000" "6b" "000000" "00000000")


def test_a_reference_as_text():
    assert parse_reference(IOR) == Ior("T", "h", 258, b"k")
    assert str(Ior("T", "h", 258, b"k")) == IOR


def test_nil():
    nil = parse_reference("IOR:00000000" "00000001" "00" "000000" "00000000")
    assert nil.is_nil
    assert parse_reference(str(nil)).is_nil


@pytest.mark.parametrize("text,expected", [
    ("corbaloc:iiop:1.2@127.0.0.1:1234/DiscoveryService",
     Ior("", "127.0.0.1", 1234, b"DiscoveryService")),
    ("corbaloc::host/a%20b", Ior("", "host", 2809, b"a b", (1, 0))),
    ("corbaloc:iiop:1.2@[::1]:9/k", Ior("", "::1", 9, b"k")),
])
def test_addresses(text, expected):
    assert parse_reference(text) == expected


@pytest.mark.parametrize("text", ["", "IOR:", "IOR:zz", "IOR:0", IOR[:-2], IOR[:40], "corbaloc:",
                                  "corbaloc:iiop:1.2@host:1", "corbaloc:iiop:1.2@/k", "http://h/k"])
def test_what_is_no_reference(text):
    with pytest.raises(IorError):
        parse_reference(text)
