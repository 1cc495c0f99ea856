"""What is sent against the helper, in a program that is not to be admitted.

    outsiders.py FUNCTION ARGUMENTS     started by session.Outsider; ARGUMENTS is a JSON object
"""

import itertools
import json
import os
import pathlib
import random
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "support"))

import sandbox
from bus_peer import (BUS, BUS_PATH, CALL, ERROR, RETURN, SIGNAL, Disconnected, marshal)
from session import HELPER, HELPER_PATH, INTERFACE, connect, eventually

REACH = 48  # Serials ahead that are forged: what the helper may have sent meanwhile.


def report(value):
    print(json.dumps(value), flush=True)


def ask(peer, method, *body, timeout=20):
    """What the helper answers: "admitted", or the error's name."""
    reply = peer.call(HELPER, HELPER_PATH, INTERFACE, method, *body, timeout=timeout)
    return "nothing" if reply is None else "admitted" if reply.type == RETURN else reply.error


def helper_serial(peer):
    """The serial of the message that the helper has just sent, and its unique name."""
    reply = peer.call(HELPER, HELPER_PATH, INTERFACE, "ProtocolVersion")
    return reply.serial, reply.sender


def forgeries(peer, kind, first, destination, signature="", arguments=(), **fields):
    """Replies to what the helper has sent, or is about to send."""
    fields["destination"] = destination
    return b"".join(marshal(kind, peer.next_serial(), signature, arguments, reply_serial=serial, **fields)
                    for serial in range(first, first + REACH))


def forge_credentials(victim, rounds):
    """Answers for the bus who a new peer is: somebody else's process."""
    facts = {"UnixUserID": ("u", os.getuid()), "ProcessID": ("u", victim)}
    for _ in range(rounds):
        scout, liar = connect(), connect()
        scout.watch(HELPER)
        liar.watch(HELPER)
        serial, helper = helper_serial(scout)
        question = liar.next_serial()
        liar.awaited[question] = HELPER
        liar.send_bytes(marshal(CALL, question, path=HELPER_PATH, interface=INTERFACE, member="HelperCapabilities",
                                destination=helper)
                        + forgeries(liar, RETURN, serial + 1, helper, "a{sv}", [facts]))
        reply = liar.wait(question, 10)
        report("nothing" if reply is None else "admitted" if reply.type == RETURN else reply.error)
        scout.close()
        liar.close()


def forge_replies():
    """Answers whatever the helper asks the bus, by turns with an error, with nothing and with something."""
    peer = connect()
    peer.watch(HELPER)
    report("ready")
    for turn in itertools.count():
        serial, helper = helper_serial(peer)
        if not (helper or "").startswith(":") or not serial:
            continue
        if turn % 3 == 0:
            lies = forgeries(peer, ERROR, serial + 1, helper, "s", ["no"], error=BUS + ".Error.NameHasNoOwner")
        elif turn % 3 == 1:
            lies = forgeries(peer, RETURN, serial + 1, helper, "u", [1])
        else:
            lies = forgeries(peer, RETURN, serial + 1, helper)
        peer.send_bytes(lies)


def forge_departures():
    """Tells the helper that everybody has left the bus, again and again."""
    peer = connect()
    peer.watch(HELPER)
    report("ready")
    while True:
        helper = next(iter(peer.owners[HELPER]))
        own = int(peer.name.split(".")[1])
        for name in (f":1.{number}" for number in range(own + 100)):
            peer.send_bytes(marshal(SIGNAL, peer.next_serial(), "sss", [name, name, ""], destination=helper,
                                    path=BUS_PATH, interface=BUS, member="NameOwnerChanged"))
        helper_serial(peer)  # It has read them.


def forge_answers(text):
    """Answers every new connection as the helper would."""
    peer = connect()
    peer.watch("")
    report("ready")
    body = json.dumps({"requestID": "00000000-0000-4000-8000-000000000000", "engine": "claudeCode", "text": text,
                       "durationMilliseconds": 1}).encode()
    while True:
        message = peer.receive(time.monotonic() + 3600)
        if message.member == "NameOwnerChanged" and message.body[0].startswith(":") and message.body[2]:
            for serial in range(1, REACH):
                peer.send_bytes(marshal(RETURN, peer.next_serial(), "ay", [body], destination=message.body[0],
                                        reply_serial=serial))


