#!/usr/bin/python3
"""Makes the seeds of the fuzz targets anew: fuzz/make_seeds.py BUILD_DIR.

Messages come from scapy, payloads from our own encoders (BUILD_DIR/fuzz/make_seeds). The targets that
play sequences read decisions, not bytes of the wire: their seeds are written here step by step, in the
order in which world.cpp and the target take them.
"""
import functools
import operator
import pathlib
import shutil
import struct
import subprocess
import sys

import scapy.contrib.automotive.someip as someip

HERE = pathlib.Path(__file__).resolve().parent
SEEDS = HERE / "seeds"


def write(target, name, data):
    folder = SEEDS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data)


# Messages of the wire

def message(service, method, kind, payload=b"", **fields):
    packet = someip.SOMEIP(srv_id=service, sub_id=0, method_id=method, client_id=fields.get("client", 7),
                           session_id=fields.get("session", 1), iface_ver=fields.get("version", 1),
                           msg_type=kind, retcode=fields.get("code", 0))
    packet.add_payload(payload)
    data = bytearray(bytes(packet))
    # Whatever scapy makes of the top bit, the method or event id is these two bytes.
    struct.pack_into(">H", data, 2, method)
    return bytes(data)


def discovery(entries, options, session=1, flags=0xE0):
    sd = someip.SD()
    sd.flags = flags
    sd.set_entryArray(entries)
    sd.set_optionArray(options)
    return message(0xFFFF, 0x8100, 2, bytes(sd), client=0, session=session)


def service_entry(kind, ttl=3, options=0, instance=1):
    return someip.SDEntry_Service(type=kind, srv_id=0x2222, inst_id=instance, major_ver=2, ttl=ttl,
                                  minor_ver=0, index_1=0, n_opt_1=options)


def group_entry(kind, ttl=3, options=0):
    return someip.SDEntry_EventGroup(type=kind, srv_id=0x1111, inst_id=1, major_ver=1, ttl=ttl,
                                     eventgroup_id=1, index_1=0, n_opt_1=options)


def endpoint(port=30501, protocol=0x11):
    return someip.SDOption_IP4_EndPoint(addr="127.77.1.2", port=port, l4_proto=protocol)


def wire_seeds():
    udp, tcp = endpoint(), endpoint(protocol=0x06)
    group = someip.SDOption_IP4_Multicast(addr="239.192.77.80", port=30510)
    messages = {
        "find": discovery([service_entry(0, instance=0xFFFF)], []),
        "offer": discovery([service_entry(1, options=2)], [udp, tcp]),
        "stop_offer": discovery([service_entry(1, ttl=0)], []),
        "subscribe": discovery([group_entry(6, options=1)], [udp]),
        "acknowledgement": discovery([group_entry(7, options=1)], [group]),
        "two_offers": discovery([service_entry(1, options=1), service_entry(1, options=1, instance=2)],
                                [udp]),
        "configuration": discovery([service_entry(1, options=2)],
                                   [someip.SDOption_Config(cfg_str="\x05abc=x\x03def\x00"), udp]),
        "load_balancing": discovery([service_entry(1, options=2)],
                                    [someip.SDOption_LoadBalance(priority=1, weight=2), udp]),
        "ipv6": discovery([service_entry(1, options=1)],
                          [someip.SDOption_IP6_EndPoint(addr="fd00::2", port=30501, l4_proto=0x11)]),
        "discovery_endpoint": discovery([service_entry(1, options=1)],
                                        [udp, someip.SDOption_IP4_SD_EndPoint(
                                            addr="127.77.1.2", port=30490, l4_proto=0x11)]),
    }
    for name, data in messages.items():
        write("discovery_message", name, data)

    request = message(0x1111, 1, 0x00, b"request")
    event = message(0x2222, 0x8001, 0x02, b"event" * 4, version=2)
    error = message(0x2222, 1, 0x81, code=2, version=2)
    write("datagram", "request", request)
    write("datagram", "three_messages", request + event + error)
    write("datagram", "discovery", messages["offer"])
    write("datagram", "cut", event[:-1])

    cookie = message(0xFFFF, 0x0000, 0x01, client=0xDEAD, session=0xBEEF)
    # Bound of a message, lengths of the pieces, the stream.
    write("stream_reader", "cookie_and_messages", b"\x04\x00\x05\x30\x00" + cookie + request + event)
    write("stream_reader", "resynchronised", b"\x04\x00\x07\x00" + request + b"noise" * 5 + cookie + event)
    write("stream_reader", "too_long", b"\x00\x10\x00" + event + cookie + request)
    # Bound of a message, length of the pieces less one, the stream.
    frames = b"\x00\x00\x00\x00" + messages["offer"] + b"\x02\x00\x77\x10" + request + b"\x03\x00\x77\x10" + event
    write("local_frame", "frames", b"\x04\x00\x06" + frames)
    write("local_frame", "broken", b"\x04\x00\x06" + frames + b"\x04" + frames)


