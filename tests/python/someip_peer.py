"""A SOME/IP node made of scapy and plain sockets, for tests that play client, server or attacker.

Each node has a loopback address of its own. What it receives is kept in lists that a test waits on:
nothing here sleeps for a fixed time.
"""

import json
import os
import queue
import select
import socket
import struct
import subprocess
import tempfile
import threading
import time

os.environ.setdefault("XDG_CONFIG_HOME", tempfile.gettempdir())

from scapy.contrib.automotive.someip import (  # noqa: E402
    SD, SDEntry_EventGroup, SDEntry_Service, SDOption_IP4_EndPoint, SDOption_IP4_Multicast, SOMEIP)
from scapy.packet import Raw  # noqa: E402

SD_PORT = 30490
FOREVER = 0xFFFFFF
UDP, TCP = 0x11, 0x06


class Timeout(AssertionError):
    pass


def wait_for(condition, what, seconds=10.0):
    """Returns the first true value of `condition`, asked again while packets may arrive."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise Timeout(f"{what}: not within {seconds} s")
        time.sleep(0.002)


class Received:
    """One SOME/IP message: header fields, payload, where it came from and where it arrived."""

    def __init__(self, data, source, at):
        (self.service, self.method, self.length, self.client, self.session, self.protocol,
         self.interface, self.type, self.code) = struct.unpack("!HHIHHBBBB", data[:16])
        self.payload = data[16:8 + self.length]
        self.source = source
        self.at = at

    def __repr__(self):
        return (f"<{self.service:04x}.{self.method:04x} type {self.type:02x} code {self.code} session "
                f"{self.session} {self.payload[:16].hex()} from {self.source} at {self.at}>")


def split(datagram):
    """The messages of a datagram, as bytes."""
    while datagram:
        size = 8 + struct.unpack("!I", datagram[4:8])[0]
        yield datagram[:size]
        datagram = datagram[size:]


class Discovery:
    """A received discovery message, taken apart by scapy."""

    def __init__(self, data, source, multicast):
        self.header = Received(data, source, None)
        self.sd = SOMEIP(data)[SD]
        self.source = source
        self.multicast = multicast

    def entries(self, kind):
        """Entries of one type, each with its options as a list."""
        for entry in self.sd.entry_array or []:
            if entry.type == kind:
                options = []
                for index, count in ((entry.index_1, entry.n_opt_1), (entry.index_2, entry.n_opt_2)):
                    options += list(self.sd.option_array or [])[index:index + count] if count else []
                yield entry, options


FIND, OFFER, SUBSCRIBE, ACK = 0x00, 0x01, 0x06, 0x07


class Node:
    """A node with its discovery sockets, and any number of UDP ports."""

    def __init__(self, address, group):
        self.address, self.group = address, group
        self.discovery, self.messages, self.datagrams = [], [], []
        self._lock = threading.Lock()
        self._sessions = {}
        self._ports = {}
        self._wake = os.pipe()
        self._multicast = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._multicast.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._multicast.bind((group, SD_PORT))
        self._multicast.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                   socket.inet_aton(group) + socket.inet_aton(address))
        self._unicast = self.port(SD_PORT)
        self._unicast.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
        self._running = True
        self._thread = threading.Thread(target=self._receive, daemon=True)
        self._thread.start()

    def close(self):
        self._running = False
        os.write(self._wake[1], b"x")
        self._thread.join()
        for one in [self._multicast, *self._ports]:
            one.close()
        os.close(self._wake[0])
        os.close(self._wake[1])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def port(self, number=0):
        one = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        one.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        one.bind((self.address, number))
        self._ports[one] = one.getsockname()[1]
        os.write(self._wake[1], b"x")
        return one

    def restart(self):
        """The session counters of a process that has just begun."""
        self._sessions = {}

    def _receive(self):
        while self._running:
            ready, _, _ = select.select([self._multicast, *list(self._ports), self._wake[0]], [], [])
            for one in ready:
                if one == self._wake[0]:
                    os.read(one, 100)
                    continue
                data, source = one.recvfrom(65535)
                if source[0] == self.address and source[1] == SD_PORT:
                    continue
                with self._lock:
                    self.datagrams.append((data, source))
                    for message in split(data):
                        if message[:4] == b"\xff\xff\x81\x00":
                            self.discovery.append(Discovery(message, source, one is self._multicast))
                        else:
                            self.messages.append(Received(message, source, self._ports.get(one)))

    # What has been received

    def entry(self, kind, accept=lambda entry, options, message: True, after=0):
        """The first (entry, options, message) of a type that `accept` takes, among discovery messages
        from number `after` on; None when there is none."""
        with self._lock:
            seen = self.discovery[after:]
        for message in seen:
            for entry, options in message.entries(kind):
                if accept(entry, options, message):
                    return entry, options, message
        return None

    def wait_entry(self, kind, what, accept=lambda entry, options, message: True, after=0, seconds=10.0):
        return wait_for(lambda: self.entry(kind, accept, after), what, seconds)

    def wait_message(self, what, accept, seconds=10.0):
        def found():
            with self._lock:
                return next((one for one in self.messages if accept(one)), None)
        return wait_for(found, what, seconds)

    def all_messages(self, accept):
        with self._lock:
            return [one for one in self.messages if accept(one)]

    # Sending

    def session(self, to):
        number, _ = self._sessions.get(to, (0, 1))
        number += 1
        wrapped = self._sessions.get(to, (0, 1))[1]
        if number > 0xFFFF:
            number, wrapped = 1, 0
        self._sessions[to] = (number, wrapped)
        return number, wrapped

    def send_discovery(self, entries, options=(), to=None, flags=None, session=None):
        """Sends entries to a node, or to the group."""
        destination = (to, SD_PORT) if to else (self.group, SD_PORT)
        number, reboot = self.session(destination)
        message = SD()
        message.flags = (0x80 if reboot else 0) | 0x40 if flags is None else flags
        message.set_entryArray(list(entries))
        message.set_optionArray(list(options))
        header = SOMEIP(srv_id=0xFFFF, sub_id=1, event_id=0x0100, client_id=0,
                        session_id=session or number, proto_ver=1, iface_ver=1,
                        msg_type=SOMEIP.TYPE_NOTIFICATION, retcode=0)
        self._unicast.sendto(bytes(header / message), destination)

    def send_raw_discovery(self, data, to=None):
        self._unicast.sendto(data, (to, SD_PORT) if to else (self.group, SD_PORT))


def offer_entry(service, instance, major=1, minor=0, ttl=3, options=1, index=0):
    return SDEntry_Service(type=OFFER, srv_id=service, inst_id=instance, major_ver=major, minor_ver=minor,
                           ttl=ttl, index_1=index, n_opt_1=options)


def find_entry(service, instance=0xFFFF, major=0xFF, ttl=3):
    return SDEntry_Service(type=FIND, srv_id=service, inst_id=instance, major_ver=major,
                           minor_ver=0xFFFFFFFF, ttl=ttl)


def subscribe_entry(service, instance, group, major=1, ttl=3, index=0, options=1, counter=0, reserved=0):
    return SDEntry_EventGroup(type=SUBSCRIBE, srv_id=service, inst_id=instance, major_ver=major, ttl=ttl,
                              eventgroup_id=group, index_1=index, n_opt_1=options, cnt=counter,
                              res=reserved)


def ack_entry(subscribe, ttl=None, options=0, index=0):
    """The answer to a received subscribe entry."""
    return SDEntry_EventGroup(type=ACK, srv_id=subscribe.srv_id, inst_id=subscribe.inst_id,
                              major_ver=subscribe.major_ver, ttl=subscribe.ttl if ttl is None else ttl,
                              eventgroup_id=subscribe.eventgroup_id, res=subscribe.res, cnt=subscribe.cnt,
                              index_1=index, n_opt_1=options)


def endpoint_option(address, port, protocol=UDP):
    return SDOption_IP4_EndPoint(addr=address, l4_proto=protocol, port=port)


def multicast_option(address, port):
    return SDOption_IP4_Multicast(addr=address, l4_proto=UDP, port=port)


def message(service, method, payload=b"", kind=SOMEIP.TYPE_REQUEST, client=0x77, session=1, major=1, code=0,
            protocol=1):
    return bytes(SOMEIP(srv_id=service, sub_id=method >> 15, method_id=method & 0x7FFF,
                        event_id=method & 0x7FFF, client_id=client, session_id=session,
                        proto_ver=protocol, iface_ver=major, msg_type=kind, retcode=code)
                 / Raw(payload))


def segments(service, method, payload, kind=SOMEIP.TYPE_TP_NOTIFICATION, client=0, session=1, major=1):
    """The SOME/IP-TP segments of a message, made by scapy."""
    whole = SOMEIP(srv_id=service, sub_id=method >> 15, method_id=method & 0x7FFF,
                   event_id=method & 0x7FFF, client_id=client, session_id=session, iface_ver=major,
                   msg_type=kind) / Raw(payload)
    return [bytes(one) for one in whole.fragment()]


def reassemble(received):
    """The payload of received segments, which must fit exactly; None while some are missing."""
    payload = b""
    for one in received:
        word = struct.unpack("!I", one.payload[:4])[0]
        if word & ~0xF != len(payload):
            raise AssertionError(f"segment at {word & ~0xF}, expected {len(payload)}")
        payload += one.payload[4:]
        if not word & 1:
            return payload
    return None


class Program:
    """A process that is controlled by lines and answers with lines (tests/com/middleware_peer)."""

    def __init__(self, executable, node, environment):
        self.lines = []
        self._process = subprocess.Popen([executable, node], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, text=True,
                                         env={**os.environ, **environment})
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        for line in self._process.stdout:
            self.lines.append(line.strip())

    def tell(self, *lines):
        for line in lines:
            self._process.stdin.write(line + "\n")
        self._process.stdin.flush()

    def wait(self, line, after=0, seconds=10.0):
        """Waits for a line; returns the number of the one behind it."""
        def found():
            lines = self.lines[after:]
            return after + lines.index(line) + 1 if line in lines else 0
        try:
            return wait_for(found, f"line {line!r}", seconds)
        except Timeout as error:
            raise Timeout(f"{error}; lines were {self.lines[after:]}") from None

    def counters(self):
        after = len(self.lines)
        self.tell("counters")
        end = self.wait("counters-end", after)
        words = [line.split() for line in self.lines[after:end] if line.startswith("counter ")]
        return {name: int(value) for _, name, value in words}

    def kill(self):
        """Without a good-bye."""
        self._process.kill()
        self.close()

    def close(self):
        """Ends the process when it still runs; its exit code."""
        try:
            self.tell("quit")
        except (BrokenPipeError, ValueError):
            pass
        self._process.wait(10)
        self._thread.join()
        for pipe in (self._process.stdin, self._process.stdout):
            try:
                pipe.close()
            except BrokenPipeError:
                pass
        return self._process.returncode

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
