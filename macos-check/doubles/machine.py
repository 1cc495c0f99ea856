#!/usr/bin/env python3
"""A Mac in a folder, as far as the helper and its clients see one.

    machine.py BUILD FOLDER [NAME=VALUE...]

Installs the bundle of BUILD, a signed client and a signed editor, and a home directory in which the practice engine is
both engines. Prints the environment of that machine as shell assignments; the variables are added to it.
"""

import getpass
import os
import shutil
import subprocess
import sys
from pathlib import Path

EDITOR = ["identifier com.brindlemoor.Tessaloom", "anchor apple", "unit Q4ZK8MRB21"]


def sign(program, lines):
    Path(f"{program}.signature").write_text("".join(line + "\n" for line in lines))


def wrapper():
    listed = subprocess.run(["/sbin/ldconfig", "-p"], capture_output=True, text=True, check=True).stdout
    for line in listed.splitlines():
        if line.strip().startswith("libnss_wrapper.so "):
            return line.split()[-1]
    sys.exit("libnss_wrapper.so is missing (package libnss-wrapper)")


def set_up(build, folder, variables=()):
    """The environment of programs on this machine."""
    binaries, home = folder / "bin", folder / "home"
    engines = home / ".local/bin"
    for directory in (binaries, engines, folder / "run", folder / "temporary", folder / "defaults"):
        directory.mkdir(parents=True, mode=0o755)
    (folder / "temporary").chmod(0o700)
    subprocess.run(
        ["cmake", "--install", build, "--prefix", folder / "Tessaloom.app"], check=True, stdout=subprocess.DEVNULL
    )
    for name in ("tessaloom-helperctl", "Editor"):
        shutil.copy(build / "bin" / name, binaries)
        sign(binaries / name, EDITOR)
    for name in ("claude", "codex"):
        shutil.copy(build / "bin/practice-engine", engines / name)
        (engines / name).chmod(0o755)
    user, numbers = getpass.getuser(), f"{os.getuid()}:{os.getgid()}"
    (folder / "passwd").write_text(f"{user}:x:{numbers}::{home}:/bin/sh\n")
    (folder / "group").write_text(f"{user}:x:{os.getgid()}:\n")
    return {
        "LD_PRELOAD": wrapper(),
        "NSS_WRAPPER_PASSWD": str(folder / "passwd"),
        "NSS_WRAPPER_GROUP": str(folder / "group"),
        "DOUBLE_LAUNCHD": str(folder / "run"),
        "DOUBLE_LOG": str(folder / "run/log"),
        "DOUBLE_DEFAULTS": str(folder / "defaults"),
        "DOUBLE_TEMPORARY": str(folder / "temporary"),
        **dict(variable.split("=", 1) for variable in variables),
    }


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    for name, value in set_up(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3:]).items():
        print(f"{name}='{value}'")
