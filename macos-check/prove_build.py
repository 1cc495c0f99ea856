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
LATER = (
    "#include <charconv>\n"
    "int main() { char text[64]; return std::to_chars(text, text + 64, 1.5).ptr == text; }\n"
)


def commands(build):
    for entry in json.loads((build / "compile_commands.json").read_text()):
        yield str(Path(entry["file"]).relative_to(ROOT)), entry


def errors_of(arguments, folder):
    return subprocess.run(arguments, cwd=folder, capture_output=True, text=True, check=False).stderr


def compile_errors(entry, source, output):
    arguments = shlex.split(entry["command"])
    arguments[arguments.index("-o") + 1] = str(output)
    arguments[-1] = str(source)
    # What the source includes from its own folder.
    arguments += ["-I", str(Path(entry["file"]).parent)]
    return errors_of(arguments, entry["directory"])


def altered_source_fails(entry, before, after, scratch):
    text = Path(entry["file"]).read_text()
    if before not in text:
        sys.exit(f"{entry['file']} has no {before!r} to alter")
    source = scratch / Path(entry["file"]).name
    source.write_text(text.replace(before, after))
    return "error:" in compile_errors(entry, source, scratch / "altered.o")


def older_system_fails(entry, scratch):
    older = {**entry, "command": entry["command"].replace("macos.13.0", "macos.12.0")}
    return "only available on macOS 13.0" in compile_errors(older, entry["file"], scratch / "older.o")


def later_library_fails(entry, scratch):
    program = scratch / "later.cpp"
    program.write_text(LATER)
    return "introduced in macOS 13.3" in compile_errors(entry, program, scratch / "later.o")


def undefined_symbol_fails(entry, scratch):
    program = scratch / "undefined.cpp"
    program.write_text(UNDEFINED)
    compiler = shlex.split(entry["command"])[:2]
    link = [*compiler, "-target", "aarch64-macos.13.0", str(program), "-o", str(scratch / "undefined")]
    return "missingFromEveryLibrary" in errors_of(link, scratch)


def main(build):
    entries = dict(commands(build))
    with tempfile.TemporaryDirectory() as folder:
        scratch = Path(folder)
        outcomes = {
            f"another form of {what}": altered_source_fails(entries[source], before, after, scratch)
            for what, source, before, after in ALTERATIONS
        }
        outcomes["an interface of a later system"] = older_system_fails(entries[AGENT], scratch)
        outcomes["a function of a later C++ library"] = later_library_fails(entries[KERNEL], scratch)
        outcomes["an undefined symbol"] = undefined_symbol_fails(entries[KERNEL], scratch)
    unnoticed = [what for what, fails in outcomes.items() if not fails]
    for what in unnoticed:
        print(f"the build does not notice {what}", file=sys.stderr)
    return 1 if unnoticed else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]).resolve()))
