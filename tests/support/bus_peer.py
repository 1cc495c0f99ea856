"""A raw peer on the session bus: python3-jeepney marshals, and nothing keeps a message from saying what it should not.

    with Peer() as peer:
        reply = peer.call(BUS, BUS_PATH, BUS, "GetNameOwner", "s", "org.example.Name")

One thread at a time.
"""

import collections
import os
import select
import socket
import time

from jeepney import Endianness, Header, HeaderFields, Message, MessageType, Parser

BUS = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"
CALL, RETURN, ERROR, SIGNAL = MessageType


def marshal(kind, serial, signature="", body=(), flags=0, **fields):
    """The bytes of one message; `fields` are those of the header by jeepney's names."""
    fields = {HeaderFields[name]: value for name, value in (fields | {"signature": signature}).items() if value}
    return Message(Header(Endianness.little, kind, flags, 1, 0, serial, fields), tuple(body)).serialise()


class Received:
    """A message; the header's fields are attributes, None where it lacks them."""

    def __init__(self, message):
        self.type, self.serial, self.body = message.header.message_type, message.header.serial, message.body
        self.fields = message.header.fields

    def __getattr__(self, name):
        return self.fields.get(HeaderFields[name])


class Peer:
    def __init__(self, timeout=30):
        self.timeout = timeout
        self.serial = 0
        self.parser = Parser()
        self.awaited = {}  # Who was asked, by serial.
        self.replies = {}  # By the serial that they answer; only from whom was asked.
        self.owners = collections.defaultdict(set)  # Of well-known names, as the bus reports them.
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(os.environ["DBUS_SESSION_BUS_ADDRESS"].split("path=", 1)[1].split(",")[0])
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        if not self.socket.recv(200).startswith(b"OK "):
            raise ConnectionError("the bus did not admit this user")
        self.socket.sendall(b"BEGIN\r\n")
        self.name = self.call(BUS, BUS_PATH, BUS, "Hello").body[0]

    def __enter__(self):
        return self

    def close(self, *_):
        self.socket.close()

    __exit__ = close

    def next_serial(self):
        self.serial += 1
        return self.serial

    def send_bytes(self, data):
        self.socket.sendall(data)

    def send_message(self, kind, signature="", body=(), **fields):
        self.send_bytes(marshal(kind, self.next_serial(), signature, body, **fields))

    def send(self, destination, path, interface, member, signature="", *arguments):
        """Sends a call; the serial by which its reply is awaited."""
        self.awaited[self.serial + 1] = destination
        self.send_message(CALL, signature, arguments, destination=destination, path=path, interface=interface, member=member)
        return self.serial

    def call(self, *call, timeout=None):
        """The reply to a call, or None when none came in time."""
        return self.wait(self.send(*call), timeout)

    def wait(self, serial, timeout=None):
        deadline = time.monotonic() + (timeout or self.timeout)
        while serial not in self.replies:
            if self.receive(deadline) is None:
                return None
        return self.replies.pop(serial)

    def watch(self, name):
        """From here on replies of this well-known name's owners are known; without a name the bus reports all changes."""
        self.call(BUS, BUS_PATH, BUS, "AddMatch", "s", f"type='signal',sender='{BUS}',member='NameOwnerChanged'"
                  + (f",arg0='{name}'" if name else ""))
        owner = self.call(BUS, BUS_PATH, BUS, "GetNameOwner", "s", name or BUS)
        if owner.type == RETURN:
            self.owners[name].add(owner.body[0])
        return self

    def receive(self, deadline):
        """The next message, or None at the deadline. A reply is kept for `wait` when whoever was asked sent it."""
        while not (message := self.parser.get_next_message()):
            if not select.select([self.socket], [], [], max(0, deadline - time.monotonic()))[0]:
                return None
            data = self.socket.recv(65536)
            if not data:
                raise ConnectionError("the bus closed the connection")
            self.parser.add_data(data)
        message = Received(message)
        if message.type == SIGNAL and message.sender == BUS and message.member == "NameOwnerChanged":
            self.owners[message.body[0]].add(message.body[2])
        elif message.type in (RETURN, ERROR):
            asked = self.awaited.get(message.reply_serial)
            # The bus answers for whoever it cannot reach. It writes the sender itself, so nobody can pretend that.
            if asked and message.sender in (BUS, asked, *self.owners[asked]):
                del self.awaited[message.reply_serial]
                self.replies[message.reply_serial] = message
        return message
