"""The long runs; each round stands for one thing done."""

import pathlib
import subprocess

import honest
from case import Skipped, case

LAST_PID = pathlib.Path("/proc/sys/kernel/ns_last_pid")
GENERATIONS = ("generate",) * 850 + ("fail",) * 100 + ("cancel",) * 49 + ("time_out",)


@case(rounds=150)
def generations(run):
    """Generations by three callers, some of which fail, are cancelled or pass their deadlines."""
    run.under_load((GENERATIONS,) * 3, turns=-(-run.rounds // 3))


@case(rounds=60, privileged=True)
def reused_pids(run):
    """Processes that reuse the pid of a listed one are not signaled."""
    caller, reused = honest.Honest(run.ledger, run.seed), 0
    try:
        LAST_PID.write_text("1000")
    except OSError as error:
        raise Skipped(f"pids cannot be chosen here: {error}") from error
    for _ in range(run.rounds * 3):
        if reused == run.rounds or not caller.list():
            break
        pid = caller.sleeper.pid
        caller.end_sleeper()
        LAST_PID.write_text(str(pid - 1))
        successor = subprocess.Popen(["/bin/sleep", "1000"])
        if successor.pid == pid:
            reused += 1
            caller.ask("KillProcess", {"pid": pid, "signal": 9}, lambda value, error: not error and not value["succeeded"])
            run.check(successor.poll() is None, "a process that was never listed was killed")
        successor.kill()
        successor.wait()
    run.check(reused == run.rounds, f"only {reused} pids could be reused")
    caller.close()
