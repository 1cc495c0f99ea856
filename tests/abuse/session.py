"""The session that a case runs in: the bus, the helper on it, what the helper holds, and who is sent against it.

tests/support/practice-session makes the session, in namespaces that script/abuse makes.
"""

import contextlib
import json
import os
import pathlib
import resource
import shutil
import signal
import socket
import subprocess
import sys
import time

from bus_peer import BUS, BUS_PATH, RETURN, Peer

HELPER = "group.com.brindlemoor.Tessaloom.helper"
HELPER_PATH = "/com/brindlemoor/Tessaloom/Helper"
INTERFACE = "com.brindlemoor.Tessaloom.HelperServicing"
ACCESS_DENIED, LIMITS_EXCEEDED = BUS + ".Error.AccessDenied", BUS + ".Error.LimitsExceeded"

ADMITTED = (sys.executable,)  # This program has the editor's name, beside the helper.
INSTALLED = pathlib.Path(sys.executable).parent
HELPER_PROGRAM = INSTALLED / "tessaloom-helper"
ROOT = pathlib.Path(__file__).parent.parent.parent
FILES = pathlib.Path("/run/practice/files")      # What engines touch and wait for.
HELPER_LOG = FILES / "helper-log"                # Of helpers that a case has started.
VERSION_WORDS = pathlib.Path(os.environ.get("HOME", "/"), ".practice-version")
GENERATIONS = pathlib.Path(f"/tmp/tessaloom-{os.getuid()}")


def eventually(condition, seconds=10):
    """Looks until a condition holds, for what no descriptor reports; whether it did in time."""
    deadline = time.monotonic() + seconds
    while not (result := condition()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return result


def status_of(pid):
    """/proc/PID/status as a dict, or None when it has ended, also if nobody has waited for it."""
    try:
        lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    except (FileNotFoundError, ProcessLookupError):
        return None
    status = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
    return None if status["State"][0] in "ZX" else status


def memory_of(pid, key):
    return int(status_of(pid)[key].split()[0]) / 1024  # MiB.


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def activity(pid):
    """How often its first thread has waited, and the hundredths of a second for which all have used the processor."""
    return int(status_of(pid)["voluntary_ctxt_switches"]) + 100 * processor_seconds(pid)


def engines():
    """The pids of all engines, and of what they have started, in this namespace."""
    statuses = {int(folder.name): status_of(folder.name) for folder in pathlib.Path("/proc").glob("[0-9]*")}
    return [pid for pid, status in statuses.items() if status and status["Name"] in ("claude", "codex")]


def process_of(name, peer=None):
    with contextlib.nullcontext(peer) if peer else Peer() as peer:
        reply = peer.call(BUS, BUS_PATH, BUS, "GetConnectionUnixProcessID", "s", name)
        return reply.body[0] if reply and reply.type == RETURN else None


def launch_helper(*words):
    """A helper that is a child of the case, so that its exit status is seen."""
    with open(HELPER_LOG, "ab") as log:
        return subprocess.Popen([*words, HELPER_PROGRAM], stdin=subprocess.DEVNULL, stderr=log)


def start_helper(*words):
    child = launch_helper(*words)
    if not eventually(lambda: process_of(HELPER) == child.pid):
        raise RuntimeError("the helper did not take its name: " + helper_log())
    return child


def helper_log():
    return HELPER_LOG.read_text() if HELPER_LOG.exists() else ""


@contextlib.contextmanager
def notices(name):
    """Gives what helpers that are started meanwhile tell the service manager."""
    def told():
        with contextlib.suppress(BlockingIOError):
            return [manager.recv(99).decode(), *told()]
        return []

    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as manager:
        manager.bind(name.replace("@", "\0"))
        os.environ["NOTIFY_SOCKET"] = name
        yield told
        del os.environ["NOTIFY_SOCKET"]


def replace_helper(turn):
    """Puts another file in the place of the helper's executable, or gives it a later time, alternately."""
    fresh = shutil.copy(HELPER_PROGRAM, INSTALLED / "tessaloom-helper.new")
    if turn % 2:
        os.utime(HELPER_PROGRAM, (0, time.time() + 10 * turn))
    else:
        os.rename(fresh, HELPER_PROGRAM)


@contextlib.contextmanager
def another_bus():
    """A bus that the case may end, meanwhile the one that everybody connects to."""
    usual = os.environ["DBUS_SESSION_BUS_ADDRESS"]
    folder, address = usual.removeprefix("unix:path=").removesuffix("/bus"), f"unix:path={FILES}/bus"
    words = ("--nofork", "--print-address", f"--config-file={folder}/bus.conf", f"--address={address}")
    with subprocess.Popen(["dbus-daemon", *words], stdout=subprocess.PIPE) as bus:
        bus.stdout.readline()
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = address
        yield bus
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = usual
        bus.kill()


@contextlib.contextmanager
def limited(pid, limit, value):
    before = resource.prlimit(pid, limit)
    resource.prlimit(pid, limit, (value, before[1]))
    yield
    with contextlib.suppress(ProcessLookupError):
        resource.prlimit(pid, limit, before)


@contextlib.contextmanager
def processes(count, sockets=0):
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    with subprocess.Popen([ROOT / "bin/process-load", str(count), "3", str(sockets)], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as made:
        made.stdout.readline()
        yield
        made.stdin.close()


@contextlib.contextmanager
def stopped(pid):
    os.kill(pid, signal.SIGSTOP)
    try:
        yield
    finally:
        os.kill(pid, signal.SIGCONT)


def footprint(pid):
    """What a helper holds: counts, and KiB of memory."""
    status, children = status_of(pid), []
    for path in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # A thread that has just ended.
            children += path.read_text().split()
    return {"descriptors": len(os.listdir(f"/proc/{pid}/fd")), "threads": int(status["Threads"]),
            "children": len(children), "directories": len(list(GENERATIONS.iterdir())) if GENERATIONS.exists() else 0,
            "memory": int(status["RssAnon"].split()[0])}


class Outsider:
    """A process that does what a function of outsiders.py does, as a program that is not to be admitted unless it is
    this one's. It reports by lines of JSON, takes a line to go on, and ends with `with`, which begins when it is ready."""

    def __init__(self, what, program=("/usr/bin/python3",), **arguments):
        environment = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
        script = pathlib.Path(__file__).parent / "outsiders.py"
        self.process = subprocess.Popen([*program, script, what, json.dumps(arguments)], env=environment,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def report(self):
        """What it says next, or None when it has ended."""
        return json.loads(self.process.stdout.readline() or "null")

    def go_on(self):
        print(file=self.process.stdin, flush=True)

    def __enter__(self):
        self.first = self.report()
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
