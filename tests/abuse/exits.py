"""How the helper starts and ends, what it owes its callers then, and what it owes those who have left."""

import contextlib
import os
import resource
import shutil
import signal
import socket
import subprocess
import time

import honest
import manager
from boundary import hanging
from bus_peer import BUS, BUS_PATH, CALL, ERROR, RETURN, Peer
from case import case
from honest import CANCELLED
from session import (ACCESS_DENIED, FILES, GENERATIONS, HELPER, HELPER_PATH, HELPER_PROGRAM, INTERFACE, VERSION_WORDS, Outsider, activity, another_bus, engines,
                     eventually, helper_log, launch_helper, limited, notices, process_of, processes, processor_seconds, replace_helper,
                     start_helper, status_of, stopped)

# Nothing that depends on one helper process: a listing authorizes only with the helper that made it.
# A replaced helper exits when it finds no engine running, every half second: there have to be such moments.
PORTABLE = (honest.BRIEF[:-1] + ("reconnect",), ("list", "ports", "reconnect"), ("generate", "status", "fail", "rest"))


@case(rounds=1)
def told_to_stop(run):
    """Every signal that a user or a session sends, and the end of its bus, end it in order: what it runs is cancelled,
    and nothing is left. A second one does not start. Engines have the limits that it was started with."""
    run.end_helper()
    numbers = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1, signal.SIGALRM, signal.SIGRTMAX)
    rows = [(number, 128 + number, f"ended by signal {int(number)}") for number in numbers]
    took = [], []  # By a signal, and by the end of the bus.
    for number, status, line in [*rows, *[(None, 1, "the session bus was lost")] * 2]:
        with another_bus() as bus, run.client() as client, notices("@" + "x" * 107) as told:
            child, second = start_helper(), launch_helper()
            run.check(second.wait() == 1 and "helper: could not take the name " in helper_log(), "a second helper stays")
            child.send_signal(signal.SIGXFSZ)  # Ignored.
            _, started = hanging(client, "practice:ignore-term" if number == signal.SIGTERM else "")
            if number:
                child.send_signal(number)
                client.finish(started, CANCELLED)
            else:
                bus.kill()
            stopped_at = time.monotonic()
            ended = child.wait(9.9), helper_log().splitlines()[-2:].count("helper: " + line), engines(), GENERATIONS.exists()
            took[number is None].append(time.monotonic() - stopped_at)
            run.check(ended == (status, 1, [], False), f"{number}: status, lines, engines, directory: {ended}")
            run.check((said := told()) == ["READY=1", "STOPPING=1"][:2 if number else 1], f"{number}: notices: {said}")
    # A bus that accepts nothing would be given 2 seconds every time. One end that is quick shows that a busy machine held up others.
    run.check(max(map(min, took)) < 1.9, f"seconds: {took}")
    with run.client() as client:
        with limited(os.getpid(), resource.RLIMIT_NOFILE, 700):
            child, given = start_helper("sh", "-c", "trap '' HUP; exec $0 <&- >&- 2>&-"), resource.getrlimit(resource.RLIMIT_NOFILE)
        standard = {os.readlink(f"/proc/{child.pid}/fd/{number}") for number in range(3)}
        run.check(standard == {"/dev/null"}, f"standard descriptors: {standard}")
        child.send_signal(signal.SIGHUP)  # Stays ignored.
        hanging(client)
        raised, *passed = (resource.prlimit(pid, resource.RLIMIT_NOFILE) for pid in (child.pid, *engines()))
        run.check(raised > given and passed == [given], f"limits: {raised} and {passed} for {given}")
        run.check(int(status_of(child.pid)["FDSize"]) >= min(raised[0], 4096), "its table of descriptors has yet to grow")
        child.kill()
        run.check(eventually(lambda: not engines(), 2), "an engine outlives a helper that was killed")
        child.wait()
        shutil.rmtree(GENERATIONS)


