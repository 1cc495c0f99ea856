#!/usr/bin/env python3
"""Shows that the compile check and the run together notice faults in the macOS sources.

    plant_faults.py CHECK RUN [NUMBER...]

CHECK and RUN are build folders of the presets macos and macos-run in which the unaltered sources were built. Plants
each fault below in a copy of its source. What still compiles for macOS is linked into the program that runs here, and
the one scenario that must fail is run. Prints the table of what noticed each fault.
"""

import json
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

from compile_again import errors_of
from make_sdks import OLDEST as OLDEST_CLANG

ROOT = Path(__file__).resolve().parent.parent
SOURCES = "TessaloomHelper/src/macos/"
SERVICE, DELEGATE, MAIN = (SOURCES + name for name in ("HelperService.mm", "ListenerDelegate.mm", "main.mm"))
PROCESS, CALLS, AGENT = (SOURCES + name for name in ("HelperProcess.mm", "OpenCalls.cpp", "LaunchAgent.mm"))
VALUES = "HelperProtocol/src/macos/FoundationValues.mm"
KERNEL = "HelperCore/src/macos/MacKernel.cpp"
SPAWN = "HelperCore/src/macos/SpawnPlatform.cpp"
TRANSPORT = "HelperCtl/src/macos/XPCTransport.mm"
EXAMPLE = "examples/macos/HelperClient.mm"
SESSION = "HelperCtl/src/SessionCommand.cpp"
RECORDS = "tests/macos/KernelRecordsChecks.cpp"
COMPILER, OLDEST = "compile check", "compile check, clang 16"
LAUNCH = "LaunchTests"
REGISTER = "void registerLaunchAgent() {\n"