def call_from_sandbox(info=None, root_answers=True):
    """Calls from a sandbox with a root of its own in which it writes what it likes."""
    peer = connect()
    peer.watch(HELPER)
    sandbox.enter_own_root({} if info is None else {".flatpak-info": info})
    report([ask(peer, method) for method in ("ProtocolVersion", "ListProcesses")])


def connect_as_another():
    """Connects as whoever this is, once a case has told the address."""
    folder = pathlib.Path("/tmp/other-user")
    eventually((folder / "address").exists, 60)
    os.environ["DBUS_SESSION_BUS_ADDRESS"] = (folder / "address").read_text()
    try:
        peer = connect()
        peer.watch(HELPER)
        outcome = ask(peer, "ProtocolVersion")
    except (Disconnected, OSError) as error:
        outcome = f"no connection: {error}"
    (folder / "outcome").write_text(outcome)


def hang_in_vetting(connections, bodies=0, size=0):
    """Connects often from a root directory that never answers; calls, and waits for the end."""
    peers = [connect() for _ in range(connections)]
    try:
        sandbox.enter_silent_root(os.environ["ABUSE_FUSE"])
    except OSError as error:
        report(f"a file system that never answers cannot be made here: {error}")
        return
    for peer in peers:
        peer.send(HELPER, HELPER_PATH, INTERFACE, "ProtocolVersion")
    for number in range(bodies):
        peers[number % connections].send(HELPER, HELPER_PATH, INTERFACE, "GenerateText", "ay", bytes(size))
    report("ready")
    sys.stdin.read()


def flood(method="ListProcesses"):
    """Calls without a pause and never reads."""
    peer = connect()
    calls = b"".join(marshal(CALL, peer.next_serial(), path=HELPER_PATH, interface=INTERFACE, member=method,
                             destination=HELPER) for _ in range(500))
    report("ready")
    while True:
        peer.send_bytes(calls)


def vanish(rounds):
    """Connects, calls and leaves at once, in the middle of a message by turns."""
    for turn in range(rounds):
        peer = connect()
        data = marshal(CALL, peer.next_serial(), "ay", [bytes(3000)], path=HELPER_PATH, interface=INTERFACE,
                       member="GenerateText", destination=HELPER)
        peer.send_bytes(data[:len(data) // 2] if turn % 3 == 0 else data)
        peer.close()
    report("done")


def babble(seed, rounds):
    """Sends what no honest peer would: other types, paths, signatures, flags, and bytes that are no message."""
    chance = random.Random(seed)
    for turn in range(rounds):
        peer = connect()
        body = chance.choice([("", ()), ("ay", (bytes(chance.randrange(100)),)), ("s", ("x",)), ("(ay)", ((b"",),)),
                              ("a{sv}", ({},)), ("v", (("v", ("y", 1)),)), ("ayay", (b"", b""))])
        data = marshal(chance.choice([CALL, SIGNAL, RETURN, ERROR]), peer.next_serial(), *body,
                       flags=chance.randrange(8), destination=HELPER, reply_serial=chance.randrange(1, 99),
                       error="org.example.No", path=chance.choice([HELPER_PATH, "/", BUS_PATH]),
                       interface=chance.choice([INTERFACE, BUS, "org.freedesktop.DBus.Introspectable",
                                                "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"]),
                       member=chance.choice(["GenerateText", "Introspect", "GetAll", "Ping", "NameLost", "Nothing"]))
        if turn % 4 == 0:
            data = bytearray(data)
            data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)
        try:
            peer.send_bytes(bytes(data) * chance.randrange(1, 4))
            peer.receive(time.monotonic() + 0.005)
        except Disconnected:
            pass
        peer.close()
    report("done")


if __name__ == "__main__":
    globals()[sys.argv[1]](**json.loads(sys.argv[2]))
