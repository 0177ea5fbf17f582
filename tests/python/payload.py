"""Records as they travel in payloads: members behind their tags, lengths in front."""

import struct


def member(wire_type, number, packing, value):
    return struct.pack("!H" + packing, wire_type << 12 | number, value)


def u8(number, value):
    return member(0, number, "B", value)


def u32(number, value):
    return member(2, number, "I", value)


def f32(number, value):
    return member(2, number, "f", value)


def u64(number, value):
    return member(3, number, "Q", value)


def f64(number, value):
    return member(3, number, "d", value)


def block(content, length=None):
    """Something with its length, or another one, in front."""
    return struct.pack("!I", len(content) if length is None else length) + content


def records(*each):
    """A list of records, each given by its members."""
    return block(b"".join(block(b"".join(members)) for members in each))
