#!/usr/bin/env python3
"""Shows that the compile check and the run together notice faults in the macOS sources.

    prove_run.py BUILD [NUMBER...]

BUILD is a build folder of preset macos-run in which the unaltered sources were built. Plants each fault below in a
copy of its source, links the program again, and runs the one scenario that must fail. Prints a table of what noticed.
"""

import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

CHECK = Path(__file__).resolve().parent
HELPER, CLIENT = "TessaloomHelper", "tessaloom-helperctl"
SOURCES = "TessaloomHelper/src/macos/"
SERVICE, DELEGATE, MAIN = (SOURCES + name for name in ("HelperService.mm", "ListenerDelegate.mm", "main.mm"))
PROCESS, AGENT, SPAWN = (SOURCES + name for name in ("HelperProcess.mm", "LaunchAgent.mm", "SpawnPlatform.cpp"))
VALUES = "HelperProtocol/src/macos/FoundationValues.mm"
KERNEL = "HelperCore/src/macos/MacKernel.cpp"
TRANSPORT = "HelperCtl/src/macos/XPCTransport.mm"
SESSION = "HelperCtl/src/SessionCommand.cpp"

# What is wrong, in which program and source, from what to what, and the scenario that shows it.
FAULTS = [
    ("two methods are swapped", HELPER, SERVICE, 'methodNamed("HelperCapabilities")', 'methodNamed("ListProcesses")', "versions"),
    ("a reply is sent twice", HELPER, SERVICE, "reply(tessaloom::dataFromBytes(*bytes), nil);", "reply(tessaloom::dataFromBytes(*bytes), nil); reply(tessaloom::dataFromBytes(*bytes), nil);", "versions"),
    ("an error is never sent", HELPER, SERVICE, "reply(nil, tessaloom::errorFromReplyError(*error));", "", "generations"),
    ("data and error are both sent", HELPER, SERVICE, "reply(nil, tessaloom::errorFromReplyError(*error));", "reply(tessaloom::dataFromBytes({}), tessaloom::errorFromReplyError(*error));", "generations"),
    ("the requirement comes after resuming", HELPER, DELEGATE, "  [newConnection resume];", "  [newConnection resume];\n  [newConnection setCodeSigningRequirement:peerRequirement];", "launch_on_demand"),
    ("no requirement", HELPER, DELEGATE, "  [newConnection setCodeSigningRequirement:peerRequirement];", "  (void)peerRequirement;", "code_signing"),
    ("the requirement's operator", HELPER, DELEGATE, "or certificate leaf[subject.OU]", "and certificate leaf[subject.OU]", "code_signing"),
    ("one service for all connections", HELPER, DELEGATE, "[[HelperService alloc] init];\n  [new", "^{ static HelperService* const all = [[HelperService alloc] init]; return all; }();\n  [new", "listings"),
    ("nothing is exported", HELPER, DELEGATE, "  newConnection.exportedObject = [[HelperService alloc] init];\n", "", "launch_on_demand"),
    ("a connection is not resumed", HELPER, DELEGATE, "  [newConnection resume];", "", "launch_on_demand"),
    ("a connection is not accepted", HELPER, DELEGATE, "return YES;", "return NO;", "launch_on_demand"),
    ("the delegate is not kept", HELPER, MAIN, "static ListenerDelegate* const", "ListenerDelegate* const", "launch_on_demand"),
    ("the listener is not kept", HELPER, MAIN, "static NSXPCListener* const", "NSXPCListener* const", "launch_on_demand"),
    ("the listener is not resumed", HELPER, MAIN, "    [listener resume];", "", "launch_on_demand"),
    ("SIGCHLD as it was", HELPER, MAIN, "    ::signal(SIGCHLD, SIG_DFL);", "", "generations"),
    ("no end on signals", HELPER, MAIN, "    tessaloom::endOnSignals();", "", "termination"),
    ("another error code", HELPER, VALUES, "code:error.code", "code:error.code + 1", "generations"),
    ("an error without its kind", HELPER, VALUES, "if (error.kind) {", "if (false) {", "generations"),
    ("a registration too many", HELPER, AGENT, "if (agent.status == SMAppServiceStatusEnabled) return;", "", "launch_on_demand"),
    ("another property list", HELPER, AGENT, "com.brindlemoor.Tessaloom.helper.plist", "com.brindlemoor.Tessaloom.plist", "registration"),
    ("a failed registration is not told", HELPER, AGENT, "  writeHelperLine(", "  if (false) writeHelperLine(", "registration_fails"),
    ("a version that is no text", HELPER, PROCESS, "[version isKindOfClass:[NSString class]]", "version != nil", "versions"),
    ("it leaves under a generation's reply", HELPER, PROCESS, "if (openCalls_.anyRunsEngine() || !isPause) {", "if (false) {", "replacement"),
    ("it waits for a pause for ever", HELPER, PROCESS, " || Clock::now() >= pauseDeadline_;", ";", "replacement"),
    ("engines outlive a signal", HELPER, PROCESS, "  runner_.endAll();", "", "termination"),
    ("children inherit descriptors", HELPER, SPAWN, "POSIX_SPAWN_SETSIGDEF |\n                        POSIX_SPAWN_CLOEXEC_DEFAULT", "POSIX_SPAWN_SETSIGDEF", "generations"),
    ("every descriptor is a socket's", HELPER, KERNEL, "PROC_PIDFDSOCKETINFO, &record, sizeof record", "PROC_PIDFDSOCKETINFO, &record, sizeof record - 1", "listings"),
    ("another user's rows", HELPER, KERNEL, "!= owner) continue;", "== owner) continue;", "listings"),
    ("the client's connection is not resumed", CLIENT, TRANSPORT, "  [connection_ resume];", "", "launch_on_demand"),
    ("the client's connection is not invalidated", CLIENT, TRANSPORT, "{ [connection_ invalidate]; }", "{}", "launch_on_demand"),
    ("a refusal taken for another error", CLIENT, TRANSPORT, "interruptionAdvice : invalidNameAdvice", "invalidNameAdvice : interruptionAdvice", "code_signing"),
    ("a device ends a session", CLIENT, SESSION, "canPollOutput_ = false;\n    events = POLLOUT;", "canPollOutput_ = false;", "session_output"),
]  # fmt: skip