# Steps of the sequences; each mirrors what the target reads

SERVICES = {0x1111: 0, 0x2222: 1, 0x3333: 2, 0x4444: 3}
TTLS = {3: 0, 0: 3, 0xFFFFFF: 4}
MAJORS = {1: 0, 2: 1}


def entry(kind, service, instance=1, major=1, ttl=3, options=0, group=1, flags=0):
    """kind: offer, subscribe, acknowledge or find; options: how many, from the first on."""
    number = {"offer": 0, "subscribe": 1, "acknowledge": 2, "find": 3}[kind]
    data = bytes([number, options << 2, SERVICES[service], instance - 1, MAJORS[major], TTLS[ttl]])
    if kind in ("subscribe", "acknowledge"):
        return data + bytes([{0: 0, 0x80: 1}[flags], {1: 0, 2: 1, 4: 2, 3: 6}[group]])
    return data + bytes([0])


def option(kind="udp", peer=0, port=4):
    """Number of the peer; number of the port among the usual ones (4: 40000)."""
    kinds = {"udp": (0, 0), "tcp": (0, 1), "multicast": (3, 0)}
    number, protocol = kinds[kind]
    address = 5 if kind == "multicast" else 1 + peer
    return bytes([number, address, 0, protocol, port, 0])


def sd_step(opcode, entries, options=(), peer=0, multicast=False):
    return bytes([opcode, peer, multicast, 2, len(options) << 4 | len(entries)]) + \
        b"".join(entries) + b"".join(options) + b"\x00"


def discovery_seeds():
    def steps(*parts):
        return b"\x00\x00" + b"".join(parts)

    sd = functools.partial(sd_step, 10)
    milliseconds = functools.partial(struct.pack, ">BH", 1)
    next_deadline = b"\x02"
    seconds = functools.partial(struct.pack, ">BH", 3)
    offer, stop_offer = bytes([4, 0]), bytes([4, 2])
    subscribe, unsubscribe = bytes([6, 0]), bytes([6, 0x80])
    search = bytes([5, 0x40])
    remote = sd([entry("offer", 0x2222, major=2, options=1)], [option()], multicast=True)
    acknowledge = sd([entry("acknowledge", 0x2222, major=2)])

    write("discovery", "provide", steps(
        offer, next_deadline, next_deadline,
        sd([entry("subscribe", 0x1111, options=1)], [option()]),
        sd([entry("subscribe", 0x1111, options=1, flags=0x80, group=2)], [option(peer=1)], peer=1),
        seconds(2), sd([entry("find", 0x1111)], multicast=True), next_deadline,
        sd([entry("subscribe", 0x1111, ttl=0, options=1)], [option()]), seconds(4), stop_offer))
    write("discovery", "use", steps(
        search, next_deadline, next_deadline, remote, subscribe, milliseconds(20), acknowledge,
        seconds(1), remote, milliseconds(20), acknowledge, seconds(4), remote, unsubscribe))
    write("discovery", "restarts", steps(
        subscribe, remote, milliseconds(20), acknowledge,
        bytes([10, 0, 0, 1, 1, 0, 1]) + entry("offer", 0x2222, major=2, options=1) + b"\x00",
        sd([entry("offer", 0x2222, major=2, ttl=0)])))
    write("discovery", "over_tcp", steps(
        bytes([6, 2]), sd([entry("offer", 0x3333, options=1)], [option("tcp")]), milliseconds(20),
        bytes([7, 0, 1, 4]), acknowledge, bytes([7, 1, 1, 4])))
    write("discovery", "without_delays", b"\x01\x00" + offer + search + next_deadline + remote +
          sd([entry("subscribe", 0x1111, options=2, group=4)], [option(), option("tcp")]))


