"""Applications of a real packaged sandbox, with a runtime made by hand (Debian's package flatpak)."""

import os
import shutil
import subprocess

from case import Skipped, case
from session import ACCESS_DENIED, FILES, HELPER, HELPER_PATH, INTERFACE

EDITOR, OTHER = "com.brindlemoor.Tessaloom", "com.brindlemoor.Tessaloom.Other"
PERMISSIONS = {"proxied": f"[Session Bus Policy]\n{HELPER}=talk\n", "unproxied": "[Context]\nsockets=session-bus;\n", "without": ""}
PLATFORM = f"com.brindlemoor.Platform/{os.uname().machine}/1"
CALL = f"dbus-send --session --print-reply=literal --dest={HELPER} {HELPER_PATH} {INTERFACE}.ProtocolVersion 2>&1"


def flatpak(*words):
    # What it asks of the system's bus, nobody answers on the session's.
    runtime = f"/run/user/{os.getuid()}"
    environment = {**os.environ, "XDG_RUNTIME_DIR": runtime, "TMPDIR": "/tmp",
                   "DBUS_SYSTEM_BUS_ADDRESS": os.environ["DBUS_SESSION_BUS_ADDRESS"]}
    environment.pop("LD_PRELOAD", None)
    done = subprocess.run(["flatpak", *words], env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout.strip()


def prepare(*words):
    status, said = flatpak(*words)
    if status:
        raise Skipped(f"flatpak {words[0]} cannot be used here: {said[-200:]}")


def make_platform(folder):
    for name in ("sh", "dbus-send"):
        program = shutil.which(name)
        (folder / "files/bin").mkdir(parents=True, exist_ok=True)
        shutil.copy(program, folder / "files/bin" / name)
        for word in subprocess.run(["ldd", program], capture_output=True, text=True).stdout.split():
            if word.startswith("/"):
                copy = folder / "files" / word.removeprefix("/usr").lstrip("/")
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(word, copy)
    (folder / "metadata").write_text(f"[Runtime]\nname={PLATFORM.split('/')[0]}\nruntime={PLATFORM}\nsdk={PLATFORM}\n")


def install():
    work = FILES / "flatpak"
    make_platform(work / "platform")
    prepare("build-export", "--runtime", "--files=files", str(work / "repo"), str(work / "platform"), "1")
    names = [PLATFORM]
    for application in (EDITOR, OTHER):
        for branch, permissions in PERMISSIONS.items():
            folder = work / f"{application}-{branch}"
            (folder / "files").mkdir(parents=True)
            (folder / "export").mkdir()
            (folder / "metadata").write_text(f"[Application]\nname={application}\nruntime={PLATFORM}\nsdk={PLATFORM}\n"
                                             f"command=sh\n{permissions}")
            prepare("build-export", str(work / "repo"), str(folder), branch)
            names.append(f"{application}//{branch}")
    prepare("remote-add", "--user", "--no-gpg-verify", "practice", str(work / "repo"))
    for name in names:
        prepare("install", "--user", "--assumeyes", "--noninteractive", "practice", name)


def say(application, branch):
    status, said = flatpak("run", "--user", "--no-a11y-bus", f"{application}//{branch}", "-c", CALL)
    lines = [line for line in said.splitlines() if line and "WARNING **" not in line]  # Of senders that have gone already.
    return lines[-1] if lines else f"nothing, status {status}"


@case(rounds=1, temporary="1g")
def flatpaks(run):
    """The editor as a Flatpak may call. Others may not, also with the permission to talk."""
    if not shutil.which("flatpak"):
        raise Skipped("flatpak is not installed")
    install()
    with run.load():
        for application in (EDITOR, OTHER):
            for branch in PERMISSIONS:
                said = say(application, branch)
                right = "ServiceUnknown" if branch == "without" else "int64 1" if application == EDITOR else ACCESS_DENIED
                run.check(right in said, f"{application} {branch}: {said}")
