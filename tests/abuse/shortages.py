"""What happens when something is short: nothing wrong is said, nothing ends but the work itself, and it passes."""

import contextlib
import pathlib
import resource
import shutil
import time

import honest
from boundary import hanging
from bus_peer import BUS
from case import case
from honest import CANCELLED, DECODING_ERROR, GENERATION_ERROR
from session import (ADMITTED, FILES, LIMITS_EXCEEDED, Outsider, eventually, footprint, limited, memory_of, processes, status_of)

NO_MEMORY = BUS + ".Error.NoMemory"
ENCODING_ERROR = "com.brindlemoor.Tessaloom.helper.EncodingError"
LAUNCH_FAILED = GENERATION_ERROR + "launchFailed"


@contextlib.contextmanager
def survives(run, what):
    """The helper is the same process afterwards, and so is a generation that ran meanwhile."""
    go, up = FILES / "survivor-go", FILES / "survivor-up"
    for file in (go, up):
        file.unlink(missing_ok=True)
    with run.client() as client:
        request = honest.generation(f"Wait practice:touch={up} practice:wait-for={go}", timeout=300)
        started = client.start("GenerateText", request)
        eventually(up.exists)
        pid = run.helper()
        yield pid
        go.touch()
        if run.check(run.helper() == pid and status_of(pid), f"the helper ended: {what}"):
            method, _, serial = started
            client.finish((method, time.monotonic(), serial), honest.generated(request))  # It has waited for the case.


@case(rounds=12)
def no_descriptors(run):
    """Without a descriptor to be had, calls may fail; no engine is reported missing, and no caller is refused permanently."""
    with run.client() as client, run.client() as fresh, survives(run, "no descriptors") as pid:
        with limited(pid, resource.RLIMIT_NOFILE, 3):
            for turn in range(run.rounds):
                caller = (client, fresh)[turn % 2]
                caller.ask("GenerationEngineStatus", {"engine": "codex"}, lambda value, error: error or value["binaryFound"])
                caller.ask("GenerateText", honest.generation("Try"),
                           lambda value, error: error and not error.endswith("binaryNotFound"))
        for caller in (client, fresh):
            caller.ask("ProtocolVersion", right=1)
            caller.ask("GenerationEngineStatus", {"engine": "codex"}, lambda value, error: not error and value["binaryFound"])


@case(rounds=2)
def no_processes(run):
    """At the process limit a generation fails to launch, and a new connection's cancellation is answered at once."""
    for _ in range(run.rounds):
        with run.client() as client, run.client() as other, run.client() as fresh:
            request, started = hanging(client, timeout=30)
            pid = run.helper()
            eventually(lambda: footprint(pid)["threads"] <= run.before["threads"])  # Idle ones exit after some seconds.
            with limited(pid, resource.RLIMIT_NPROC, 1):
                waiting = other.start("GenerateText", honest.generation("Try"))
                other.finish(waiting, LAUNCH_FAILED, (NO_MEMORY,))  # Not behind the one that runs.
                fresh.ask("CancelGeneration", {"requestID": request["requestID"]}, {"succeeded": True})
                client.finish(started, CANCELLED)
            for caller in (other, fresh):
                caller.ask("GenerateText", request := honest.generation("Again"), honest.generated(request))


@case(rounds=6)
def little_memory(run):
    """Where memory for a listing, a request or an engine's output ends, that call fails and no other."""
    bomb = b'{"pid":1,"signal":[' + b"{}," * 5_000_000 + b"{}]}"
    failures = (NO_MEMORY, ENCODING_ERROR, LIMITS_EXCEEDED, LAUNCH_FAILED)
    client = run.client()

    def at_limit(mebibytes, what, calls):
        with survives(run, f"{what} with {mebibytes} MiB to spare") as pid:
            # Leaves an idle thread: within the limit none can be started, and a generation would be refused.
            quick = honest.generation("Try")
            client.ask("GenerateText", quick, honest.generated(quick))
            size = int(status_of(pid)["VmSize"].split()[0]) * 1024 + (mebibytes << 20)
            with limited(pid, resource.RLIMIT_AS, size):
                for method, request, right in calls:
                    client.ask(method, request, right, failures)

    for step in range(run.rounds):
        with processes(300, 10_000):
            at_limit(1 << step, "listings", [
                (method, None, lambda value, error: not error and value)
                for method in ("ListListeningPorts", "ListProcesses")])
        at_limit(48 + (8 << step), "a large request", [("KillProcess", bomb, DECODING_ERROR)])  # Enough to receive it.
        at_limit(1 << step, "a large output", [("GenerateText", honest.generation("Shout practice:flood=4000000"),
                                                GENERATION_ERROR + "malformedOutput")])
    client.close()


@case(rounds=2)
def memory_returned(run):
    """What large requests, of eight processes at once, listings and outputs took is given back."""
    bodies = (("[", "{},", 5_000_000, "{}]"), ('{"prompt":"', "x", 15_000_000, '"}'), ('["\\u0000"]', " ", 15_000_000, ""))
    for body in bodies:
        with contextlib.ExitStack() as stack:
            callers = [stack.enter_context(Outsider("ask_each_time", ADMITTED, body=body)) for _ in range(8)]
            for _ in range(run.rounds):
                for caller in callers:
                    caller.go_on()
                outcomes = [caller.report() for caller in callers]
                run.check(outcomes == [DECODING_ERROR] * 8, f"outcomes: {outcomes}")
    # The bodies alone take up to 240 MiB; trees of the values in them would take 300 MiB more each.
    peak = memory_of(run.helper(), "VmHWM")
    run.check(peak < 300, f"the helper's memory went up to {peak:.0f} MiB")
    with run.client() as client:
        for words in ("flood=4000000", "flood-err=3000000", "flood=3000000 practice:no-output") * run.rounds:
            client.ask("GenerateText", honest.generation(f"Shout practice:{words}", "codex"),
                       lambda value, error: error or value["text"])
        with processes(500, 5_000):
            for method, rows in (("ListListeningPorts", 5_000), ("ListProcesses", 500)) * run.rounds:
                client.ask(method, right=lambda value, error: not error and len(value) >= rows)
    run.note = f"peak {peak:.0f} MiB for the requests, {memory_of(run.helper(), 'VmHWM'):.0f} MiB in all"


def generate_each(run, client, right=honest.generated):
    for engine in ("claudeCode", "codex"):
        request = honest.generation("Name a color", engine)
        client.ask("GenerateText", request, right(request))


@case(rounds=4, temporary="4m,nr_inodes=200")
def full_disk(run):
    """Without room for files a generation runs without its schema; without room for a directory it is not launched."""
    filler = pathlib.Path("/tmp/filler")
    for _ in range(run.rounds):
        with survives(run, "full disk"), run.client() as client:
            with open(filler, "wb", buffering=0) as file, contextlib.suppress(OSError):
                while True:
                    file.write(bytes(4096))
            generate_each(run, client)
            filler.unlink()
            filler.mkdir()
            with contextlib.suppress(OSError):
                for number in range(1000):
                    (filler / str(number)).touch()
            generate_each(run, client, lambda request: LAUNCH_FAILED)
            shutil.rmtree(filler)
            generate_each(run, client)
