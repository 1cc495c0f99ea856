"""A raw peer on a message bus: it marshals by itself, so it can also say what a library would not.

    peer = Peer(os.environ["DBUS_SESSION_BUS_ADDRESS"])
    reply = peer.call(BUS, "/", BUS, "GetNameOwner", "s", "org.example.Name")

Little-endian only. A variant is a pair (signature, value), an array of bytes is
`bytes`, an array of dictionary entries is a dict. One thread at a time.
"""

import collections
import os
import select
import socket
import struct
import time

BUS = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"

CALL, RETURN, ERROR, SIGNAL = 1, 2, 3, 4
NO_REPLY_EXPECTED, NO_AUTO_START = 1, 2

FIXED = {"y": "B", "b": "I", "n": "h", "q": "H", "i": "i", "u": "I", "h": "I", "x": "q", "t": "Q", "d": "d"}
ALIGNMENT = {"g": 1, "v": 1, "s": 4, "o": 4, "a": 4, "(": 8, "{": 8,
             **{code: struct.calcsize(form) for code, form in FIXED.items()}}
HEADER_FIELDS = {1: ("path", "o"), 2: ("interface", "s"), 3: ("member", "s"), 4: ("error", "s"),
                 5: ("reply_serial", "u"), 6: ("destination", "s"), 7: ("sender", "s"), 8: ("signature", "g"),
                 9: ("unix_fds", "u")}

Message = collections.namedtuple(
    "Message", "type flags serial body path interface member error reply_serial destination sender signature unix_fds",
    defaults=[None] * 9)


def complete_types(signature):
    """Splits a signature into its complete types."""
    found, start, depth = [], 0, 0
    for at, code in enumerate(signature):
        depth += (code in "({") - (code in ")}")
        if depth == 0 and code != "a":
            found.append(signature[start:at + 1])
            start = at + 1
    return found


def write(out, kind, value):
    out.extend(bytes(-len(out) % ALIGNMENT[kind[0]]))
    if kind[0] in FIXED:
        out += struct.pack("<" + FIXED[kind[0]], value)
    elif kind[0] in "sog":
        text = value.encode()
        out += struct.pack("<B" if kind == "g" else "<I", len(text)) + text + b"\0"
    elif kind[0] == "v":
        write(out, "g", value[0])
        write(out, *value)
    elif kind[0] == "a":
        at = len(out)
        out += bytes(4)
        out.extend(bytes(-len(out) % ALIGNMENT[kind[1]]))
        start = len(out)
        if isinstance(value, (bytes, bytearray)):
            out += value
        else:
            for element in value.items() if isinstance(value, dict) else value:
                write(out, kind[1:], element)
        struct.pack_into("<I", out, at, len(out) - start)
    else:
        for part, element in zip(complete_types(kind[1:-1]), value, strict=True):
            write(out, part, element)


def read(data, at, kind):
    """The value at a place, and the place after it."""
    at += -at % ALIGNMENT[kind[0]]
    if kind[0] in FIXED:
        return struct.unpack_from("<" + FIXED[kind[0]], data, at)[0], at + struct.calcsize(FIXED[kind[0]])
    if kind[0] in "sog":
        length, at = read(data, at, "y" if kind == "g" else "u")
        return data[at:at + length].decode(), at + length + 1
    if kind[0] == "v":
        signature, at = read(data, at, "g")
        value, at = read(data, at, signature)
        return (signature, value), at
    if kind[0] == "a":
        length, at = read(data, at, "u")
        at += -at % ALIGNMENT[kind[1]]
        end, values = at + length, []
        if kind == "ay":
            return bytes(data[at:end]), end
        while at < end:
            value, at = read(data, at, kind[1:])
            values.append(value)
        return (dict(values) if kind[1] == "{" else values), end
    values = []
    for part in complete_types(kind[1:-1]):
        value, at = read(data, at, part)
        values.append(value)
    return tuple(values), at


def marshal(kind, serial, signature="", arguments=(), flags=0, **fields):
    """The bytes of one message; `fields` are those of the header by name."""
    body = bytearray()
    for part, value in zip(complete_types(signature), arguments, strict=True):
        write(body, part, value)
    if signature:
        fields["signature"] = signature
    entries = [(code, (form, fields[name])) for code, (name, form) in HEADER_FIELDS.items() if fields.get(name)]
    header = bytearray()
    write(header, "(yyyyuu)", (ord("l"), kind, flags, 1, len(body), serial))
    write(header, "a(yv)", entries)
    header.extend(bytes(-len(header) % 8))
    return bytes(header + body)


