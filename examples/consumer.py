#!/usr/bin/python3
"""Prints the positions of the Positioning service, or the states of the Geofence service: a consumer without this
project's libraries, with scapy (python3-scapy).
  examples/consumer.py [positions|geofence] [--address 127.0.0.50] [--group 239.192.0.77] [--port 30490] [--count N]"""

import argparse
import collections
import selectors
import socket
import struct

from scapy.contrib.automotive.someip import SD, SOMEIP, SDEntry_EventGroup, SDOption_IP4_EndPoint

# As in the manifests: service, major version, event and its group. Of the members, by data ID, those that are printed.
Field = collections.namedtuple("Field", "service major event group is_list members")
FIELDS = {
    "positions": Field(0x2A20, 3, 0x8001, 1, True, {2: ("LAT", "!d"), 3: ("LON", "!d"), 9: ("speed2D", "!f")}),
    "geofence": Field(0x2B10, 1, 0x8001, 1, False, {0: ("side", "!B"), 1: ("distance", "!d"), 2: ("crossings", "!I")}),
}
OFFER, SUBSCRIBE, UDP = 0x01, 0x06, 0x11
REBOOT_AND_UNICAST = 0xC0
SIZES = (1, 2, 4, 8)  # by wire type


def udp_socket(address, port, group=None):
    """Of `address`; or of the multicast group, on the interface of `address`."""
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    if group:
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(group) + socket.inet_aton(address))
    made.bind((group or address, port))
    return made


def offers(datagram, field):
    """(instance, time to live) of each offer of the service. A time to live of 0 withdraws it."""
    message = SOMEIP(datagram)
    if SD in message:
        for entry in message[SD].entry_array:
            if (entry.type, entry.srv_id, entry.major_ver) == (OFFER, field.service, field.major):
                yield entry.inst_id, entry.ttl


def subscription(field, instance, session, address, port):
    discovery = SD(flags=REBOOT_AND_UNICAST)
    discovery.set_entryArray([SDEntry_EventGroup(type=SUBSCRIBE, srv_id=field.service, inst_id=instance, n_opt_1=1,
                                                 major_ver=field.major, ttl=3, eventgroup_id=field.group)])
    discovery.set_optionArray([SDOption_IP4_EndPoint(addr=address, l4_proto=UDP, port=port)])
    return bytes(SOMEIP(session_id=session) / discovery)


def block(payload, at):
    """Begin and end of what stands behind its length of four bytes."""
    return at + 4, at + 4 + struct.unpack_from("!I", payload, at)[0]


def record(payload, at, end, members):
    """The members by name. All members of these records have a fixed size."""
    values = {}
    while at < end:
        tag, = struct.unpack_from("!H", payload, at)
        name, packing = members.get(tag & 0xFFF, (None, None))
        if name:
            values[name], = struct.unpack_from(packing, payload, at + 2)
        at += 2 + SIZES[tag >> 12 & 7]
    return values


def records(payload, field):
    if not field.is_list:
        yield record(payload, 0, len(payload), field.members)
        return
    at, end = block(payload, 0)
    while at < end:
        begin, at = block(payload, at)
        yield record(payload, begin, at, field.members)


def main():
    parser = argparse.ArgumentParser(description="Prints the notifications of a field.")
    parser.add_argument("field", nargs="?", choices=FIELDS, default="positions")
    parser.add_argument("--address", default="127.0.0.50", help="the own address, which no other program uses")
    parser.add_argument("--group", default="239.192.0.77", help="the multicast group of service discovery")
    parser.add_argument("--port", type=int, default=30490, help="the port of service discovery")
    parser.add_argument("--count", type=int, default=0, help="end after N records")
    options = parser.parse_args()
    field = FIELDS[options.field]

    group, own = udp_socket(options.address, options.port, options.group), udp_socket(options.address, options.port)
    events = udp_socket(options.address, 0)
    selector = selectors.DefaultSelector()
    for one in (group, own, events):
        selector.register(one, selectors.EVENT_READ)
    session = printed = 0
    while not options.count or printed < options.count:
        for key, _ in selector.select():
            datagram, sender = key.fileobj.recvfrom(65536)
            if key.fileobj is not events:
                for instance, ttl in offers(datagram, field):
                    if ttl:  # each offer renews the subscription
                        session = session % 0xFFFF + 1
                        wanted = subscription(field, instance, session, options.address, events.getsockname()[1])
                        own.sendto(wanted, sender)
            elif struct.unpack_from("!HH", datagram) == (field.service, field.event):
                for values in records(datagram[16:], field):
                    if len(values) == len(field.members):  # a record without coordinates is no position
                        print(*(f"{name}={value:.9g}" for name, value in values.items()), flush=True)
                        printed += 1


if __name__ == "__main__":
    main()