def commands_of(build, program):
    listed = subprocess.run(["ninja", "-C", build, "-t", "commands", f"bin/{program}"], capture_output=True, text=True, check=True)
    return listed.stdout.splitlines()


def source_folder(build):
    cache = (build / "CMakeCache.txt").read_text()
    return Path(re.search(r"^CMAKE_HOME_DIRECTORY:INTERNAL=(.*)$", cache, re.MULTILINE)[1])


def run(command, build):
    return subprocess.run(command, cwd=build, shell=True, capture_output=True, text=True, check=False)


def plant(build, scratch, program, source, before, after):
    """Links the program with an altered source. What the compiler says against it, or nothing."""
    commands = commands_of(build, program)
    original = source_folder(build) / source
    text = original.read_text()
    if text.count(before) < 1:
        sys.exit(f"{source} has no {before!r} to alter")
    (compile_command,) = [command for command in commands if command.endswith(f"-c {original}")]
    arguments = shlex.split(compile_command)
    object_file = arguments[arguments.index("-o") + 1]
    altered = scratch / original.name
    altered.write_text(text.replace(before, after, 1))
    arguments[-1], arguments[arguments.index("-o") + 1] = str(altered), str(scratch / "altered.o")
    if arguments[0] == "ccache":
        arguments = arguments[1:]
    arguments[1:1] = ["-I", str(original.parent)]
    compiled = run(shlex.join(arguments), build)
    if compiled.returncode:
        return compiled.stderr
    # An object before the archive that holds its like takes its place.
    link = commands[-1].replace(f"-o bin/{program}", f"-o {scratch}/{program}")
    if f" {object_file} " in link:
        link = link.replace(f" {object_file} ", f" {scratch}/altered.o ")
    else:
        link = link.replace(f"-o {scratch}/{program}", f"{scratch}/altered.o -o {scratch}/{program}")
    linked = run(link, build)
    if linked.returncode:
        sys.exit(linked.stderr)
    return ""


def notices(build, fault, scratch):
    _, program, source, before, after, scenario = fault
    if plant(build, scratch, program, source, before, after):
        return "compiler"
    command = [CHECK / "run/run-pair", build, "--scenario", scenario, "--with", scratch / program]
    result = subprocess.run(command, capture_output=True, text=True, timeout=90, check=False)
    return f"run: {scenario}" if result.returncode else ""


def main(build, numbers):
    unnoticed = 0
    for number, fault in enumerate(FAULTS, 1):
        if numbers and number not in numbers:
            continue
        with tempfile.TemporaryDirectory() as folder:
            by = notices(build, fault, Path(folder))
        unnoticed += not by
        print(f"{number:2} {fault[0]:45} {by or 'NOTHING NOTICES IT'}", flush=True)
    return 1 if unnoticed else 0


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]).resolve(), set(map(int, sys.argv[2:]))))
