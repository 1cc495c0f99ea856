"""What is sent against the helper, mostly by a program that is not to be admitted.

    outsiders.py FUNCTION ARGUMENTS     started by session.Outsider; ARGUMENTS is a JSON object
"""

import itertools
import json
import os
import pathlib
import random
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "support"))

import sandbox
from bus_peer import BUS, BUS_PATH, CALL, ERROR, RETURN, SIGNAL, Peer, marshal
from session import HELPER, HELPER_PATH, INTERFACE

REACH = 48  # Serials ahead that are forged: what the helper may have sent meanwhile.
TO_HELPER = {"destination": HELPER, "path": HELPER_PATH, "interface": INTERFACE}


def report(value):
    print(json.dumps(value), flush=True)


def outcome(reply):
    """What the helper answered: "admitted", or the error's name."""
    return "nothing" if reply is None else "admitted" if reply.type == RETURN else reply.error_name


def helper_serial(peer):
    """The serial of the message that the helper has just sent, and its unique name."""
    reply = peer.call(HELPER, HELPER_PATH, INTERFACE, "ProtocolVersion")
    return reply.serial, reply.sender


def forge(peer, kind, first, destination, signature="", arguments=(), **fields):
    """Replies to what another has sent, or is about to send."""
    peer.send_bytes(b"".join(marshal(kind, peer.next_serial(), signature, arguments, reply_serial=serial,
                                     destination=destination, **fields) for serial in range(first, first + REACH)))


def forge_credentials(victim, rounds):
    """Answers for the bus who a new peer is: somebody else's process."""
    facts = {"UnixUserID": ("u", os.getuid()), "ProcessID": ("u", victim)}
    report("ready")
    for turn in range(rounds):
        with Peer().watch(HELPER) as scout, Peer().watch(HELPER) as liar:
            serial, helper = helper_serial(scout)
            question = liar.send(helper, HELPER_PATH, INTERFACE, ("HelperCapabilities", "NoSuchMethod")[turn % 2])
            forge(liar, RETURN, serial + 1, helper, "a{sv}", [facts])
            report(outcome(liar.wait(question, 10)))


def forge_replies():
    """Answers whatever the helper asks the bus, alternately with an error, a wrong value and an empty reply."""
    peer = Peer().watch(HELPER)
    report("ready")
    lies = ((ERROR, "s", ["no"], BUS + ".Error.NameHasNoOwner"), (RETURN, "u", [1], None), (RETURN, "", (), None))
    for kind, signature, arguments, error in itertools.cycle(lies):
        serial, helper = helper_serial(peer)
        if serial and helper and helper.startswith(":"):
            forge(peer, kind, serial + 1, helper, signature, arguments, error_name=error)


def hang_in_vetting(connections, bodies=0, size=0):
    """Connects often from a root directory that never answers; calls, and waits for the end."""
    peers = [Peer() for _ in range(connections)]
    try:
        sandbox.enter_silent_root(os.environ["ABUSE_FUSE"])
    except (OSError, subprocess.CalledProcessError) as error:
        return report(f"a file system that never answers cannot be made here: {error}")
    for peer in peers:
        peer.send(HELPER, HELPER_PATH, INTERFACE, "ProtocolVersion")
    for number in range(bodies):
        peers[number % connections].send(HELPER, HELPER_PATH, INTERFACE, "GenerateText", "ay", bytes(size))
    report("ready")
    sys.stdin.read()


def flood():
    """Calls without a pause and never reads."""
    peer = Peer()
    calls = b"".join(marshal(CALL, peer.next_serial(), member="ListProcesses", **TO_HELPER) for _ in range(500))
    report("ready")
    while True:
        peer.send_bytes(calls)


def ask_each_time(body):
    """At each word, sends a large request [text before, repeated text, how often, text after] and reports the outcome."""
    peer = Peer().watch(HELPER)
    helper_serial(peer)  # Once admitted it may send more.
    before, repeated, count, after = body
    request = (before + repeated * count + after).encode()
    report("ready")
    for _ in sys.stdin:
        report(outcome(peer.call(HELPER, HELPER_PATH, INTERFACE, "KillProcess", "ay", request)))


def vanish(rounds):
    """Connects, calls and disconnects at once, every other time in the middle of a message."""
    report("ready")
    for turn in range(rounds):
        with Peer() as peer:
            data = marshal(CALL, peer.next_serial(), "ay", [bytes(3000)], member="GenerateText", **TO_HELPER)
            peer.send_bytes(data[:len(data) // 2] if turn % 3 == 0 else data)
    report("done")


def babble(seed, rounds):
    """Sends what no honest peer would: other types, paths, signatures, flags, and bytes that are no message."""
    chance = random.Random(seed)
    report("ready")
    for turn in range(rounds):
        with Peer() as peer:
            body = chance.choice([("", ()), ("ay", (bytes(chance.randrange(100)),)), ("s", ("x",)), ("(ay)", ((b"",),)),
                                  ("a{sv}", ({},)), ("v", (("v", ("y", 1)),)), ("ayay", (b"", b""))])
            data = marshal(chance.choice([CALL, SIGNAL, RETURN, ERROR]), peer.next_serial(), *body,
                           flags=chance.randrange(8), destination=HELPER, reply_serial=chance.randrange(1, 99),
                           error_name="org.example.No", path=chance.choice([HELPER_PATH, "/", BUS_PATH]),
                           interface=chance.choice([INTERFACE, BUS, "org.freedesktop.DBus.Introspectable",
                                                    "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"]),
                           member=chance.choice(["GenerateText", "Introspect", "GetAll", "Ping", "NameLost", "Nothing"]))
            if turn % 4 == 0:
                data = bytearray(data)
                data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)
            try:
                peer.send_bytes(bytes(data) * chance.randrange(1, 4))
                peer.receive(time.monotonic() + 0.005)
            except ConnectionError:
                pass
    report("done")


if __name__ == "__main__":
    globals()[sys.argv[1]](**json.loads(sys.argv[2]))
