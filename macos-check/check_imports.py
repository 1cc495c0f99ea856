#!/usr/bin/env python3
"""Holds the headers that an editor imports against plain Objective-C, and the Swift example against their names.

    check_imports.py

Swift imports Objective-C, never C++. No Swift compiler is needed: every call of the example must have the name and the
labels that the header gives the method for Swift, a closure behind the parentheses being the last argument, and every
case must be one of the enumeration's.
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SDK = ROOT / "build/macos-sdk-19"
EXAMPLE = ROOT / "examples/macos"
HEADERS = ["HelperClient.h", "HelperProtocol/macos/HelperServicing.h"]


def compile_errors(text):
    folders = [f"-I{EXAMPLE}", f"-I{ROOT / 'HelperProtocol/include'}"]
    with tempfile.NamedTemporaryFile("w", suffix=".m") as source:
        source.write(text)
        source.flush()
        command = ["clang-19", "-target", "arm64-apple-macos13.0", "-isysroot", SDK, "-fobjc-arc", "-fsyntax-only", *folders]
        command += ["-Wall", "-Wextra", "-Wpedantic", "-Werror", source.name]
        return subprocess.run(command, capture_output=True, text=True, check=False).stderr


def swift_names(header):
    """What Swift calls the methods, and the cases of the enumeration."""
    names = set(re.findall(r"NS_SWIFT_NAME\((.*)\);", header))
    names |= {f"{name}()" for name in re.findall(r"^- \(void\)(\w+);", header, re.MULTILINE)}
    cases = {name[0].lower() + name[1:] for name in re.findall(r"^  HelperFailure(\w+),", header, re.MULTILINE)}
    return names, cases


def calls_of(example):
    pattern = r"(?:helper|HelperClient)\.(\w+)\(([^()]*(?:\(\))?[^()]*)\)( \{)?"
    for name, arguments, closure in re.findall(pattern, example):
        labels = [re.match(r"\s*(?:(\w+):)?", part)[1] or "_" for part in arguments.split(",") if part.strip()]
        labels += ["reply"] if closure else []
        yield f"{name}({''.join(label + ':' for label in labels)})"


def main():
    problems = []
    if errors := compile_errors("".join(f'#import "{header}"\n' for header in HEADERS)):
        problems.append(f"plain Objective-C does not import the headers:\n{errors}")
    names, cases = swift_names((EXAMPLE / "HelperClient.h").read_text())
    example = (EXAMPLE / "Assistant.swift").read_text()
    calls, used = set(calls_of(example)), set(re.findall(r"case \.(\w+):", example))
    problems += [f"Assistant.swift: HelperClient.h has no {call}" for call in sorted(calls - names)]
    problems += [f"Assistant.swift: HelperFailure has no {case}" for case in sorted(used - cases)]
    problems += [f"Assistant.swift does not show {name}" for name in sorted(names - calls)]
    print("\n".join(problems), end="\n" if problems else "", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
