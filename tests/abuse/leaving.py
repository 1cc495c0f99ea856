"""How the helper ends, and what it owes its callers then; and what it owes those who have left."""

import os
import signal
import subprocess
import time

import honest
import manager
from case import case
from session import (FILES, GENERATION_ERROR, GENERATIONS, HELPER, HOME, INSTALLED, Outsider, engines,
                     eventually, process_of, processes, processor_seconds, replace_helper, start_helper,
                     status_of, stopped)

OUTDATED = {"isOutdated": True, "willExit": True}
CANCELLED = GENERATION_ERROR + "cancelled"
# Nothing that only the very process knows: a listing authorises with the helper that made it.
PORTABLE = (honest.BRIEF[:-1] + ("reconnect",), ("list", "ports", "reconnect"), ("generate", "status", "fail"))


def hanging(client, timeout=60):
    """A generation that runs."""
    up = FILES / "up"
    up.unlink(missing_ok=True)
    request = honest.generation(f"Wait practice:touch={up} practice:hang", timeout=timeout)
    started = client.start("GenerateText", request)
    eventually(up.exists)
    return request, started


def end_helper(run):
    """So that the case can start one by itself."""
    pid = run.helper()
    os.kill(pid, signal.SIGTERM)
    eventually(lambda: status_of(pid) is None)


@case(rounds=6)
def gone_at_once(run):
    """What an admitted caller asks for is done, also when it leaves at once."""
    patient = run.client()

    def admitted():
        client = run.client()
        client.ask("ProtocolVersion", right=1)
        return client
    for turn in range(run.rounds):
        before = turn % 2 * ["ListProcesses"]  # What it waits behind.
        request, started = hanging(patient, timeout=5)
        leaver = admitted()
        for method in before:
            leaver.start(method)
        leaver.start("CancelGeneration", {"requestID": request["requestID"]})
        leaver.close()
        patient.finish(started, CANCELLED)

        leaver, up = admitted(), FILES / f"started-{turn}"
        for method in before:
            leaver.start(method)
        leaver.start("GenerateText", honest.generation(f"Go on practice:touch={up}"))
        leaver.close()
        run.check(eventually(up.exists, 5), "a generation was dropped")

        killer = honest.Honest(run.ledger, run.seed)
        killer.list()
        for method in before:
            killer.client.start(method)
        killer.client.start("KillProcess", {"pid": killer.sleeper.pid, "signal": 9})
        killer.client.close()
        run.check(eventually(lambda: killer.sleeper.poll() is not None, 5), "a signal was dropped")
        killer.close()
    patient.close()


@case(rounds=1)
def told_to_stop(run):
    """Every signal that a user or a session sends ends it in order: what it runs is cancelled, and nothing is left."""
    end_helper(run)
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
        child, client = start_helper(), run.client()
        _, started = hanging(client)
        child.send_signal(number)
        client.finish(started, CANCELLED)
        client.close()
        status = child.wait()
        run.check(status > 0, f"{number.name}: exit status {status}")
        run.check(not engines(), f"{number.name}: an engine runs on")
        run.check(not GENERATIONS.exists(), f"{number.name}: {GENERATIONS} is left")
        lines = (FILES / "helper-log").read_text().splitlines()
        lines = [line for line in lines if line.startswith("helper: ") and "register failed" not in line]
        run.check(len(lines) == 1, f"{number.name}: it wrote {lines}")
        (FILES / "helper-log").unlink()


@case(rounds=1)
def stopped_bus(run):
    """With answers that nobody takes it neither burns the processor nor becomes deaf."""
    end_helper(run)
    child, clients = start_helper(), [run.client() for _ in range(8)]
    for client in clients:
        client.ask("ProtocolVersion", right=1)
    with processes(1000, 0):
        with stopped(child.pid):
            for client in clients:
                for _ in range(60):
                    client.start("ListProcesses")
                bus = process_of("org.freedesktop.DBus", client)  # Then the bus has these calls.
            os.kill(bus, signal.SIGSTOP)
        # Those that its socket held are answered until it is full the other way; then it gets some more.
        eventually(lambda: processor_seconds(child.pid) == (time.sleep(0.2), processor_seconds(child.pid))[1])
        os.kill(bus, signal.SIGCONT)
        time.sleep(0.005)
        os.kill(bus, signal.SIGSTOP)
    try:
        before = processor_seconds(child.pid)
        time.sleep(2)
        used = processor_seconds(child.pid) - before
        run.note = f"{used:.1f} s of the processor in 2 s"
        started = time.monotonic()
        run.check(used < 0.4, f"it used {used:.1f} s of the processor in 2 s")
        child.send_signal(signal.SIGTERM)
        run.check(eventually(lambda: child.poll() is not None, 12), "it is still there 12 s after SIGTERM")
        run.note += f", ended {time.monotonic() - started:.1f} s after SIGTERM"
    finally:
        os.kill(bus, signal.SIGCONT)
    child.kill()
    child.wait()
    for client in clients:
        client.close()
    eventually(lambda: run.helper() is None)


