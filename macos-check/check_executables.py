#!/usr/bin/env python3
"""Asserts on the built macOS executables what can be seen without running them.

    check_executables.py BUILD

BUILD is the build folder; the helper was installed to BUILD/bundle. Prints one line for each broken
expectation and fails if there is any.
"""

import plistlib
import struct
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
EDITOR = "com.brindlemoor.Tessaloom"
SERVICE = "group.com.brindlemoor.Tessaloom.helper"
AGENT = "com.brindlemoor.Tessaloom.helper"
REQUIREMENT = (
    'identifier "com.brindlemoor.Tessaloom" and anchor apple generic and '
    "(certificate leaf[field.1.2.840.113635.100.6.1.9] or "
    "certificate leaf[field.1.2.840.113635.100.6.1.25.1] or "
    'certificate leaf[subject.OU] = "Q4ZK8MRB21")'
)

# Types as the compiler encodes them for a protocol: with the classes and the blocks' signatures.
VERSION_REPLY = "v24@0:8@?<v@?q>16"
DATA_REPLY = 'v24@0:8@?<v@?@"NSData"@"NSError">16'
REQUEST_AND_REPLY = 'v32@0:8@"NSData"16@?<v@?@"NSData"@"NSError">24'
METHODS = [
    ("protocolVersionWithReply:", VERSION_REPLY),
    ("listProcessesWithReply:", DATA_REPLY),
    ("killProcessWithRequest:reply:", REQUEST_AND_REPLY),
    ("listListeningPortsWithReply:", DATA_REPLY),
    ("helperCapabilitiesWithReply:", DATA_REPLY),
    ("generateTextWithRequest:reply:", REQUEST_AND_REPLY),
    ("cancelGenerationWithRequest:reply:", REQUEST_AND_REPLY),
    ("quitIfOutdatedWithReply:", DATA_REPLY),
    ("generationEngineStatusWithRequest:reply:", REQUEST_AND_REPLY),
]

FRAMEWORKS = "/System/Library/Frameworks/"
CLIENT_LIBRARIES = {
    FRAMEWORKS + "CoreFoundation.framework/Versions/A/CoreFoundation",
    FRAMEWORKS + "Foundation.framework/Versions/C/Foundation",
    "/usr/lib/libSystem.B.dylib",
    "/usr/lib/libc++.1.dylib",
    "/usr/lib/libobjc.A.dylib",
    "@rpath/libutf8proc.dylib",
}
HELPER_LIBRARIES = CLIENT_LIBRARIES | {
    FRAMEWORKS + "ServiceManagement.framework/Versions/A/ServiceManagement"
}


