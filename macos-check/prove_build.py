#!/usr/bin/env python3
"""Shows that the build fails where it must: compiles altered copies of the sources.

    prove_build.py BUILD

BUILD is a build folder in which the unaltered sources were built.
"""

import json
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SERVICE = "TessaloomHelper/src/macos/HelperService.mm"
DELEGATE = "TessaloomHelper/src/macos/ListenerDelegate.mm"
AGENT = "TessaloomHelper/src/macos/LaunchAgent.mm"
MAIN = "TessaloomHelper/src/macos/main.mm"
KERNEL = "HelperCore/src/macos/MacKernel.cpp"

# What is altered, in which source, from what to what.
ALTERATIONS = [
    ("the selector of a method", SERVICE, "quitIfOutdatedWithReply:", "quitWithReply:"),
    (
        "the reply block of a method",
        SERVICE,
        "protocolVersionWithReply:(void (^)(std::int64_t version))",
        "protocolVersionWithReply:(void (^)(long version))",
    ),
    (
        "the request type of a method",
        SERVICE,
        "cancelGenerationWithRequest:(NSData*)request",
        "cancelGenerationWithRequest:(NSString*)request",
    ),
    ("a selector of the system", DELEGATE, "setCodeSigningRequirement:", "setSigningRequirement:"),
    ("an argument of the system", AGENT, "registerAndReturnError:&error", "registerAndReturnError:1"),
    ("an initialiser", MAIN, "initWithMachServiceName:", "initWithServiceName:"),
    ("the arguments of a system call", KERNEL, "PROC_PIDTASKINFO, 0, &task", "PROC_PIDTASKINFO, &task"),
]
UNDEFINED = 'extern "C" void missingFromEveryLibrary();\nint main() { missingFromEveryLibrary(); }\n'


def commands(build):
    for entry in json.loads((build / "compile_commands.json").read_text()):
        yield str(Path(entry["file"]).relative_to(ROOT)), entry


def run(arguments, folder):
    return subprocess.run(arguments, cwd=folder, capture_output=True, text=True, check=False)


def main(build):
    entries = dict(commands(build))
    failures = 0
    with tempfile.TemporaryDirectory() as scratch:
        for what, source, before, after in ALTERATIONS:
            text = (ROOT / source).read_text()
            if before not in text:
                sys.exit(f"{source} has no {before!r} to alter")
            copy = Path(scratch) / Path(source).name
            copy.write_text(text.replace(before, after))
            arguments = shlex.split(entries[source]["command"])
            arguments[arguments.index("-o") + 1] = f"{scratch}/altered.o"
            arguments[-1] = str(copy)
            arguments += ["-I", str((ROOT / source).parent)]
            result = run(arguments, entries[source]["directory"])
            if result.returncode == 0 or "error:" not in result.stderr:
                failures += 1
                print(f"the build does not notice another {what}", file=sys.stderr)
        program = Path(scratch) / "undefined.cpp"
        program.write_text(UNDEFINED)
        compiler = shlex.split(entries[KERNEL]["command"])[:2]
        link = [*compiler, "-target", "aarch64-macos.13.0", str(program), "-o", f"{scratch}/undefined"]
        result = run(link, scratch)
        if "missingFromEveryLibrary" not in result.stderr:
            failures += 1
            print("the build does not notice an undefined symbol", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]).resolve()))