@case(rounds=1)
def registration(run):
    """It has the user's service manager enable its unit, and starts also when that refuses or does not answer."""
    failed, unit = "helper: systemd user unit register failed: ", "com.brindlemoor.Tessaloom.helper.service"
    asks, enables = ("GetUnitFileState", (unit,)), ("EnableUnitFiles", ([unit], False, False))
    rows = {"enabled": ([asks], ""), "disabled": ([asks, enables], ""),
            "refusing": ([asks, enables], failed + "Not" + "x" * 497 + "\n"), "silent": ([asks], failed)}
    for state, (expected, line) in rows.items():
        run.end_helper()
        earlier = len(helper_log())
        with Peer() as systemd:
            systemd.call(BUS, BUS_PATH, BUS, "RequestName", "su", "org.freedesktop.systemd1", 4)
            child, calls = launch_helper(), []

            def serve():
                call = systemd.receive(time.monotonic() + 0.1)
                if call and call.type == CALL:
                    calls.append((call.member, call.body))
                    answer = {"destination": call.sender, "reply_serial": call.serial}
                    if state != "silent" and len(calls) == 1:
                        systemd.send_message(RETURN, "s", [state], **answer)
                    elif state == "disabled":
                        systemd.send_message(RETURN, "ba(sss)", [True, []], **answer)
                    elif state == "refusing":
                        systemd.send_message(ERROR, "s", ["Not\n" + "x" * 498], error_name=ACCESS_DENIED, **answer)
                return process_of(HELPER) == child.pid
            run.check(eventually(serve), f"{state}: it does not start")
        wrote = helper_log()[earlier:]
        run.check((calls, wrote[:len(line or "x")]) == (expected, line), f"{state}: {calls}, {wrote}")

    run.end_helper()
    with Peer() as systemd:
        systemd.call(BUS, BUS_PATH, BUS, "RequestName", "su", "org.freedesktop.systemd1", 4)
        child = launch_helper()
        while (asked := systemd.receive(time.monotonic() + 10)).member != "GetUnitFileState":
            pass
        answer = systemd.call(asked.sender, "/", BUS + ".Peer", "Ping", timeout=0.2)
        run.check(not answer, "while it registers, it answers a caller that it has not looked at")
        child.terminate()
        run.check(child.wait(1) == 128 + signal.SIGTERM, f"while it registers: exit status {child.returncode}")


def fill(path):
    with contextlib.suppress(BlockingIOError), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as sender:
        while sender.sendto(b"full", path):
            pass


@case(rounds=1)
def unread(run):
    """A service manager that does not read, and a standard error that nobody reads, hold up neither calls nor the end."""
    run.end_helper()
    path, (_, full) = str(FILES / "notices"), os.pipe2(os.O_NONBLOCK)
    with notices(path) as told, run.client() as client:
        fill(path)
        with contextlib.suppress(BlockingIOError):
            while os.write(full, bytes(4096)):
                pass
        os.set_blocking(full, True)
        child = subprocess.Popen([HELPER_PROGRAM], stderr=full)
        run.check(eventually(lambda: process_of(HELPER) == child.pid), "it does not start")
        client.ask("ProtocolVersion", right=1)
        run.check(eventually(lambda: "READY=1" in told()), "it is never ready")
        fill(path)
        child.terminate()
        run.check(child.wait(5) == 128 + signal.SIGTERM, f"exit status {child.returncode}")


@case(rounds=1)
def stopped_bus(run):
    """With answers that no peer reads it neither uses the processor nor ignores signals."""
    run.end_helper()
    child, clients = start_helper(), [run.client() for _ in range(8)]
    for client in clients:
        client.ask("ProtocolVersion", right=1)
    with processes(1000):
        with stopped(child.pid):
            for client in clients:
                for _ in range(60):
                    client.start("ListProcesses")
                bus = process_of(BUS, client)  # Then the bus has these calls.
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
        run.check(used < 0.4, f"it used {used:.1f} s of the processor in 2 s")
        child.send_signal(signal.SIGTERM)
        run.check(eventually(lambda: child.poll() is not None, 7), "it is still there 7 s after SIGTERM")
    finally:
        os.kill(bus, signal.SIGCONT)
    for client in clients:
        client.close()
    eventually(lambda: run.helper() is None)