# What is wrong, in which source, from what to what, and what must notice: the compile check, with its own compiler or
# with the oldest one, a scenario of the run, or the cases of the launch.
FAULTS = [
    ("another selector of a method", SERVICE, "quitIfOutdatedWithReply:", "quitWithReply:", COMPILER),
    ("another reply block of a method", SERVICE, "(void (^)(int64_t version))", "(void (^)(long version))", COMPILER),
    ("another request type of a method", SERVICE, "GenerationWithRequest:(NSData*)", "GenerationWithRequest:(NSString*)", COMPILER),
    ("another selector of the system", DELEGATE, "setCodeSigningRequirement:", "setSigningRequirement:", COMPILER),
    ("another argument of the system", AGENT, "registerAndReturnError:&error", "registerAndReturnError:1", COMPILER),
    ("another initializer", MAIN, "initWithMachServiceName:", "initWithServiceName:", COMPILER),
    ("a system call lacks an argument", KERNEL, "PROC_PIDTASKINFO, 0, &task", "PROC_PIDTASKINFO, &task", COMPILER),
    ("a function of a later system", AGENT, REGISTER, "__attribute__((availability(macos, introduced=14.0))) void later();\n" + REGISTER + "  later();\n", COMPILER),
    ("an undefined symbol", AGENT, REGISTER, "void missing();\n" + REGISTER + "  missing();\n", COMPILER),
    ("a function of a later C++ library", KERNEL, "namespace tessaloom {", "#include <charconv>\nauto later(char* text) { return std::to_chars(text, text + 9, 1.5); }\nnamespace tessaloom {", COMPILER),
    ("an order that the oldest library lacks", KERNEL, "namespace tessaloom {", "static_assert(std::array<int, 1>{1} <=> std::array<int, 1>{2} < 0);\nnamespace tessaloom {", OLDEST),
    ("a field without an initializer", RECORDS, ", .tv_usec = 999'999", "", COMPILER),
    ("two methods are swapped", SERVICE, 'methodNamed("HelperCapabilities")', 'methodNamed("ListProcesses")', "versions"),
    ("a reply is sent twice", SERVICE, "reply(tessaloom::dataFromBytes(*bytes), nil);", "reply(tessaloom::dataFromBytes(*bytes), nil); reply(tessaloom::dataFromBytes(*bytes), nil);", "versions"),
    ("an error is never sent", SERVICE, "reply(nil, tessaloom::errorFromReplyError(*error));", "(void)tessaloom::errorFromReplyError(*error);", "generations"),
    ("data and error are both sent", SERVICE, "reply(nil, tessaloom::errorFromReplyError(*error));", "reply(tessaloom::dataFromBytes({}), tessaloom::errorFromReplyError(*error));", "generations"),
    ("the requirement comes after resuming", DELEGATE, "  [newConnection resume];", "  [newConnection resume];\n  [newConnection setCodeSigningRequirement:peerRequirement];", "launch_on_demand"),
    ("no requirement", DELEGATE, "  [newConnection setCodeSigningRequirement:peerRequirement];", "  (void)peerRequirement;", "code_signing"),
    ("another operator in the requirement", DELEGATE, "or certificate leaf[subject.OU]", "and certificate leaf[subject.OU]", "code_signing"),
    ("one service for all connections", DELEGATE, "[[HelperService alloc] init];\n  [new", "^{ static HelperService* const all = [[HelperService alloc] init]; return all; }();\n  [new", "listings"),
    ("nothing is exported", DELEGATE, "  newConnection.exportedObject = [[HelperService alloc] init];\n", "", "launch_on_demand"),
    ("a connection is not resumed", DELEGATE, "  [newConnection resume];", "", "launch_on_demand"),
    ("a connection is not accepted", DELEGATE, "return YES;", "return NO;", "launch_on_demand"),
    ("the delegate is not kept", MAIN, "static ListenerDelegate* const", "ListenerDelegate* const", "launch_on_demand"),
    ("the listener is not kept", MAIN, "static NSXPCListener* const", "NSXPCListener* const", "launch_on_demand"),
    ("the listener is not resumed", MAIN, "    [listener resume];", "", "launch_on_demand"),
    ("SIGCHLD stays as it was", MAIN, "    ::signal(SIGCHLD, SIG_DFL);", "", "generations"),
    ("signals end the process at once", MAIN, "    tessaloom::endOnSignals();", "", "termination"),
    ("another error code", VALUES, "code:error.code", "code:error.code + 1", "generations"),
    ("an error without its kind", VALUES, "if (error.kind) {", "if (false) {", "generations"),
    ("a registration too many", AGENT, "if (agent.status == SMAppServiceStatusEnabled) return;", "", "launch_on_demand"),
    ("another property list", AGENT, "com.brindlemoor.Tessaloom.helper.plist", "com.brindlemoor.Tessaloom.plist", "registration"),
    ("a failed registration is not reported", AGENT, "  logLine(", "  if (false) logLine(", "registration_fails"),
    ("an update does not register the agent again", EXAMPLE, "isEqual:version]", "isEqual:version] || version != nil", "update"),
    ("a version that is not text", PROCESS, "[version isKindOfClass:[NSString class]]", "version != nil", "versions"),
    ("it exits while calls are open", PROCESS, "if (!openCalls_.isPause(pauseLimit)) {", "if (isStopping_ && !openCalls_.isPause(pauseLimit)) {", "replacement"),
    ("a call is not open until its reply is sent", SERVICE, "    call.closeOnceSent();\n  };", "  };", "late_generation"),
    ("it waits for a pause without a limit", CALLS, "*pauseAwaited_ + limit;", "*pauseAwaited_ + 1000 * limit;", "replacement"),
    ("a past wait for a pause counts after a generation", CALLS, "    pauseAwaited_.reset();\n", "", "late_generation"),
    ("engines outlive a signal", PROCESS, "  runner_.endAll();", "", "termination"),
    ("a signal does not wait for the engines", PROCESS, "stopLimit{10}", "stopLimit{4}", "stopped_by_launchd"),
    ("a signal waits for a thread that engines have", PROCESS, "static_cast<uintptr_t>(signal), 0, signalQueue_);", "static_cast<uintptr_t>(signal), 0, dispatch_get_global_queue(QOS_CLASS_UTILITY, 0));", "starved_signal"),
    ("an engine's flags keep its files", "TessaloomHelper/src/macos/NestedDirectory.cpp", "::fchflags(file.get(), 0) == 0;", "false;", "immutable_files"),
    ("children inherit descriptors", SPAWN, "POSIX_SPAWN_SETSIGDEF |\n                        POSIX_SPAWN_CLOEXEC_DEFAULT", "POSIX_SPAWN_SETSIGDEF", "generations"),
    ("children stay in the helper's process group", SPAWN, "POSIX_SPAWN_SETPGROUP | ", "", "deadline"),
    ("children block what the helper blocks", SPAWN, "POSIX_SPAWN_SETSIGMASK | ", "", LAUNCH),
    ("children ignore what the helper ignores", SPAWN, "POSIX_SPAWN_SETSIGDEF |\n                        POSIX", "POSIX", LAUNCH),
    ("children stay in the helper's directory", SPAWN, "if (program.workingDirectory != nullptr) {", "if (false) {", LAUNCH),
    ("children get no environment", SPAWN, "program.environment);", "nullptr);", LAUNCH),
    ("a failed launch is not reported", SPAWN, "return std::unexpected(error);", "return std::unexpected(5);", LAUNCH),
    ("a buffer is shorter than the record", KERNEL, "PROC_PIDFDSOCKETINFO, &record, sizeof record", "PROC_PIDFDSOCKETINFO, &record, sizeof record - 1", "listings"),
    ("another user's rows", KERNEL, "!= owner) continue;", "== owner) continue;", "listings"),
    ("the client's connection is not resumed", TRANSPORT, "  [connection_ resume];", "", "launch_on_demand"),
    ("the client's connection is not invalidated", TRANSPORT, "{ [connection_ invalidate]; }", "{}", "launch_on_demand"),
    ("the client's routes are swapped", TRANSPORT, "  if (body) {\n    using Send", "  if (!body) {\n    using Send", "versions"),
    ("a refusal is taken for another error", TRANSPORT, "interruptionAdvice : invalidNameAdvice", "invalidNameAdvice : interruptionAdvice", "code_signing"),
    ("a device ends a session", SESSION, "canPollOutput_ = false;\n    events = POLLOUT;", "canPollOutput_ = false;", "session_output"),
]  # fmt: skip


