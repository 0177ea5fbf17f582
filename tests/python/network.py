"""A loopback network of the test's own: peers made of plain sockets and scapy, and one loop that
receives for all of them. Whatever the device under test sends to a peer is kept and can be written as
a capture."""

import contextlib
import os
import selectors
import socket
import struct
import time

from messages import *  # first, because it says where scapy has its folder

from scapy.layers.inet import IP, TCP, UDP
from scapy.utils import wrpcap

from desk import free_network, while_waiting

PATIENCE = float(os.environ.get("POS_PATIENCE", 30))  # seconds; for what must come
SO_TIMESTAMPNS = 35


class Network:
    """Has addresses 127.N.x.y of its own. A `desk` has an application and addresses of its own;
    what comes there is received while the test waits."""

    def __init__(self, desk=None):
        self.under_test = set()  # addresses of devices under test
        self.seen = []  # messages of devices under test, in the order of their arrival
        self.raw = []  # (time, source, at, bytes) of everything they sent
        self.selector = selectors.DefaultSelector()
        self._next_peer = 0
        if desk is None:
            self.number, self._claim = free_network()
            self.discovery_port, self.group = 30690, f"239.194.{self.number}.77"
        else:
            discovery = desk.manifest["serviceDiscovery"]
            self.discovery_port, self.group = discovery["port"], discovery["multicastAddress"]
            learn_versions(desk.manifest)
            self.under_test.add(desk.manifest["nodes"]["POS"]["address"])
            while_waiting.append(self.pump)

    def address(self, host, net=0):
        return f"127.{self.number}.{net}.{host}"

    def close(self):
        if self.pump in while_waiting:
            while_waiting.remove(self.pump)
        else:
            self._claim.close()
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()
        self.selector.close()

    # Receiving

    def watch(self, source, on_readable):
        self.selector.register(source, selectors.EVENT_READ, on_readable)

    def unwatch(self, source):
        self.selector.unregister(source)

    def pump(self, seconds):
        """Receives what is there, waiting at most so long for the first of it."""
        for key, _ in self.selector.select(max(0, seconds)):
            key.data()

    def wait(self, condition, what, seconds=PATIENCE):
        """The first result of `condition` that counts as true."""
        end = time.monotonic() + seconds
        while True:
            self.pump(0)
            result = condition()
            if result:
                return result
            left = end - time.monotonic()
            if left <= 0:
                what = what() if callable(what) else what
                raise AssertionError(f"within {seconds:g} s there was no {what}; last: {self.seen[-6:]}")
            # Processes and files that a condition looks at wake nobody.
            self.pump(min(left, 0.02))

    def quiet(self, seconds):
        """Receives for so long: for what must not come."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            self.pump(left)

    def take(self, data, at, source, when):
        if source[0] not in self.under_test:
            return
        self.raw.append((when, source, at, data))
        for part in messages_of(data):
            if len(part) >= 16:
                message = Message(part, when, source, at)
                self.seen.append(message)
                if not message.is_discovery:
                    at.messages.append(message)
                elif message.payload[12:14] == BARRIER.to_bytes(2, "big"):
                    at.barriers.add(int.from_bytes(message.payload[22:24], "big"))
                else:
                    at.messages.append(message)
                    at.entries_of(message)

    # Peers

    def peer(self, address=None, **options):
        self._next_peer += 1
        address = address or self.address(self._next_peer % 250 + 1, 100 + self._next_peer // 250)
        return Peer(self, address, **options)

    def write_capture(self, path):
        """What the devices under test sent, one packet each."""
        packets, sequences = [], {}
        for when, source, at, data in self.raw:
            ip = IP(src=source[0], dst=at.destination[0])
            ports = {"sport": source[1], "dport": at.destination[1]}
            if isinstance(at, Stream):
                sequence = sequences.get(id(at), 1)
                sequences[id(at)] = sequence + len(data)
                packets.append(ip / TCP(**ports, flags="PA", ack=1, seq=sequence) / data)
            else:
                packets.append(ip / UDP(**ports) / data)
            packets[-1].time = when
        wrpcap(str(path), packets)


class Channel:
    multicast = False

    def __init__(self, network, receiver):
        self.network, self.messages, self.entries, self.discovery = network, [], [], []
        self.socket = receiver
        self.socket.setblocking(False)
        self.destination = self.address = self.socket.getsockname()
        self.barriers = set()
        self.on_entry = lambda entry: None  # called with each discovery entry that comes

    def __repr__(self):
        return "%s:%s" % self.destination

    def entries_of(self, message):
        sd = SD(message.payload)
        self.discovery.append((message, sd))
        for entry in sd.entry_array:
            self.entries.append(Entry(message, sd, entry))
            self.on_entry(self.entries[-1])

    @contextlib.contextmanager
    def unwatched(self):
        """Meanwhile the test itself receives: more than should be kept, or nothing."""
        self.network.unwatch(self.socket)
        self.socket.settimeout(PATIENCE)
        try:
            yield self.socket
        finally:
            self.socket.setblocking(False)
            self.network.watch(self.socket, self._readable)

    def wait(self, condition=lambda one: True, what="message", since=0):
        """The first message from index `since` on that fulfils the condition."""
        return self.network.wait(
            lambda: next((one for one in self.messages[since:] if condition(one)), None), what)


class Socket(Channel):
    """A UDP socket. `group` (address, port): what comes there, else what comes to `address`."""

    def __init__(self, network, address, port=0, group=None):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        receiver.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        interface = socket.inet_aton(address)
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, interface)
        if group:
            receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(group[0]) + interface)
        receiver.bind(group or (address, port))
        super().__init__(network, receiver)
        self.multicast = group is not None
        network.watch(self.socket, self._readable)

    @property
    def port(self):
        return self.address[1]

    def _readable(self):
        for _ in range(256):
            try:
                data, ancillary, _, source = self.socket.recvmsg(65536, 64)
            except BlockingIOError:
                return
            except ConnectionRefusedError:
                continue
            seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
            self.network.take(data, self, source, seconds + nanoseconds * 1e-9)

    def send(self, data, to):
        self.socket.sendto(bytes(data), to)

    def close(self):
        self.network.unwatch(self.socket)
        self.socket.close()


class Stream(Channel):
    def __init__(self, network, connection):
        super().__init__(network, connection)
        self.source = connection.getpeername()
        self.ended = False
        self.pieces = []  # what came, as it came
        self.buffer = b""
        network.watch(connection, self._readable)

    def _readable(self):
        try:
            data = self.socket.recv(1 << 20)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        now = time.time()
        if not data:
            self.ended = True
            self.network.unwatch(self.socket)
            return
        self.pieces.append((now, data))
        self.network.raw.append((now, self.source, self, data))
        self.buffer += data
        while len(self.buffer) >= 16:
            size = 8 + struct.unpack_from("!I", self.buffer, 4)[0]
            if size > len(self.buffer):
                return
            message = Message(self.buffer[:size], now, self.source, self)
            self.messages.append(message)
            self.network.seen.append(message)
            self.buffer = self.buffer[size:]

    def send(self, data, _=None):
        self.socket.setblocking(True)
        self.socket.sendall(bytes(data))
        self.socket.setblocking(False)

    def close(self):
        if not self.ended:
            self.network.unwatch(self.socket)
        self.ended = True
        self.socket.close()


class Listener:
    def __init__(self, network, address, port):
        self.network, self.connections = network, []
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind((address, port))
        self.socket.listen()
        self.address = self.socket.getsockname()
        network.watch(self.socket, self._readable)

    def _readable(self):
        connection, _ = self.socket.accept()
        self.connections.append(Stream(self.network, connection))

    def close(self):
        self.network.unwatch(self.socket)
        self.socket.close()
        for connection in self.connections:
            connection.close()


class Peer:
    """Another node of the network, with service discovery of its own."""

    def __init__(self, network, address, flags=REBOOT | UNICAST, listen=True):
        self.network, self.address, self.flags = network, address, flags
        self.parts = []
        self.unicast = self.socket(network.discovery_port)
        self.multicast = self.socket(group=(network.group, network.discovery_port)) if listen else None
        self.sessions = {}
        self.barriers = 0

    def keep(self, part):
        self.parts.append(part)
        return part

    def socket(self, port=0, group=None):
        return self.keep(Socket(self.network, self.address, port, group))

    def listener(self, port):
        return self.keep(Listener(self.network, self.address, port))

    def connect(self, to, port=0):
        connection = socket.create_connection(to, PATIENCE, (self.address, port))
        return self.keep(Stream(self.network, connection))

    def close(self):
        for part in reversed(self.parts):
            part.close()
        self.parts.clear()

    def restart(self):
        """From now on the peer speaks as after its start."""
        self.sessions.clear()

    def tell(self, entries, options=(), to=None, **fields):
        """Sends entries in one message, to a device or to all."""
        entries = entries if isinstance(entries, (list, tuple)) else [entries]
        fields.setdefault("flags", self.flags)
        address = getattr(to, "address", to)
        session = fields.pop("session", None)
        if session is None:
            session = self.sessions[address] = self.sessions.get(address, 0) % 0xFFFF + 1
        self.unicast.send(discovery(entries, options, session=session, **fields),
                          (address or self.network.group, self.network.discovery_port))

    def ask(self, to, entries, options=(), **fields):
        """Sends entries to a device and returns those of its answer, which is not delayed."""
        known = len(self.unicast.entries)
        self.tell(entries, options, to, **fields)
        self.barrier(to)
        return self.unicast.entries[known:]

    def subscribed(self, to, service, group, via, **fields):
        answers = self.ask(to, subscribe(service, group, **fields), [endpoint(via)])
        return next(one for one in answers if one.type == ACKNOWLEDGE)

    def acknowledge(self, entry, options=(), ttl=None):
        """Answers the subscription of a device; `ttl` 0 refuses it."""
        self.tell(SDEntry_EventGroup(type=ACKNOWLEDGE, srv_id=entry.service, inst_id=entry.instance,
                                     major_ver=entry.major, ttl=entry.ttl if ttl is None else ttl,
                                     eventgroup_id=entry.group, res=entry.flags, cnt=entry.counter,
                                     index_1=0, n_opt_1=len(options)), options, entry.message.source[0])

    def barrier(self, to):
        """Returns when what was told to a device's discovery before has been dealt with: it has refused
        two subscriptions to something that nobody has. What belongs to it is not kept."""
        for _ in range(2):
            self.barriers += 1
            number = self.barriers
            self.tell(subscribe(BARRIER, number, options=(0, 0)), to=to)
            self.network.wait(lambda: number in self.unicast.barriers, f"answer from {to}")

    # What came

    def entries(self, type=None, service=None, **fields):
        """The entries that came, by unicast and multicast, in order of time."""
        channels = [self.unicast] + ([self.multicast] if self.multicast else [])
        found = [entry for channel in channels for entry in channel.entries
                 if type in (None, entry.type) and service in (None, entry.service)
                 and all(getattr(entry, name) == value for name, value in fields.items())]
        return sorted(found, key=lambda entry: entry.time)

    def entry(self, type=None, service=None, after=0, seconds=PATIENCE, count=1, **fields):
        """Waits for the entry number `count` of those that came later than `after` (a time)."""
        def look():
            found = [one for one in self.entries(type, service, **fields) if one.time > after]
            return found[count - 1] if len(found) >= count else None
        wanted = {"type": type, "service": service, **fields}
        return self.network.wait(look, f"entry {wanted}", seconds)

    def call(self, to, service, method, payload=b"", *, client=0x0101, session=None, **fields):
        """Sends a request to a device, to (address, port) or over a stream; returns the response from there."""
        via = to if isinstance(to, Stream) else self.caller()
        to = via.source if via is to else to.at(service) if hasattr(to, "at") else to
        if session is None:
            session = self.sessions["calls"] = self.sessions.get("calls", 0) % 0xFFFF + 1
        since = len(via.messages)
        via.send(someip(service, method, payload, client=client, session=session, **fields), to)
        return via.wait(
            lambda one: (one.client, one.session, one.source) == (client, session, to) and one.type & 0x80,
            f"response to {service:04x}.{method:04x}", since)

    def caller(self):
        if not hasattr(self, "_caller"):
            self._caller = self.socket()
        return self._caller