def node_seeds():
    def steps(*parts):
        return b"\x00" + b"".join(parts)

    sd = functools.partial(sd_step, 15)
    milliseconds = functools.partial(struct.pack, ">BH", 1)
    subscribe_tick, subscribe_state, subscribe_tcp = (bytes([4, n]) for n in (0, 0x10, 2))
    acknowledge = bytes([8, 0])
    remote = sd([entry("offer", 0x2222, major=2, options=1)], [option(port=0)], multicast=True)

    def someip_step(service, method, kind, version=0, payload=20, peer=1, to=0):
        """Numbers of the usual values, except the size of the payload."""
        fields = bytes([SERVICES[service], method, 0, 5, version, kind, 0])
        segment = b"\x00\x01" if kind in (5, 6, 7) else b""
        return bytes([12, 0, peer, 0, to]) + fields + segment + bytes([payload, 0])

    def publish(event, size=30, large=False):
        return bytes([6, event << 1 | (0x40 if large else 0), size])

    write("node", "requests", steps(
        someip_step(0x1111, 0, 0), someip_step(0x1111, 1, 1), someip_step(0x1111, 2, 0),
        someip_step(0x1111, 4, 0), someip_step(0x1111, 3, 0), someip_step(0x1111, 0, 0, version=1),
        someip_step(0x4444, 0, 0), someip_step(0x4444, 0, 0, peer=2)))
    write("node", "subscribers", steps(
        publish(1), milliseconds(30),
        sd([entry("subscribe", 0x1111, options=1, flags=0x80)], [option()]),
        sd([entry("subscribe", 0x1111, options=1, group=2, flags=0x80)], [option(peer=1)], peer=1),
        sd([entry("subscribe", 0x1111, options=1, group=2)], [option(peer=2)], peer=2),
        sd([entry("subscribe", 0x1111, options=1, group=2)], [option(peer=0)]),
        publish(0), publish(1), publish(2), publish(3, 200, True), milliseconds(4000), publish(0)))
    write("node", "notifications", steps(
        bytes([3, 0]), subscribe_tick, subscribe_state, remote, milliseconds(20), acknowledge,
        someip_step(0x2222, 5, 2, version=1, to=2), someip_step(0x2222, 6, 2, version=1, to=2),
        someip_step(0x2222, 5, 6, version=1, to=2), milliseconds(1000), remote, bytes([4, 0x80])))
    write("node", "calls", steps(
        remote, bytes([5, 0, 10]), bytes([7, 0, 0, 3]) + b"abc", bytes([5, 2, 10]),
        bytes([7, 0, 2, 0]), bytes([5, 0x80, 10]), bytes([5, 0, 10]), milliseconds(600)))
    connect, end = bytes([9, 0, 1, 4]), bytes([9, 2])
    guarded = sd([entry("offer", 0x3333, options=1)], [option("tcp", port=0)], multicast=True)
    request = bytes([9, 5, SERVICES[0x1111], 10, 0, 5, 0, 0, 0, 20, 0])
    write("node", "tcp_provider", steps(
        connect, request, bytes([9, 1, 4]) + b"junk", bytes([9, 0, 2, 4]), bytes([9, 0, 3, 4]),
        sd([entry("subscribe", 0x1111, options=1, group=3)], [option("tcp")]), publish(4),
        publish(4, 200, True), bytes([9, 4]), end, publish(4)))
    write("node", "tcp_client", steps(
        subscribe_tcp, guarded, milliseconds(20), acknowledge, bytes([5, 2, 10]), bytes([9, 4]),
        bytes([9, 5, SERVICES[0x3333], 5, 0, 5, 0, 2, 0, 20, 0]), end, milliseconds(100), guarded,
        bytes([9, 3]), end, milliseconds(3000)))


