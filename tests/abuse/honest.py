"""Honest calls, each of whose answers is checked against what it has to be, and the count of what they came to."""

import contextlib
import datetime
import json
import os
import pathlib
import random
import signal
import socket
import subprocess
import threading
import time
import uuid

from bus_peer import BUS, ERROR, Peer
from session import FILES, HELPER, HELPER_PATH, INTERFACE, eventually

TIME_LIMIT = 20  # Seconds after which a call is lost.
START_TOLERANCE = 1.1

DECODING_ERROR = "com.brindlemoor.Tessaloom.helper.DecodingError"
GENERATION_ERROR = "com.brindlemoor.Tessaloom.generation."
CANCELLED = GENERATION_ERROR + "cancelled"
INVALID, UNKNOWN = BUS + ".Error.InvalidArgs", BUS + ".Error.UnknownMethod"


def generation(prompt, engine="claudeCode", shape="freeText", timeout=60):
    return {"requestID": str(uuid.uuid4()).upper(), "engine": engine, "shape": shape, "instructions": "Be brief.",
            "prompt": prompt, "timeout": timeout}


WRONG_CALLS = (  # Each with its body, and the error with its code.
    ("KillProcess", b"", (DECODING_ERROR, 1)), ("KillProcess", {"pid": 1}, (DECODING_ERROR, 3)),
    ("CancelGeneration", b"[" * 100_000, (DECODING_ERROR, 1)), ("GenerateText", generation("Tea", timeout=4), (DECODING_ERROR, 102)),
    ("GenerateText", None, INVALID), ("ProtocolVersion", {}, INVALID), ("Generate", {}, UNKNOWN))


class Lost(Exception):
    """A call was not answered; its caller gives up."""


class Ledger:
    """What calls came to. Every call ends as answered, refused (where that was allowed), wrong or lost."""

    def __init__(self):
        self.lock = threading.Lock()
        self.counts = dict.fromkeys(("calls", "answered", "refused", "wrong", "lost"), 0)
        self.problems = []
        self.slowest = 0

    def add(self, outcome, seconds=0, problem=None):
        with self.lock:
            self.counts["calls"] += 1
            self.counts[outcome] += 1
            self.slowest = max(self.slowest, seconds)
            if problem:
                self.problems.append(problem[:300])


def described_error(reply):
    """The name and the code of an error; one of the helper's own has to say in its details what it is of, too."""
    details = {key: value for key, (_, value) in (reply.body[1] if len(reply.body) > 1 else {}).items()}
    domain, _, kind = reply.error_name.rpartition(".")
    expected = {"domain": domain} if domain.startswith("com.") else {}
    if domain + "." == GENERATION_ERROR:
        expected["kind"] = kind
    code = details.pop("code", None)
    return (reply.error_name if details == expected else f"{reply.error_name} with {details}"), code


class Client(Peer):
    """A connection to the helper that keeps to the rules for an editor: only its name's owner answers."""

    def __init__(self, ledger, timeout=TIME_LIMIT):
        super().__init__(timeout)
        self.ledger = ledger
        self.watch(HELPER)

    def start(self, method, request=None):
        """Sends a call; `finish` takes what this returns."""
        body = () if request is None else ("ay", request if isinstance(request, bytes) else json.dumps(request).encode())
        return method, time.monotonic(), self.send(HELPER, HELPER_PATH, INTERFACE, method, *body)

    def finish(self, started, right, refusals=()):
        """Waits for the answer and counts it. `right` is the value, the error's name or that and its code, or a function of
        (value, error name), where the value is parsed JSON. Returns (value, error name)."""
        method, sent, serial = started
        try:
            reply = self.wait(serial)
        except ConnectionError:
            reply = None
        seconds = time.monotonic() - sent
        if reply is None:
            self.ledger.add("lost", seconds, f"{method}: no answer after {seconds:.1f} s")
            raise Lost
        value, error, code = reply.body[0], None, None
        if reply.type == ERROR:
            error, code = described_error(reply)
        elif isinstance(value, bytes):
            try:
                value = json.loads(value)
            except ValueError:
                error = "what is not JSON"
        is_right = right(value, error) if callable(right) else right in ((error, code), value if error is None else error)
        if error in refusals:
            self.ledger.add("refused", seconds)
        else:
            problem = None if is_right else f"{method}: {error or ''} {code or ''} {json.dumps(value)}"
            self.ledger.add("answered" if is_right else "wrong", seconds, problem)
        return value, error

    def ask(self, method, request=None, right=None, refusals=()):
        return self.finish(self.start(method, request), right, refusals)


def generated(request):
    line = request["prompt"].split("\n")[0]

    def right(value, error):
        if error or (value["requestID"], value["engine"]) != (request["requestID"], request["engine"]) \
                or "tokens" not in value or not 0 <= value["durationMilliseconds"] < 300_000:
            return False
        if request["shape"] == "freeText":
            return value["text"] == f"A practice answer to “{line}”, written without a model." and "fields" not in value
        return (value["fields"]["itemDescription"] == f"Helps with “{line}” in a practice session."
                and json.loads(value["text"]) == value["fields"])
    return right