def replace(run, client, turn=0):
    """Replaces the helper's executable and asks it about that; its pid."""
    client.ask("ProtocolVersion", right=1)
    old = process_of(HELPER, client)
    replace_helper(turn)
    for asked in [client.start("QuitIfOutdated") for _ in range(3)]:
        client.finish(asked, {"isOutdated": True, "willExit": True})
    return old


def replace_under_load(run, kinds, calls):
    """`calls` more calls go to each helper before it is replaced."""
    with run.load(kinds), run.client() as client:
        for turn in range(run.rounds):
            enough = run.ledger.counts["calls"] + calls
            old = replace(run, client, turn)
            run.check(eventually(lambda: status_of(old) is None, 20), "the replaced helper stays")
            run.check(eventually(lambda: run.ledger.counts["calls"] >= enough or run.ledger.counts["lost"], 20), "no calls")
            if run.problems or run.ledger.counts["lost"]:
                break
            client.ask("QuitIfOutdated", right={"isOutdated": False, "willExit": False})


@case(rounds=3)
def replacements(run):
    """Replaced while calls arrive and a peer answers for the bus whatever the helper asks, it answers all of them, and says
    why it exits."""
    with Outsider("forge_replies"):
        replace_under_load(run, PORTABLE, 300)
    lines = run.bus_log().count("helper: executable replaced on disk; exiting so launchd starts the new build\n")
    run.check(lines == run.rounds, f"{lines} lines for {run.rounds} replacements")


@case(rounds=3, manager=True)
def managed_replacements(run):
    """The same where the user's service manager starts the helper."""
    manager.start()
    run.warm_up()
    replace_under_load(run, PORTABLE * 2, 1000)
    run.check(manager.result() == "success", f"the unit's result: {manager.result()}")


@case(rounds=1)
def busy_when_replaced(run):
    """It keeps its name, so that cancellations reach it, while an engine runs."""
    probing, go = FILES / "probing", FILES / "go"
    with run.client() as client, run.client() as other:
        VERSION_WORDS.write_text(f"practice:touch={probing} practice:wait-for={go}")
        probe = client.start("GenerationEngineStatus", {"engine": "codex"})
        eventually(probing.exists)
        old = replace(run, other)
        before = activity(old)
        run.check(not eventually(lambda: process_of(HELPER, other) != old, 1), "it gave its name away while it probed")
        run.check(activity(old) - before < 9, f"active {activity(old) - before} times with nothing to do")
        go.touch()
        client.finish(probe, lambda value, error: not error and "version" in value)
        run.check(eventually(lambda: status_of(old) is None), "the replaced helper stays")
        VERSION_WORDS.unlink()


@case(rounds=1)
def called_while_exiting(run):
    """A generation that comes when it has given its name back is carried out, without the name if another has it by then."""
    for turn, taken in enumerate((False, True)):
        run.end_helper()
        with notices(str(FILES / f"notices-{turn}")) as told, run.client() as client, run.client() as other:
            child = start_helper()
            client.ask("ProtocolVersion", right=1)
            owner = other.call(BUS, BUS_PATH, BUS, "GetNameOwner", "s", HELPER).body[0]
            replace(run, other, turn)
            with stopped(process_of(BUS, client)):  # Having looked at all its connections: it reads them in order of arrival.
                request, generation = hanging(client, timeout=60, seconds=0.3)
                if taken:
                    other.send(BUS, BUS_PATH, BUS, "RequestName", "su", HELPER, 4)
            eventually((FILES / "up").exists)
            cancel = b'{"requestID":"%s"}' % request["requestID"].encode()
            other.call(owner if taken else HELPER, HELPER_PATH, INTERFACE, "CancelGeneration", "ay", cancel)
            client.finish(generation, CANCELLED)
            run.check(child.wait(5) == 0, f"exit status {child.returncode}")
            said, extended = told(), "EXTEND_TIMEOUT_USEC=330000000"
            run.check(said == ["READY=1", "STOPPING=1", extended, "STOPPING=1"][:3 if taken else 4], f"notices: {said}")
