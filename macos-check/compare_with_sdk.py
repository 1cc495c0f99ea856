#!/usr/bin/env python3
"""Compares the declarations of this folder with a real SDK: the same sources must give the same objects.

    compare_with_sdk.py BUILD SDK

BUILD is a build folder of preset macos; SDK is a MacOSX.sdk folder. Compiles every Objective-C++ source
again, with the frameworks of the SDK in place of the ones in Frameworks/, and compares byte by byte.
"""

import json
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path


def compiled(entry, output, *options):
    arguments = shlex.split(entry["command"])
    arguments[arguments.index("-o") + 1] = str(output)
    arguments.remove("-fmodules")  # The frameworks of an SDK are modules, the ones here are not.
    subprocess.run([*arguments, *options], cwd=entry["directory"], check=True)
    return output.read_bytes()


def is_same_object(entry, sdk, output):
    # The second place is for the headers of libSystem that the folder that stands for the SDK lacks.
    options = ["-iframework", sdk / "System/Library/Frameworks", "-idirafter", sdk / "usr/include"]
    return compiled(entry, output) == compiled(entry, output, *options)


def main(build, sdk):
    if not (sdk / "System/Library/Frameworks/Foundation.framework/Headers/Foundation.h").exists():
        sys.exit(f"{sdk} is not an SDK")
    failures = 0
    with tempfile.TemporaryDirectory() as scratch:
        for entry in json.loads((build / "compile_commands.json").read_text()):
            if entry["file"].endswith(".mm"):
                is_same = is_same_object(entry, sdk, Path(scratch) / "object.o")
                failures += not is_same
                print("same     " if is_same else "DIFFERENT", Path(entry["file"]).name)
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2]).resolve()))