def unmarshal(data):
    """The first message in the bytes and its length, or None and the number of bytes that it takes to know more."""
    if len(data) < 16:
        return None, 16
    _, kind, flags, _, body_length, serial, fields_length = struct.unpack_from("<BBBBIII", data)
    start = 16 + fields_length + -fields_length % 8
    if len(data) < start + body_length:
        return None, start + body_length
    fields, _ = read(bytes(data[:start]), 12, "a(yv)")
    fields = {HEADER_FIELDS[code][0]: value for code, (_, value) in fields if code in HEADER_FIELDS}
    body, values, at = bytes(data[start:start + body_length]), [], 0
    for part in complete_types(fields.get("signature", "")):
        value, at = read(body, at, part)
        values.append(value)
    return Message(kind, flags, serial, tuple(values), **fields), start + body_length


class Disconnected(Exception):
    pass


class Peer:
    """One connection. `name` is the unique name that the bus gave it."""

    def __init__(self, address, timeout=30):
        self.timeout = timeout
        self.serial = 0
        self.buffer = bytearray()
        self.replies = {}  # By the serial that they answer; only from whom was asked.
        self.ignored = 0   # Replies from anybody else.
        self.awaited = {}
        self.owners = collections.defaultdict(set)  # Well-known names, as the bus tells their owners.
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(address.split("path=", 1)[1].split(",")[0])
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        if not self.socket.recv(200).startswith(b"OK "):
            raise Disconnected("the bus did not admit this user")
        self.socket.sendall(b"BEGIN\r\n")
        self.name = self.call(BUS, BUS_PATH, BUS, "Hello").body[0]

    def close(self):
        self.socket.close()

    def next_serial(self):
        self.serial += 1
        return self.serial

    def send_bytes(self, data):
        try:
            self.socket.sendall(data)
        except OSError as error:
            raise Disconnected(str(error)) from error

    def send(self, destination, path, interface, member, signature="", *arguments, flags=0):
        """Sends a call; the serial by which its reply is awaited."""
        serial = self.next_serial()
        self.awaited[serial] = destination
        self.send_bytes(marshal(CALL, serial, signature, arguments, flags, path=path, interface=interface,
                                member=member, destination=destination))
        return serial

    def call(self, *call, timeout=None, **options):
        """The reply to a call, or None when none came in time."""
        return self.wait(self.send(*call, **options), timeout)

    def wait(self, serial, timeout=None):
        deadline = time.monotonic() + (timeout or self.timeout)
        while serial not in self.replies:
            if self.receive(deadline) is None:
                return None
        return self.replies.pop(serial)

    def watch(self, name):
        """From here on replies of this well-known name's owners are known."""
        self.call(BUS, BUS_PATH, BUS, "AddMatch", "s", f"type='signal',sender='{BUS}',member='NameOwnerChanged'"
                  + (f",arg0='{name}'" if name else ""))
        if name:
            owner = self.call(BUS, BUS_PATH, BUS, "GetNameOwner", "s", name)
            if owner.type == RETURN:
                self.owners[name].add(owner.body[0])

    def receive(self, deadline):
        """The next message, or None at the deadline. A reply is kept for `wait` when whoever was asked sent it."""
        while True:
            message, length = unmarshal(self.buffer)
            if message:
                break
            if not select.select([self.socket], [], [], max(0, deadline - time.monotonic()))[0]:
                return None
            try:
                data = self.socket.recv(max(65536, length - len(self.buffer)))
            except OSError as error:
                raise Disconnected(str(error)) from error
            if not data:
                raise Disconnected("the bus closed the connection")
            self.buffer += data
        del self.buffer[:length]
        if message.type == SIGNAL and message.sender == BUS and message.member == "NameOwnerChanged":
            if message.body[2]:
                self.owners[message.body[0]].add(message.body[2])
        elif message.type in (RETURN, ERROR):
            asked = self.awaited.get(message.reply_serial)
            # The bus answers for whoever it cannot reach. It writes the sender itself, so nobody can pretend that.
            if asked and message.sender in (BUS, asked, *self.owners[asked]):
                del self.awaited[message.reply_serial]
                self.replies[message.reply_serial] = message
            else:
                self.ignored += 1
        return message