def segmentation_seeds():
    def segment(offset, more, blocks=87, choice=0, odd=0):
        return bytes([3, choice]) + struct.pack(">H", offset) + bytes([more, blocks, odd, 0])

    whole = struct.pack(">BHHHB", 1, 0x8001, 1, 5000, 0)
    write("segmentation", "whole", whole + struct.pack(">BHHHB", 1, 0x8001, 2, 1, 9))
    write("segmentation", "in_order", segment(0, 1) + segment(87, 1) + segment(174, 0, 10, odd=1))
    write("segmentation", "gap", segment(0, 1) + segment(174, 1) + segment(0, 0, 1))
    write("segmentation", "many_peers", b"".join(segment(0, 1, 4, choice=c) for c in range(0, 128, 9)) +
          struct.pack(">BH", 0, 6000) + segment(0, 1))


def nmea_seeds():
    def sentence(text):
        return f"${text}*{functools.reduce(operator.xor, text.encode()):02X}\r\n".encode()

    instant = b"".join(map(sentence, (
        "GNGGA,123519.00,4807.0380,N,01131.0000,E,4,08,0.9,545.4,M,46.9,M,1.0,0000",
        "GNRMC,123519.00,A,4807.0380,N,01131.0000,E,22.4,84.4,230394,3.1,W,R",
        "GNVTG,84.4,T,77.8,M,22.4,N,41.5,K,D",
        "GNGSA,A,3,04,05,09,12,24,,,,,,,,2.5,1.3,2.1,1",
        "GPGSV,2,1,05,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45",
        "GPGSV,2,2,05,15,,,30",
        "GLGSV,1,1,01,65,59,039,")))
    late = sentence("GNGLL,4807.0380,S,01131.0000,W,123520.00,A,A") + \
        sentence("GNGNS,123520.00,4807.0380,S,01131.0000,W,RR,13,0.9,255.7,46.9,,") + \
        sentence("GNZDA,235959.99,31,12,1999,00,00")
    write("nmea", "instant", b"\x07\x40\x01" + instant + late)
    write("nmea", "noise", b"\x01\x01\x00" + b"# comment\r\n\xb5\x62\x01\x07" + sentence("PUBX,00,1") +
          sentence("GPRMC,,V,,,,,,,,,,N") + b"$GPGGA,1235" + late)


def manifest_seeds():
    folder = SEEDS / "manifest"
    folder.mkdir(parents=True, exist_ok=True)
    shutil.copy(HERE.parent / "config" / "manifest.json", folder / "manifest.json")
    write("manifest", "small.json", b"""{
  "nodes": {"a": {"addresses": ["127.0.0.1", "127.0.0.2"]}, "b": {"address": "fd00::1"}},
  "services": {"S": {
    "id": "0x1234", "majorVersion": 1, "minorVersion": 0,
    "methods": {"m": {"id": 1, "transport": "tcp", "fireAndForget": true}},
    "events": {"e": {"id": 32769, "eventGroup": 1}},
    "fields": {"f": {"getter": 2, "setter": 3, "notifier": 32770, "eventGroup": 2}},
    "instances": [{"id": 1, "specifier": "s", "node": "a", "udpPort": 30501, "tcpPort": 30501,
      "multicast": [{"eventGroup": 1, "address": "239.1.1.1", "port": 1, "threshold": 2}]}],
    "allowedPeers": ["127.0.0.3"]}}
}
""")


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__.splitlines()[0])
    shutil.rmtree(SEEDS, ignore_errors=True)
    subprocess.run([pathlib.Path(sys.argv[1]) / "fuzz" / "make_seeds", SEEDS], check=True)
    for seeds in (wire_seeds, discovery_seeds, node_seeds, segmentation_seeds, nmea_seeds, manifest_seeds):
        seeds()


main()
