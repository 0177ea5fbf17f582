"""Records as they travel in payloads: members behind their tags, lengths in front."""

import functools
import struct


def member(wire_type, packing, number, value):
    return struct.pack("!H" + packing, wire_type << 12 | number, value)


u8, u32, f32, u64, f64 = (functools.partial(member, wire_type, packing) for wire_type, packing in (
    (0, "B"), (2, "I"), (2, "f"), (3, "Q"), (3, "d")))


def block(content, length=None):
    """Something with its length, or another one, in front."""
    return struct.pack("!I", len(content) if length is None else length) + content


def records(*each):
    """A list of records, each given by its members."""
    return block(b"".join(block(b"".join(members)) for members in each))