def replace(run, client):
    """Replaces the helper and has it told; its pid."""
    client.ask("ProtocolVersion", right=1)
    old = process_of(HELPER, client)
    replace_helper()
    client.ask("QuitIfOutdated", right=OUTDATED)
    return old


def replace_under_load(run, calls):
    """`calls` more calls go to each helper before it is replaced."""
    client = run.client()
    for _ in range(run.rounds):
        enough = run.ledger.counts["calls"] + calls
        old = replace(run, client)
        run.check(eventually(lambda: status_of(old) is None, 20), "the replaced helper stays")
        run.check(eventually(lambda: run.ledger.counts["calls"] >= enough or run.ledger.counts["lost"], 20), "no calls")
        if run.problems or run.ledger.counts["lost"]:
            break
        client.ask("QuitIfOutdated", right={"isOutdated": False, "willExit": False})
    client.close()


@case(rounds=5)
def replacements(run):
    """Replaced while calls arrive (1,000 for each), it answers all of them."""
    with run.load(PORTABLE * 2):
        replace_under_load(run, 1000)


@case(rounds=3, manager=True)
def managed_replacements(run):
    """The same where the user's service manager starts the helper."""
    manager.start()
    run.warm_up()
    with run.load(PORTABLE * 2):
        replace_under_load(run, 1000)
    result = manager.result()
    run.check(result == "success", f"the unit's result: {result}")


@case(rounds=3)
def forged_leaving(run):
    """Replaced while calls arrive and a peer answers for the bus whatever the helper asks."""
    with Outsider("forge_replies") as liar:
        liar.report()
        with run.load(PORTABLE):
            replace_under_load(run, 300)


@case(rounds=2)
def busy_when_replaced(run):
    """It keeps its name, so that cancellations reach it, while anything is accepted, launched or probing."""
    version, go = HOME / ".practice-version", FILES / "go"
    client, other = run.client(), run.client()
    for turn in range(run.rounds):
        # A probe that hangs.
        version.write_text(f"practice:touch={FILES}/probing practice:wait-for={go}")
        probe = client.start("GenerationEngineStatus", {"engine": "codex"})
        eventually((FILES / "probing").exists)
        old = replace(run, other)
        kept = not eventually(lambda: process_of(HELPER, other) != old, 1)
        run.check(kept, "it gave its name away while it probed")
        go.touch()
        client.finish(probe, lambda value, error: not error and "version" in value)
        version.unlink()
        run.check(eventually(lambda: status_of(old) is None), "the replaced helper stays")
        for file in (go, FILES / "probing"):
            file.unlink()

        # A generation that is accepted, and launched after the exit step has looked (200 ms after the answer): it comes
        # behind listings, all of it while the helper stands still.
        client.ask("ProtocolVersion", right=1)
        up = FILES / f"up-{turn}"
        request = honest.generation(f"Wait practice:touch={up} practice:hang", timeout=5)
        with processes(400, 0):
            old = replace(run, other)
            with stopped(old):
                for _ in range(60):
                    client.start("ListProcesses")
                generation = client.start("GenerateText", request)
                process_of(HELPER, client)  # Then the bus has passed them on.
                time.sleep(0.25)
        eventually(up.exists, 5)
        other.ask("CancelGeneration", {"requestID": request["requestID"]}, {"succeeded": True})
        client.finish(generation, CANCELLED)
        run.check(eventually(lambda: status_of(old) is None), "the replaced helper stays")
    client.close()
    other.close()


@case(rounds=2)
def client_session(run):
    """A cancellation that the client reads behind 16 hanging probes is sent at once."""
    version, go, up = HOME / ".practice-version", FILES / "go", FILES / "up"
    for _ in range(run.rounds):
        for file in (go, up):
            file.unlink(missing_ok=True)
        version.write_text(f"practice:wait-for={go}")
        request = honest.generation(f"Wait practice:touch={up} practice:hang")
        with subprocess.Popen([INSTALLED / "tessaloom-helperctl", "session"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True) as session:
            def say(method, body):
                session.stdin.write(f"{method} {honest.json.dumps(body)}\n")
                session.stdin.flush()
            say("GenerateText", request)
            eventually(up.exists)
            for _ in range(15):
                say("GenerationEngineStatus", {"engine": "codex"})
            started = time.monotonic()
            say("CancelGeneration", {"requestID": request["requestID"]})
            session.stdin.close()
            first = session.stdout.readline()
            seconds = time.monotonic() - started
            run.check("succeeded" in first or "cancelled" in first, f"the first answer: {first}")
            run.check(seconds < 5, f"the cancellation took {seconds:.1f} s")
            go.touch()
            session.stdout.read()
        version.unlink()
