"""The namespaces that a case runs in, so that it neither sees nor touches anything else: of users, mounts, processes,
networks and control groups, with /tmp and /run of its own, as a user without rights."""

import contextlib
import os
import pathlib
import shutil
import stat
import subprocess

from session import eventually

UNPRIVILEGED = 1  # Debian's user "daemon": every system has it, and nothing runs as it.
IS_ROOT = os.getuid() == 0
USER = UNPRIVILEGED if IS_ROOT else os.getuid()
IDENTIFY = "setpriv --clear-groups --regid={0} --reuid={0}"
UNSHARE = "unshare --mount --pid --net --ipc --cgroup --fork --kill-child --mount-proc"
OWN_USERS = "--user --map-current-user --keep-caps"
DROP = "setpriv --inh-caps=-all --ambient-caps=-all --bounding-set=-all"

SCRIPT = """
    mount -t tmpfs -o mode=1777,size={temporary} none /tmp
    mount -t tmpfs none /run
    mkdir -p -m 700 $ABUSE_RUNTIME /run/practice /run/systemd/system
    {root_first}
    ip link set lo up
    export TMPDIR=/run/practice PYTHONDONTWRITEBYTECODE=1 PYTHONHOME=/usr
    exec {drop} "$0"/tests/support/practice-session "$0"/bin XDG_RUNTIME_DIR=$ABUSE_RUNTIME -- tessaloom "$@"
"""


def install(built, root, work):
    """Puts what the cases need where a user without rights can read it."""
    work.chmod(0o755)
    for folder in ("tests/abuse", "tests/support", "script/lib", "packaging/linux"):
        shutil.copytree(root / folder, work / folder, ignore=shutil.ignore_patterns("__pycache__"))
    (work / "bin").mkdir()
    for name in ("tessaloom-helper", "tessaloom-helperctl", "practice-engine", "process-load"):
        shutil.copy(built / name, work / "bin")
    shutil.copy(os.path.realpath("/usr/bin/python3"), work / "bin/tessaloom")  # By its name an honest caller is admitted.
    with contextlib.suppress(OSError):
        os.mknod(work / "fuse", stat.S_IFCHR, os.makedev(10, 229))  # For a user without the right to make one.
        (work / "fuse").chmod(0o666)


def refusal():
    """Why namespaces cannot be made here, or None."""
    words = f"{IDENTIFY.format(USER) if IS_ROOT else ''} {UNSHARE} {OWN_USERS} true"
    return subprocess.run(words.split(), stderr=subprocess.PIPE, text=True).stderr.strip() or None


@contextlib.contextmanager
def control_group(name):
    """A group that a service manager may divide, or None where there is none to be had."""
    mounts = (line.split() for line in open("/proc/mounts"))
    group = next((pathlib.Path(mount[1], name) for mount in mounts if mount[2] == "cgroup2"), None)
    try:
        group.mkdir()
        for path in (group, group / "cgroup.procs"):
            os.chown(path, USER, USER)
    except (OSError, AttributeError):
        yield None
        return
    yield group
    for folder in [*sorted(group.rglob("*/"), reverse=True), group]:
        eventually(lambda: not (folder / "cgroup.procs").read_text())  # They have been killed.
        folder.rmdir()


@contextlib.contextmanager
def start(work, needs, words):
    """Runs case.py with these words, in a session of processes of its own."""
    root_first, become, users, drop = "", IDENTIFY.format(UNPRIVILEGED) if IS_ROOT else "", OWN_USERS, DROP
    if "privileged" in needs:
        drop = ""
    with control_group(f"tessaloom-abuse-{os.getpid()}") if "manager" in needs else contextlib.nullcontext() as group:
        join = ["sh", "-c", f'echo $$ >{group}/cgroup.procs; exec "$@"', "sh"] if group else []
        if group:
            root_first += "mount -t cgroup2 none /sys/fs/cgroup"
        script = SCRIPT.format(root_first=root_first, drop=drop, temporary=needs.get("temporary", "512m"))
        # The wrapper of the user database is loaded before AddressSanitizer's own library.
        sanitizers = {"ASAN_OPTIONS": "verify_asan_link_order=0",
                      "TSAN_OPTIONS": f"symbolize=0:suppressions={work}/tests/support/tsan-suppressions"}
        environment = os.environ | sanitizers | {"ABUSE_FUSE": str(work / "fuse") if IS_ROOT else "/dev/fuse",
                                    "ABUSE_RUNTIME": f"/run/user/{USER}", "ABUSE_MANAGER": "yes" if group else ""}
        yield subprocess.Popen([*join, *f"{become} {UNSHARE} {users}".split(), "sh", "-ec", script, work,
                                work / "tests/abuse/case.py", *words], env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True)