class Executable:
    """A Mach-O file, as <mach-o/loader.h> and the Objective-C runtime lay it out."""

    MAGIC_64, ARM64, EXECUTE, MACOS = 0xFEEDFACF, 0x0100000C, 2, 1
    LC_SEGMENT_64, LC_LOAD_DYLIB, LC_BUILD_VERSION, LC_CODE_SIGNATURE = 0x19, 0xC, 0x32, 0x1D

    def __init__(self, name, content):
        self.name = name
        self.bytes = content
        self.segments = []  # (address, size, file offset)
        self.sections = {}  # (segment, section) -> bytes
        self.libraries = set()
        self.platform = self.minimum_system = None
        self.is_signed = False
        self.magic, self.cpu, _, self.type, count, *_ = self.unpack("<8I", 0)
        offset = 32
        for _ in range(count):
            command, size = self.unpack("<2I", offset)
            self.read_command(command, offset)
            offset += size

    def unpack(self, layout, offset):
        return struct.unpack_from(layout, self.bytes, offset)

    def text(self, offset):
        return self.bytes[offset : self.bytes.index(b"\0", offset)].decode()

    def read_command(self, command, offset):
        if command == self.LC_SEGMENT_64:
            address, size, file_offset, _, _, _, sections = self.unpack("<4Q2iI", offset + 24)
            self.segments.append((address, size, file_offset))
            for index in range(sections):
                section, segment, _, size, start = self.unpack("<16s16sQQI", offset + 72 + 80 * index)
                name = tuple(part.rstrip(b"\0").decode() for part in (segment, section))
                self.sections[name] = self.bytes[start : start + size]
        elif command == self.LC_LOAD_DYLIB:
            self.libraries.add(self.text(offset + self.unpack("<I", offset + 8)[0]))
        elif command == self.LC_BUILD_VERSION:
            self.platform, version = self.unpack("<2I", offset + 8)
            self.minimum_system = f"{version >> 16}.{version >> 8 & 0xFF}"
        elif command == self.LC_CODE_SIGNATURE:
            self.is_signed = True

    def pointers(self, segment, section):
        content = self.sections.get((segment, section), b"")
        return struct.unpack(f"<{len(content) // 8}Q", content)

    def at(self, address):
        """The file offset of what is loaded at an address."""
        for start, size, file_offset in self.segments:
            if start <= address < start + size and start != 0:
                return file_offset + address - start
        raise ValueError(f"no segment holds {address:#x}")

    def method_names(self, address):
        if address == 0:
            return []
        start = self.at(address)
        size, count = self.unpack("<2I", start)
        entries = (self.unpack("<Q", start + 8 + index * size)[0] for index in range(count))
        return [self.text(self.at(name)) for name in entries]

    def protocol_methods(self, name):
        """The required methods of a protocol with their extended types, in declared order."""
        for protocol in self.pointers("__DATA_CONST", "__objc_protolist"):
            fields = self.unpack("<8Q2IQ", self.at(protocol))
            if self.text(self.at(fields[1])) != name:
                continue
            names, types = self.method_names(fields[3]), self.at(fields[10])
            return [
                (method, self.text(self.at(self.unpack("<Q", types + 8 * index)[0])))
                for index, method in enumerate(names)
            ]
        return []

    def class_methods(self, name):
        """The instance methods that a class implements itself."""
        for listed in self.pointers("__DATA_CONST", "__objc_classlist"):
            data = self.at(self.unpack("<Q", self.at(listed) + 32)[0] & ~7)
            class_name, methods = self.unpack("<2Q", data + 24)
            if self.text(self.at(class_name)) == name:
                return self.method_names(methods)
        return []

    def strings(self):
        sections = [("__TEXT", "__cstring"), ("__TEXT", "__const")]
        return {text for key in sections for text in self.sections.get(key, b"").split(b"\0")}


class Expectations:
    def __init__(self, is_quiet=False):
        self.failures = 0
        self.is_quiet = is_quiet

    def fail(self, message):
        self.failures += 1
        if not self.is_quiet:
            print(message, file=sys.stderr)

    def equal(self, what, actual, expected):
        if actual != expected:
            self.fail(f"{what}: expected {expected!r}, found {actual!r}")

    def contains(self, what, container, expected):
        if expected not in container:
            self.fail(f"{what}: {expected!r} is missing")

    def lacks(self, what, container, unexpected):
        if unexpected in container:
            self.fail(f"{what}: {unexpected!r} must not be there")

    def executable(self, file, libraries):
        self.equal(f"{file.name}: magic number", file.magic, Executable.MAGIC_64)
        self.equal(f"{file.name}: architecture", file.cpu, Executable.ARM64)
        self.equal(f"{file.name}: file type", file.type, Executable.EXECUTE)
        self.equal(f"{file.name}: platform", file.platform, Executable.MACOS)
        self.equal(f"{file.name}: minimum system", file.minimum_system, "13.0")
        self.equal(f"{file.name}: signature", file.is_signed, True)
        self.equal(f"{file.name}: libraries", file.libraries, libraries)
        self.equal(f"{file.name}: protocol", file.protocol_methods("HelperServicing"), METHODS)
        self.contains(f"{file.name}: texts", file.strings(), SERVICE.encode())
        # std::pmr, which the C++ library has since macOS 14, and does not mark so.
        self.lacks(f"{file.name}: symbols", file.bytes, b"NSt3__13pmr")


def project_version(build):
    for line in (build / "CMakeCache.txt").read_text().splitlines():
        if line.startswith("CMAKE_PROJECT_VERSION:"):
            return line.partition("=")[2]
    raise ValueError("the build has no version")


