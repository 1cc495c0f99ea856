"""What a case is, and how one is run.

    case.py NAME ROUNDS SEED [quick]

runs one in the session that it finds itself in (script/abuse makes it) and writes its result as JSON. A quick run does not
look at what the helper holds before and afterwards.
"""

import importlib
import json
import os
import pathlib
import random
import signal
import sys
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "support"))
sys.modules["case"] = sys.modules[__name__]  # The modules with the cases import this one.

import honest
from session import FILES, HELPER, engines, eventually, footprint, helper_log, process_of, status_of

MODULES = ("boundary", "flatpaks", "exits", "shortages", "endurance")
CASES = {}
SETTLING = 12        # Seconds.
IDLE_TIME = 2.5      # Seconds; threads exit after 2.
MEMORY_SLACK = 1024  # KiB.


def case(rounds, **needs):
    """Makes a function a case, which is repeated `rounds` times unless another number is given. script/abuse sees to what it
    needs of its namespaces."""
    def add(function):
        CASES[function.__name__.replace("_", "-")] = (function, rounds, needs)
        return function
    return add


def load_cases():
    for module in MODULES:
        importlib.import_module(module)


class Skipped(Exception):
    """The machine cannot do what the case needs."""


class Run:
    def __init__(self, rounds, seed):
        self.rounds = rounds
        self.seed = seed
        self.random = random.Random(seed)
        self.ledger = honest.Ledger()
        self.problems = []
        self.note = ""
        self.before = None  # What the helper held before the case.

    def check(self, holds, problem):
        if not holds:
            self.problems.append(problem)
        return holds

    def load(self, kinds=honest.EVERYTHING, **options):
        return honest.load(self.ledger, self.random.random(), kinds, **options)

    def under_load(self, kinds=honest.EVERYTHING, turns=None):
        with self.load(kinds, turns=turns):
            pass

    def client(self):
        return honest.Client(self.ledger)

    def helper(self):
        return process_of(HELPER)

    def end_helper(self):
        """Ends it in order, so that a case can start one by itself."""
        pid = self.helper()
        if pid:
            os.kill(pid, signal.SIGTERM)
            self.check(eventually(lambda: status_of(pid) is None), "the helper does not end")

    def warm_up(self):
        """Has a helper do every kind of work, so that what is made once is there."""
        for _ in range(3):
            self.under_load(turns=8)
        idle_at = time.monotonic() + IDLE_TIME
        self.before = self.settle(lambda held: time.monotonic() > idle_at)

    def settle(self, is_enough):
        """What the helper holds once that is enough, or when it has not become that in time."""
        with self.client() as client:
            for method in ("ListProcesses", "ListListeningPorts"):  # Forgets what was kept of processes that have ended.
                client.ask(method, right=lambda value, error: not error)
        pid = self.helper()
        eventually(lambda: is_enough(footprint(pid)), SETTLING)
        return footprint(pid)

    def excess(self, held):
        return {key: held[key] - before for key, before in self.before.items()
                if held[key] > before + (MEMORY_SLACK if key == "memory" else 0)}

    def bus_log(self):
        return pathlib.Path(os.environ["PRIVATE_BUS_LOG"]).read_text()

    def look_at_the_end(self):
        """What must not be there once the case is over; a sanitizer reports when the helper ends."""
        self.check(eventually(lambda: not engines()), f"engines run on: {engines()}")
        self.end_helper()
        log = self.bus_log() + helper_log()
        self.check("Sanitizer" not in log, log[-2000:])


def run_case(name, rounds, seed, is_quick):
    function, _, needs = CASES[name]
    run, leaks, skipped = Run(rounds, seed), {}, None
    try:
        FILES.mkdir(exist_ok=True)
        run.warm_up() if not is_quick else run.under_load(turns=1)
        function(run)
        run.under_load(turns=8)
        if not is_quick:
            leaks = run.excess(run.settle(lambda held: not run.excess(held)))
        run.look_at_the_end()
    except Skipped as reason:
        skipped = str(reason)
    except honest.Lost:
        pass  # Counted.
    except Exception:
        run.problems.append("the case failed: " + traceback.format_exc(limit=-3))
    return {"counts": run.ledger.counts, "leaks": leaks, "skipped": skipped, "note": run.note,
            "slowest": run.ledger.slowest, "problems": run.problems + run.ledger.problems}


if __name__ == "__main__":
    for ignored in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):  # By whatever runs this; the helper would go on so.
        signal.signal(ignored, signal.SIG_DFL)
    load_cases()
    print(json.dumps(run_case(sys.argv[1], int(sys.argv[2]), sys.argv[3], "quick" in sys.argv[4:])))
