"""SOME/IP and discovery messages: what a test reads in those that came, and how it makes those that it sends."""

import os
import struct
import tempfile
from socket import SOCK_DGRAM

os.environ.setdefault("XDG_CONFIG_HOME", tempfile.gettempdir())  # scapy leaves a folder there

from scapy.contrib.automotive.someip import SD
from scapy.contrib.automotive.someip import SDEntry_EventGroup, SDEntry_Service
from scapy.contrib.automotive.someip import SDOption_IP4_EndPoint, SDOption_IP4_Multicast, SDOption_IP4_SD_EndPoint

BARRIER = 0x6FFF  # a service that nobody has
FIND, OFFER, SUBSCRIBE, ACKNOWLEDGE = 0x00, 0x01, 0x06, 0x07
REQUEST, REQUEST_NO_RETURN, NOTIFICATION, RESPONSE, ERROR = 0x00, 0x01, 0x02, 0x80, 0x81
TP = 0x20
UDP_PROTOCOL, TCP_PROTOCOL = 0x11, 0x06
ANY_INSTANCE, ANY_MAJOR, ANY_MINOR = 0xFFFF, 0xFF, 0xFFFFFFFF
ENDLESS = 0xFFFFFF
REBOOT, UNICAST, EXPLICIT = 0x80, 0x40, 0x20

HEADER = struct.Struct("!HHIHHBBBB")
versions = {}  # major version by service id, where a test does not say another; 1 where nothing is known


def learn_versions(manifest):
    for service in manifest["services"].values():
        versions[int(str(service["id"]), 0)] = service["majorVersion"]


class Message:
    """One SOME/IP message as it came: header fields by name, payload, and what the packet says."""

    def __init__(self, raw, time, source, at):
        self.raw, self.time, self.source, self.at = raw, time, source, at
        (self.service, self.method, self.length, self.client, self.session, self.protocol,
         self.interface, self.type, self.code) = HEADER.unpack(raw[:16])
        self.payload = raw[16:]

    @property
    def is_discovery(self):
        return (self.service, self.method) == (0xFFFF, 0x8100)

    def __repr__(self):
        return (f"<{self.service:04x}.{self.method:04x} type {self.type:02x} code {self.code:02x} "
                f"client {self.client:04x} session {self.session:04x} from {self.source} at {self.at} "
                f"{self.payload[:24].hex()}>")


class Entry:

    def __init__(self, message, sd, entry):
        self.message, self.time, self.raw = message, message.time, entry
        self.type, self.ttl, self.service, self.instance = (
            entry.type, entry.ttl, entry.srv_id, entry.inst_id)
        self.major = entry.major_ver
        self.minor = getattr(entry, "minor_ver", None)
        self.group = getattr(entry, "eventgroup_id", None)
        self.counter = getattr(entry, "cnt", None)
        self.flags = getattr(entry, "res", None)
        self.multicast = message.at.multicast
        runs = ((entry.index_1, entry.n_opt_1), (entry.index_2, entry.n_opt_2))
        self.options = [option for index, count in runs
                        for option in sd.option_array[index:index + count]]

    @property
    def initial_data(self):
        return bool(self.flags & 0x008)

    @property
    def endpoints(self):
        """(address, port, protocol) each."""
        return [(option.addr, option.port, option.l4_proto) for option in self.options
                if option.type in (0x04, 0x14)]

    def __repr__(self):
        return str(vars(self))


def messages_of(datagram):
    """Cuts a datagram into its messages; the rest that makes none comes last."""
    at = 0
    while at < len(datagram):
        end = len(datagram)
        if end - at >= 16:
            end = at + 8 + struct.unpack_from("!I", datagram, at + 4)[0]
        yield datagram[at:end]
        at = max(end, at + 16)


def someip(service, method, payload=b"", *, client=0x0101, session=1, interface=None, type=REQUEST,
           code=0, protocol=1, length=None):
    interface = versions.get(service, 1) if interface is None else interface
    length = 8 + len(payload) if length is None else length
    return HEADER.pack(service, method, length, client, session, protocol, interface, type, code) + payload


def segments(message, size):
    header, payload = list(HEADER.unpack(message[:16])), message[16:]
    header[7] |= TP
    result = []
    for at in range(0, len(payload), size):
        part = payload[at:at + size]
        header[2] = 12 + len(part)
        result.append(HEADER.pack(*header) + struct.pack("!I", at | (at + size < len(payload))) + part)
    return result


def discovery(entries, options=(), *, session=1, flags=REBOOT | UNICAST, reserved=0, **header):
    sd = SD(flags=flags, res=reserved)
    sd.set_entryArray(list(entries))
    sd.set_optionArray(list(options))
    right = {"service": 0xFFFF, "method": 0x8100, "client": 0, "type": NOTIFICATION}
    return someip(payload=bytes(sd), session=session, **{**right, **header})


def endpoint(address, port=None, protocol=UDP_PROTOCOL, **fields):
    """An endpoint option of a socket or stream, or of address and port."""
    if port is None:
        protocol = UDP_PROTOCOL if address.socket.type == SOCK_DGRAM else TCP_PROTOCOL
        address, port = address.address
    return SDOption_IP4_EndPoint(addr=address, port=port, l4_proto=protocol, **fields)


def discovery_endpoint(address, port=30690):
    """The option that names where a peer's service discovery is."""
    return SDOption_IP4_SD_EndPoint(addr=address, port=port)


def find(service, instance=ANY_INSTANCE, major=ANY_MAJOR, minor=ANY_MINOR, ttl=3, **fields):
    return SDEntry_Service(type=FIND, srv_id=service, inst_id=instance, major_ver=major, ttl=ttl,
                           minor_ver=minor, **fields)


# `options` is the first run of an entry: index and number.


def offer(service, instance=1, major=None, ttl=ENDLESS, options=(0, 1), **fields):
    major = versions.get(service, 1) if major is None else major
    return SDEntry_Service(type=OFFER, srv_id=service, inst_id=instance, major_ver=major, ttl=ttl,
                           index_1=options[0], n_opt_1=options[1], **fields)


def subscribe(service, group, instance=1, major=None, ttl=ENDLESS, options=(0, 1), initial=True, counter=0,
              **fields):
    major = versions.get(service, 1) if major is None else major
    fields.setdefault("res", 0x008 if initial else 0)
    return SDEntry_EventGroup(type=SUBSCRIBE, srv_id=service, inst_id=instance, major_ver=major,
                              ttl=ttl, eventgroup_id=group, index_1=options[0], n_opt_1=options[1],
                              cnt=counter, **fields)