def check_helper(expect, helper, version):
    expect.executable(helper, HELPER_LIBRARIES)
    implemented = set(helper.class_methods("HelperService"))
    for selector, _ in METHODS:
        expect.contains("HelperService", implemented, selector)
    delegate = helper.class_methods("ListenerDelegate")
    expect.contains("ListenerDelegate", delegate, "listener:shouldAcceptNewConnection:")
    for text in (REQUIREMENT, f"{AGENT}.plist", "CFBundleShortVersionString", "kind"):
        expect.contains("helper: texts", helper.strings(), text.encode())

    embedded = plistlib.loads(helper.sections.get(("__TEXT", "__info_plist"), b"<plist/>"))
    expect.equal("Info.plist: identifier", embedded.get("CFBundleIdentifier"), AGENT)
    expect.equal("Info.plist: version", embedded.get("CFBundleShortVersionString"), version)
    expect.equal("Info.plist: minimum system", embedded.get("LSMinimumSystemVersion"), "13.0")


def check_agent(expect, bundle, program):
    agent = plistlib.loads((bundle / f"Contents/Library/LaunchAgents/{AGENT}.plist").read_bytes())
    expect.equal("launch agent: label", agent.get("Label"), AGENT)
    expect.equal("launch agent: program", agent.get("BundleProgram"), program)
    expect.equal("launch agent: services", agent.get("MachServices"), {SERVICE: True})
    # Login Items shows the agent under the editor's name.
    expect.equal("launch agent: bundles", agent.get("AssociatedBundleIdentifiers"), [EDITOR])
    # Engines inherit the class of the process that the user waits for; unset, launchd throttles both.
    expect.equal("launch agent: process type", agent.get("ProcessType"), "Interactive")
    # Otherwise a new build starts up to 10 seconds after the old one was started.
    expect.equal("launch agent: throttle", agent.get("ThrottleInterval"), 1)
    # launchd's own 5 seconds are less than the helper takes to end its engines in order.
    expect.equal("launch agent: exit timeout", agent.get("ExitTimeOut"), 20)


def check_entitlements(expect):
    path = ROOT / "packaging/macos/TessaloomHelper.entitlements"
    content = path.read_bytes()
    # The kernel's own parser refuses some comments, and with them the program.
    expect.lacks("entitlements", content, b"<!--")
    # No sandbox, which the engines would inherit, and no exception from the hardened runtime.
    expect.equal("entitlements", plistlib.loads(content), {"com.apple.security.app-sandbox": False})


def prove(build, version):
    """Shows that the expectations notice: each of these changes to a good executable must fail."""
    good = (build / "bin/TessaloomHelper").read_bytes()
    changes = {
        "selector": (b"quitIfOutdatedWithReply:", b"quitIfOutDatedWithReply:"),
        "version reply": (b"v24@0:8@?<v@?q>16", b"v24@0:8@?<v@?i>16"),
        "data reply": (b'@?<v@?@"NSData"@"NSError">', b'@?<v@?@"NSDate"@"NSError">'),
        "requirement": (b"6.1.25.1] or", b"6.1.25.2] or"),
        "service name": (SERVICE.encode(), SERVICE.replace("helper", "helped").encode()),
        "property list": (b"<string>13.0</string>", b"<string>12.0</string>"),
        "delegate": (b"shouldAcceptNewConnection:", b"shouldAcceptOldConnection:"),
        "library": (b"ServiceManagement.framework", b"ServiceManagemend.framework"),
        "memory resource": (b"__ZNSt3__112basic_string", b"__ZNSt3__13pmrasic_string"),
        "architecture": (b"\xcf\xfa\xed\xfe\x0c\0\0\1", b"\xcf\xfa\xed\xfe\x07\0\0\1"),
    }
    for what, (before, after) in changes.items():
        expect = Expectations(is_quiet=True)
        check_helper(expect, Executable("helper", good.replace(before, after)), version)
        if before not in good or expect.failures == 0:
            sys.exit(f"the check does not notice another {what}")


def main(build):
    version = project_version(build)
    bundle, program = build / "bundle", "Contents/MacOS/TessaloomHelper"
    expect = Expectations()
    check_helper(expect, Executable("helper", (bundle / program).read_bytes()), version)
    client = (build / "bin/tessaloom-helperctl").read_bytes()
    expect.executable(Executable("client", client), CLIENT_LIBRARIES)
    check_agent(expect, bundle, program)
    check_entitlements(expect)
    if expect.failures == 0:
        prove(build, version)
    return 1 if expect.failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(Path(sys.argv[1])))
