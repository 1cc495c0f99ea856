"""Who may call, what those who may not can do to those who may, and what one who may can take from others."""

import os

import honest
from bus_peer import BUS
from case import Skipped, case
from sandbox import PROGRAM as SANDBOXED
from session import (ACCESS_DENIED, ADMITTED, FILES, HELPER, HELPER_PATH, INTERFACE, LIMITS_EXCEEDED, Outsider, engines,
                     eventually, memory_of, processes)


@case(rounds=40)
def forged_credentials(run):
    """A peer answers for the bus who it is, with the pid of an honest client."""
    with run.load(), Outsider("forge_credentials", victim=os.getpid(), rounds=run.rounds) as liar:
        outcomes = {liar.report() for _ in range(run.rounds)}
    run.check(outcomes == {ACCESS_DENIED}, f"outcomes: {outcomes}")


@case(rounds=70)
def silent_root(run):
    """Connections from a root directory that never answers do not hold up honest callers, new ones included, and what they
    send is bounded."""
    before = memory_of(run.helper(), "VmRSS")
    with Outsider("hang_in_vetting", program=SANDBOXED, connections=run.rounds, bodies=12, size=60_000_000) as outsider:
        if outsider.first != "ready":
            raise Skipped(outsider.first)
        run.under_load(turns=10)
        peak = memory_of(run.helper(), "VmHWM") - before
        run.note = f"peak +{peak:.0f} MiB"
        run.check(peak < 160, f"the helper's memory went up by {peak:.0f} MiB")


@case(rounds=300)
def strangers(run):
    """Peers that leave with calls under way or in the middle of a message, and messages that no honest peer sends."""
    with (run.load(), Outsider("vanish", rounds=run.rounds) as vanishing,
          Outsider("babble", seed=run.seed, rounds=run.rounds) as babbling):
        run.check((vanishing.report(), babbling.report()) == ("done", "done"), "they did not come to their end")


@case(rounds=2)
def never_reads(run):
    """An admitted caller that calls without a pause and never reads its answers."""
    with processes(500), Outsider("flood", program=ADMITTED):
        run.under_load(turns=5 * run.rounds)
    run.check(run.ledger.slowest < 2, f"an honest call took {run.ledger.slowest:.1f} s")


def hanging(client, words="", seconds=10, **options):
    """A generation that runs: its request, and what `finish` takes."""
    up = FILES / "up"
    up.unlink(missing_ok=True)
    request = honest.generation(f"Wait practice:touch={up} {words} practice:hang", **options)
    started = client.start("GenerateText", request)
    eventually(up.exists, seconds)
    return request, started


@case(rounds=1)
def crowd(run):
    """Callers take no more than their bounds of calls, bodies, generations and time."""
    with run.client() as client:
        resisting = ("ignore-term practice:grandchild=600000", "flood=5242880", "flood-err=5242880")
        three = [hanging(client, f"practice:{words}", timeout=5) for words in resisting]
        client.ask("GenerateText", honest.generation("One more"), (honest.GENERATION_ERROR + "engineRefused", 1))
        for _, generation in three:
            client.finish(generation, honest.GENERATION_ERROR + "timedOut")
        run.check(eventually(lambda: not engines()), "what an engine started runs on after its deadline")

        client.ask("GenerateText", bytes(17 << 20), LIMITS_EXCEEDED)
        for length in (255, 256):
            said = client.call(HELPER, f"/{1:0{length - 1}}", INTERFACE, "ProtocolVersion").body[0]
            run.check(("so long a path" in said) == (length > 255), f"a path of {length}: {said}")
        for call in [client.start("ProtocolVersion") for _ in range(10_000)]:
            client.finish(call, 1, (LIMITS_EXCEEDED,))
        text = client.call(HELPER, HELPER_PATH, BUS + ".Introspectable", "Introspect").body[0]
        run.check('<method name="GenerateText">' in text and "Deprecated" not in text, "it does not describe itself")
