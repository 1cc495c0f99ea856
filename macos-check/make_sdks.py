#!/usr/bin/env python3
"""Makes what stands for the SDK of the newest and of the oldest supported Xcode.

    make_sdks.py BUILD

Makes the folders BUILD/macos-sdk-19 and BUILD/macos-sdk-16, each named after the version of clang and of the C++ library that
the Xcode has: libc++ from Debian, the C headers and the names of libSystem from the npm package in package-lock.json, the
frameworks and the rest from this folder, and in usr/local the libraries from outside the platform. What is there and was
made from the same is kept.
"""

import base64
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
HERE = ROOT / "macos-check"
INSTALLED = Path("/usr")
NEWEST, OLDEST = 19, 16
LIBRARIES = ("nlohmann", "utf8proc.h", "gtest", "gmock")


def run(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def locked_package():
    packages = json.loads((ROOT / "package-lock.json").read_text())["packages"]
    ((name, version),) = packages[""]["devDependencies"].items()
    return f"{name}@{version}", packages[f"node_modules/{name}"]["integrity"]


def unpack_headers(build, scratch):
    """The C headers and the text that names libSystem's symbols. The package has 13,000 files more, a compiler's."""
    package, integrity = locked_package()
    archive = build / f"macos-headers-{hashlib.sha256(integrity.encode()).hexdigest()[:16]}.tgz"
    if not archive.exists():
        run("npm", "pack", "--loglevel=error", "--pack-destination", scratch, package)
        next(scratch.glob("*.tgz")).rename(archive)
    algorithm, expected = integrity.split("-", 1)
    with archive.open("rb") as content:
        actual = hashlib.file_digest(content, algorithm).digest()
    if base64.b64encode(actual).decode() != expected:
        archive.unlink()
        sys.exit(f"{package} is not what package-lock.json was written for")
    parts = ("package/lib/libc/include/any-macos-any", "package/lib/libc/darwin/libSystem.tbd")
    run("tar", "--extract", "--file", archive, "--directory", scratch, *parts)
    return [scratch / part for part in parts]


def unpack_oldest_library(build, scratch):
    """Debian installs one version at a time."""
    package = f"libc++-{OLDEST}-dev"
    archive = build / f"{package}.deb"

    def download():
        run("apt-get", "download", "-qq", "-o", "APT::Sandbox::User=root", package, cwd=scratch)

    if not archive.exists():
        try:
            download()
        except subprocess.CalledProcessError:
            # The lists are older than what the archive has.
            run(*([] if os.getuid() == 0 else ["sudo"]), "apt-get", "update", "-qq")
            download()
        next(scratch.glob("libc++*.deb")).rename(archive)
    run("dpkg-deb", "--extract", archive, scratch / "root")
    return scratch / "root/usr"


def write_module_map(headers):
    """Has the compiler compile the library's headers once, as modules: a source sees what it includes, and what that includes."""
    # The library's own map has a module for each of a thousand headers, or includes of modules in a circle.
    found = re.findall(r'^[^/]*?(textual )?header "(.+?)"', (headers / "module.modulemap").read_text(), re.MULTILINE)
    lines = ["module std [system] {"]
    for number, (textual, name) in enumerate(found):
        if not (headers / name).exists() or name.startswith(("experimental", "ext/")):
            continue
        # C's headers are the system's, and some are included more than once.
        if textual or name in ("__config", "__undef_macros") or re.fullmatch(r"[a-z]\w*\.h", name):
            lines.append(f'textual header "{name}"')
        else:
            lines.append(f'module header{number} {{ header "{name}" export * }}')
    (headers / "module.modulemap").write_text("\n".join(lines) + "\n}\n")


def add_cpp_library(sdk, headers):
    copy = sdk / "usr/include/c++/v1"
    shutil.copytree(headers, copy)
    # The library refuses what it has only on later systems, as it does on a Mac.
    config = copy / "__config_site"
    config.write_text(re.sub(r"#define _LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS\n", "", config.read_text()))
    write_module_map(copy)


def add_cpp_symbols(sdk):
    """A Mac's libc++ exports the names of libc++abi, too."""
    libraries = [INSTALLED / f"lib/llvm-{NEWEST}/lib" / name for name in ("libc++.so.1", "libc++abi.so.1")]
    names = run(f"llvm-nm-{NEWEST}", "--dynamic", "--defined-only", "--just-symbol-name", "--no-demangle", *libraries)
    symbols = sorted({f"'_{line}'" for line in names.splitlines() if line and not line.endswith(":")})
    (sdk / "usr/lib/libc++.tbd").write_text(
        "--- !tapi-tbd\ntbd-version: 4\ntargets: [ arm64-macos ]\ninstall-name: '/usr/lib/libc++.1.dylib'\n"
        f"exports:\n  - targets: [ arm64-macos ]\n    symbols: [ {', '.join(symbols)} ]\n...\n"
    )


def add_local_libraries(sdk):
    include = sdk / "usr/local/include"
    include.mkdir(parents=True)
    shutil.copy(HERE / "modules/xlocale.h", include)
    for name in LIBRARIES:
        run("cp", "--recursive", INSTALLED / "include" / name, include)
    shutil.copytree(INSTALLED / "share/cmake/nlohmann_json", sdk / "usr/local/share/cmake/nlohmann_json")
    modules = {"nlohmann": "nlohmann/json.hpp", "gtest": "gtest/gtest.h", "gmock": "gmock/gmock.h"}
    lines = [f'module {name} [system] {{ header "{header}" export * }}\n' for name, header in modules.items()]
    (include / "module.modulemap").write_text("".join(lines))
    (sdk / "usr/local/lib").mkdir()
    shutil.copy(HERE / "lib/libutf8proc.tbd", sdk / "usr/local/lib")


def make(sdk, c_headers, system_names, library):
    shutil.copytree(c_headers, sdk / "usr/include")
    (sdk / "usr/lib").mkdir()
    for names in system_names, HERE / "lib/libobjc.tbd":
        shutil.copy(names, sdk / "usr/lib")
    add_cpp_library(sdk, library)
    add_cpp_symbols(sdk)
    add_local_libraries(sdk)
    (sdk / "System/Library").mkdir(parents=True)
    (sdk / "System/Library/Frameworks").symlink_to(os.path.relpath(HERE / "Frameworks", sdk / "System/Library"))


def made_from():
    """What an SDK is made from, besides packages that bootstrap does not upgrade."""
    sources = [Path(__file__), ROOT / "package-lock.json", *HERE.glob("lib/*"), *HERE.glob("modules/*")]
    return "".join(hashlib.sha256(source.read_bytes()).hexdigest() for source in sources)


def main(build):
    sdks = {version: build / f"macos-sdk-{version}" for version in (NEWEST, OLDEST)}
    stamp = build / "macos-sdk-made-from"
    if all(sdk.exists() for sdk in sdks.values()) and stamp.exists() and stamp.read_text() == made_from():
        return
    stamp.unlink(missing_ok=True)
    with tempfile.TemporaryDirectory(dir=build) as name:
        scratch = Path(name)
        headers = unpack_headers(build, scratch)
        roots = {NEWEST: INSTALLED, OLDEST: unpack_oldest_library(build, scratch)}
        for version, sdk in sdks.items():
            shutil.rmtree(sdk, ignore_errors=True)
            make(sdk, *headers, roots[version] / f"lib/llvm-{version}/include/c++/v1")
    stamp.write_text(made_from())


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    try:
        main(Path(sys.argv[1]).resolve())
    except subprocess.CalledProcessError as failure:
        sys.exit(f"{Path(__file__).name}: {failure}")