class Honest:
    """A caller that does one random thing after the other. What it expects is exact, so it serves one case's session:
    the practice engine, and processes and sockets of its own."""

    def __init__(self, ledger, seed):
        self.ledger = ledger
        self.random = random.Random(seed)
        self.sleeper = None
        self.client = Client(ledger)

    def close(self):
        self.client.close()
        self.end_sleeper()

    def ask(self, method, request=None, right=None):
        return self.client.ask(method, request, right)

    def engine(self):
        return self.random.choice(("claudeCode", "codex"))

    def rest(self):
        time.sleep(0.05)

    def reconnect(self):
        self.client.close()
        self.client = Client(self.ledger)
        self.version()

    def version(self):
        self.ask("ProtocolVersion", right=1)

    def capabilities(self):
        self.ask("HelperCapabilities", right=lambda value, error: not error and value.keys() == {
            "names", "helperVersion"} and value["names"] == ["textGeneration.v1"])

    def freshness(self):
        self.ask("QuitIfOutdated", right={"isOutdated": False, "willExit": False})

    def status(self):
        engine = self.engine()
        self.ask("GenerationEngineStatus", {"engine": engine}, lambda value, error: not error and (
            value["engine"], value["binaryFound"]) == (engine, True) and "." in value["version"])

    def generate(self):
        request = generation(f"Number {self.random.getrandbits(64)}", self.engine(), self.random.choice(("freeText", "itemFields")))
        self.ask("GenerateText", request, generated(request))

    def fail(self):
        words, kind = self.random.choice((("exit=3", "nonZeroExit"), ("signal=9", "nonZeroExit"),
                                          ("garbage", "malformedOutput"), ("not-signed-in", "nonZeroExit"),
                                          ("flood=300000", "malformedOutput")))
        self.ask("GenerateText", generation(f"Fail practice:{words}", "claudeCode"), GENERATION_ERROR + kind)

    def cancel(self):
        up = FILES / str(uuid.uuid4())
        request = generation(f"Wait practice:touch={up} practice:hang", self.engine())
        started = self.client.start("GenerateText", request)
        if eventually(up.exists):
            up.unlink()
            self.ask("CancelGeneration", {"requestID": request["requestID"]}, {"succeeded": True})
        self.client.finish(started, CANCELLED)

    def time_out(self):
        self.ask("GenerateText", generation("Wait practice:hang", self.engine(), timeout=5), GENERATION_ERROR + "timedOut")

    def cancel_nothing(self):
        self.ask("CancelGeneration", {"requestID": str(uuid.uuid4())}, {"succeeded": False})

    def malform(self):
        self.ask(*self.random.choice(WRONG_CALLS))

    def kill_unlisted(self):
        self.ask("KillProcess", {"pid": os.getpid(), "signal": 15},
                 lambda value, error: not error and not value["succeeded"] and "(B3)" in value["message"])

    def list(self):
        """Until the sleeper is there: one of the current clock tick is left out."""
        if self.sleeper is None:
            self.sleeper = subprocess.Popen(["/bin/sleep", "1000"])
        pid, rows = self.sleeper.pid, []
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        uptime = time.clock_gettime(time.CLOCK_BOOTTIME)
        started = time.time() - uptime + int(stat[19]) / os.sysconf("SC_CLK_TCK")

        def right(value, error):
            rows[:] = [row for row in value if row["pid"] == pid] if not error else []
            others = {row["pid"] for row in value} if not error else set()
            return not error and len(others) == len(value) and os.getpid() in others and all(
                row["command"] in ("sleep", "tessaloom") and row["parentPID"] == os.getpid()
                and abs(datetime.datetime.fromisoformat(row["startedAt"]).timestamp() - started) < START_TOLERANCE
                for row in rows)

        for _ in range(100):
            if self.ask("ListProcesses", right=right)[1] or rows:
                return bool(rows)
        self.ledger.add("wrong", problem=f"ListProcesses: process {pid} is never shown")
        return False

    def kill(self):
        if self.list():
            answer = self.ask("KillProcess", {"pid": self.sleeper.pid, "signal": 9}, {"succeeded": True})
            if answer[1] is None and self.sleeper.wait() != -signal.SIGKILL:
                self.ledger.add("wrong", problem="KillProcess: another end than by the signal")
            self.end_sleeper()

    def end_sleeper(self):
        if self.sleeper:
            self.sleeper.kill()
            self.sleeper.wait()
            self.sleeper = None

    def ports(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            row = {"port": server.getsockname()[1], "transport": "tcp", "pid": os.getpid(),
                   "processName": "tessaloom", "address": "127.0.0.1"}
            self.ask("ListListeningPorts", right=lambda value, error: not error and row in value)


BRIEF = ("version", "capabilities", "cancel_nothing", "malform", "kill_unlisted")
LISTING = ("list", "kill", "ports", "version")
ENGINE = ("generate", "generate", "status", "fail", "cancel")
EVERYTHING = (BRIEF + ("reconnect", "freshness"), LISTING + ("reconnect",), ENGINE)


@contextlib.contextmanager
def load(ledger, seed, kinds=EVERYTHING, turns=None):
    """Honest callers, one for each of `kinds`, meanwhile: each takes its kinds of calls in random order, again and
    again; `turns` of them if given, at least one round otherwise."""
    stop = threading.Event()

    def run(kind, caller_seed):
        caller, turn = None, 0
        try:
            caller = Honest(ledger, caller_seed)
            while turn < (turns or len(kind)) or not (stop.is_set() or turns):
                if turn % len(kind) == 0:
                    order = caller.random.sample(kind, len(kind))
                getattr(caller, order[turn % len(kind)])()
                turn += 1
        except Lost:
            pass  # Counted.
        except Exception as error:  # A thread's end must not pass for silence.
            ledger.add("wrong", problem=f"{type(error).__name__}: {error}")
        finally:
            if caller:
                caller.close()

    threads = [threading.Thread(target=run, args=(kind, f"{seed}.{number}")) for number, kind in enumerate(kinds)]
    for thread in threads:
        thread.start()
    try:
        yield
    finally:
        stop.set()
        for thread in threads:
            thread.join()