def run(command, build):
    return subprocess.run(command, cwd=build, shell=True, capture_output=True, text=True, check=False)


def entries_of(build):
    return json.loads((build / "compile_commands.json").read_text())


def commands_of(build, *targets):
    listed = subprocess.run(["ninja", "-t", "commands", *targets], cwd=build, capture_output=True, text=True, check=True)
    return listed.stdout.splitlines()


def compiled(build, source, altered, output):
    """Compiles an altered copy as the build compiled the source: what the compiler says against it, and the build's object."""
    original = ROOT / source
    (entry,) = (entry for entry in entries_of(build) if entry["file"] == str(original))
    arguments = shlex.split(entry["command"])
    if arguments[0].endswith("ccache"):
        arguments = arguments[1:]
    replaced = arguments[arguments.index("-o") + 1]
    arguments[-1], arguments[arguments.index("-o") + 1] = str(altered), str(output)
    # What the source includes from its own folder.
    arguments += ["-I", str(original.parent)]
    result = run(shlex.join(arguments), build)
    return result.stderr if result.returncode else "", replaced


def linked(build, program, altered, replaced):
    """Links the program with the altered object: what the linker says against it, and the program."""
    output = altered.parent / program
    link = commands_of(build, f"bin/{program}")[-1].replace(f"-o bin/{program}", f"-o {output}")
    if f" {replaced} " in link:
        link = link.replace(f" {replaced} ", f" {altered} ")
    else:
        # Before the archive that holds its like it takes its place.
        link = link.replace(f"-o {output}", f"{altered} -o {output}")
    result = run(link, build)
    return result.stderr if result.returncode else "", output


def compile_check_notices(check, source, program, altered, output):
    """How the compile check notices an altered source, or nothing."""
    errors, replaced = compiled(check, source, altered, output)
    if errors or (program != "Editor" and linked(check, program, output, replaced)[0]):
        return COMPILER
    (entry,) = (entry for entry in entries_of(check) if entry["file"] == str(ROOT / source))
    command = entry["command"].replace(f"-c {ROOT / source}", f"-I{(ROOT / source).parent} -c {altered}")
    return OLDEST if errors_of({**entry, "command": command}, OLDEST_CLANG) else ""


def run_notices(build, source, program, scenario, altered, output):
    errors, replaced = compiled(build, source, altered, output)
    if not errors:
        errors, program = linked(build, program, output, replaced)
    if errors:
        sys.exit(errors)
    command = [ROOT / "macos-check/doubles/run-pair", build, "--scenario", scenario, "--with", program]
    if scenario == LAUNCH:
        command = [program]
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    return scenario if result.returncode else ""


def notices(check, build, source, before, after, expected, scratch):
    text = (ROOT / source).read_text()
    if before not in text:
        sys.exit(f"{source} has no {before!r} to alter")
    altered, output = scratch / Path(source).name, scratch / "altered.o"
    altered.write_text(text.replace(before, after, 1))
    programs = {"HelperCtl": "tessaloom-helperctl", "examples": "Editor"}
    program = programs.get(source.partition("/")[0], "TessaloomHelper")
    by = compile_check_notices(check, source, program, altered, output)
    if by or expected in (COMPILER, OLDEST):
        return by
    if expected == LAUNCH:
        program = LAUNCH
    return run_notices(build, source, program, expected, altered, output)


def main(check, build, numbers):
    unnoticed = 0
    for number, (what, *fault, expected) in enumerate(FAULTS, 1):
        if numbers and number not in numbers:
            continue
        with tempfile.TemporaryDirectory() as folder:
            by = notices(check, build, *fault, expected, Path(folder))
        unnoticed += by != expected
        print(f"{number:2} {what:45} {by or 'NOTHING NOTICES IT'}", flush=True)
        if by and by != expected:
            print(f"   noticed by another than {expected}")
    return 1 if unnoticed else 0


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve(), set(map(int, sys.argv[3:]))))
