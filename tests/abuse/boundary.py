"""Who may call, and what those who may not can do to those who may."""

import os
import pathlib
import subprocess
import sys
import time

import honest
from bus_peer import BUS, BUS_PATH
from case import Skipped, case
from session import (ACCESS_DENIED, FILES, HOME, INSTALLED, LIMITS_EXCEEDED, Outsider,
                     connect, eventually, processes, status_of)

EDITOR = "[Application]\nname=com.brindlemoor.Tessaloom\n"


@case(rounds=40)
def forged_credentials(run):
    """A peer answers for the bus who it is, with the pid of an honest client."""
    with run.load(), Outsider("forge_credentials", victim=os.getpid(), rounds=run.rounds) as liar:
        outcomes = [liar.report() for _ in range(run.rounds)]
    admitted = outcomes.count("admitted")
    run.check(outcomes.count(ACCESS_DENIED) == run.rounds,
              f"{admitted} of {run.rounds} tries admitted, {outcomes.count('nothing')} without an answer")


@case(rounds=40)
def forged_replies(run):
    """A peer answers for the bus whatever the helper asks about new callers."""
    with run.load(), Outsider("forge_replies") as liar:
        liar.report()
        for _ in range(run.rounds):
            client = run.client()
            client.ask("ProtocolVersion", right=1)
            client.close()


@case(rounds=12)
def forged_departures(run):
    """A peer tells the helper that its callers have left, while they generate, list and kill."""
    with Outsider("forge_departures") as liar:
        liar.report()
        with run.load((("kill",), ("generate", "cancel"), honest.BRIEF), turns=run.rounds):
            pass


@case(rounds=10)
def forged_answers(run):
    """A peer answers the client in the helper's place."""
    believed = 0
    with Outsider("forge_answers", text="A forged answer") as liar:
        liar.report()
        for turn in range(run.rounds):
            words = ("generate", "--engine", "claudeCode", f"Tea {turn}")
            said = subprocess.run([INSTALLED / "tessaloom-helperctl", *words], stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True).stdout
            believed += said != f"A practice answer to “Tea {turn}”, written without a model.\n"
    run.check(not believed, f"{believed} of {run.rounds} answers were another's")


@case(rounds=1)
def false_sandboxes(run):
    """Sandboxes that are no application's, and such as say that they are the editor's."""
    rows = {"without a description": None, "that names the editor": EDITOR,
            "with an instance": EDITOR + "[Instance]\ninstance-id=4711\n",
            "with an instance outside": EDITOR + "[Instance]\ninstance-id=../../../proc/1/root/tmp/files\n"}
    with run.load():
        for row, info in rows.items():
            with Outsider("call_from_sandbox", info=info) as liar:
                outcomes = liar.report()
                run.check(outcomes == [ACCESS_DENIED] * 2, f"a sandbox {row}: {outcomes}")


@case(rounds=1, another_user=True)
def another_user(run):
    """Another user of the machine, even one who reaches the bus's socket."""
    folder = pathlib.Path("/tmp/other-user")
    if not folder.exists():
        raise Skipped("it takes root to be two users")
    address = os.environ["DBUS_SESSION_BUS_ADDRESS"]
    for parent in pathlib.Path(address.removeprefix("unix:path=")).parents:
        if parent.stat().st_uid == os.getuid():
            parent.chmod(0o755)
    (folder / "address.new").write_text(address)
    (folder / "address.new").rename(folder / "address")
    eventually((folder / "outcome").exists)
    outcome = eventually((folder / "outcome").read_text)
    run.check(outcome.startswith("no connection: "), outcome)


def hang(**options):
    outsider = Outsider("hang_in_vetting", **options)
    with outsider:
        said = outsider.report()
        if said != "ready":
            raise Skipped(said)
        yield


@case(rounds=70)
def silent_root(run):
    """Connections from a root directory that never answers do not hold up honest callers, new ones included."""
    for _ in hang(connections=run.rounds):
        with run.load():
            pass


@case(rounds=12)
def held_bodies(run):
    """What an undecided caller sends is bounded."""
    before = int(status_of(run.helper())["VmRSS"].split()[0])
    for _ in hang(connections=1, bodies=run.rounds, size=60_000_000):
        with run.load(turns=10):
            pass
        status = status_of(run.helper())
        peak = (int(status["VmHWM"].split()[0]) - before) // 1024
        run.note = f"peak +{peak} MiB"
        run.check(peak < 160, f"the helper's memory went up by {peak} MiB")


@case(rounds=300)
def vanishing(run):
    """Peers that leave with calls under way, or in the middle of a message."""
    with run.load(), Outsider("vanish", rounds=run.rounds) as peer:
        peer.report()


@case(rounds=300)
def babbling(run):
    """Messages that no honest peer sends."""
    with run.load(), Outsider("babble", seed=str(run.seed), rounds=run.rounds) as peer:
        peer.report()


@case(rounds=4)
def refused_flood(run):
    """Outsiders that call without a pause and never read."""
    floods = [Outsider("flood", method=method) for method in ("ListProcesses", "GenerateText")]
    with floods[0], floods[1]:
        for flood in floods:
            flood.report()
        with run.load(turns=10 * run.rounds):
            pass


@case(rounds=4)
def never_reads(run):
    """An admitted caller that calls without a pause and never reads its answers."""
    with processes(500, 0), Outsider("flood", program=sys.executable) as flood:
        flood.report()
        with run.load(turns=10 * run.rounds):
            peer, bus = connect(), 0
            for _ in range(50 * run.rounds):
                started = time.monotonic()
                peer.call(BUS, BUS_PATH, BUS, "GetId")
                bus = max(bus, time.monotonic() - started)
            peer.close()
    run.note = f"the bus itself answered within {bus:.2f} s"
    run.check(run.ledger.slowest < 2, f"an honest call took {run.ledger.slowest:.1f} s")


@case(rounds=3)
def crowd(run):
    """Callers whose engine calls all hang leave room for others'."""
    (FILES / "go").unlink(missing_ok=True)
    version = HOME / ".practice-version"
    version.write_text(f"practice:wait-for={FILES / 'go'}")
    clients = [run.client() for _ in range(run.rounds)]
    probes = [(client, client.start("GenerationEngineStatus", {"engine": "codex"}))
              for client in clients for _ in range(16)]
    with run.load((("generate", "cancel"), honest.BRIEF), turns=4):
        pass
    (FILES / "go").touch()
    for client, probe in probes:
        client.finish(probe, lambda value, error: not error and value["binaryFound"], (LIMITS_EXCEEDED,))
    version.unlink()
    for client in clients:
        client.close()
