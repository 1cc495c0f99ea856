#!/usr/bin/env python3
"""Compiles every source of the macOS target again, as the oldest supported Xcode would, and the tests as the newest.

    compile_again.py BUILD

BUILD is a build folder of preset macos, beside the folders that make_sdks.py made. clang 16 with libc++ 16 is what Xcode 15 has:
the library lacks what came later, the compiler deduces less. The build itself is what the newest Xcode does; there is no
library of GoogleTest to link, so that the tests are not part of it.
"""

import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from make_sdks import NEWEST, OLDEST

ROOT = Path(__file__).resolve().parent.parent


def errors_of(entry, version):
    command = entry["command"].replace(f"macos-sdk-{NEWEST}", f"macos-sdk-{version}")
    arguments = [f"clang++-{version}", *shlex.split(command)[1:], "-fsyntax-only"]
    output = arguments.index("-o")
    del arguments[output : output + 2]
    if version == OLDEST:
        # The system's headers here are newer than this compiler, which tells the minimum system by another name.
        arguments.append("-D__ENVIRONMENT_OS_VERSION_MIN_REQUIRED__=130000")
    result = subprocess.run(arguments, cwd=entry["directory"], capture_output=True, text=True, check=False)
    return result.stderr if result.returncode else ""


def main(build):
    units = {NEWEST: [], OLDEST: []}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        units[NEWEST if Path(entry["file"]).is_relative_to(ROOT / "tests") else OLDEST].append(entry)
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        results = {version: [pool.submit(errors_of, entry, version) for entry in entries] for version, entries in units.items()}
    is_good = True
    for version, futures in results.items():
        failures = [future.result() for future in futures if future.result()]
        print("".join(failures), end="", file=sys.stderr)
        print(f"{len(futures) - len(failures)} of {len(futures)} sources compile with clang {version} and its library")
        is_good &= not failures
    return 0 if is_good else 1


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]).resolve()))
