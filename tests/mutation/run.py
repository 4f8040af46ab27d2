#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Breaks the library on purpose, one small change at a time, and demands that a test notices.

Each mutation of catalogue/ replaces one exact piece of text in a private copy of one source file.
Only that file is compiled again; the library is linked from it and the other objects of the build
folder into a private folder, and the test programs of the build folder run against it until one
fails. A crash or a hang is noticed, too. A mutation that no test notices is a rule that no test
holds.

    tests/mutation/run.py --build build/dev              all mutations
    tests/mutation/run.py --build build/dev --list       what they are
    tests/mutation/run.py --build build/dev --only NAME  one, or all of a folder (NAME/)

The last line is the score. Exit status: 0 when every mutation was noticed, 1 when one survived, 2
when something stands in the way (a test that fails without a mutation, a mutation whose text is
gone).
"""

import argparse
import concurrent.futures
import importlib.util
import json
import os
import pathlib
import re
import resource
import shlex
import signal
import subprocess
import sys
import tempfile
import time
from typing import NamedTuple

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
JOBS = 2
CORE_MODULES = ("common", "dataset", "fingerprint", "pipeline", "serializer")
LIBRARIES = {"libpenstock.so": CORE_MODULES, "libpenstock-host.so": ("host",)}
VERSION_SCRIPTS = {"libpenstock.so": "penstock.map", "libpenstock-host.so": "penstock_host.map"}
# How a program is told to stop at the first failure, and the model test to take less time.
GTEST_ARGUMENTS = ["--gtest_brief=1", "--gtest_fail_fast", "--gtest_color=no"]
MODEL_ARGUMENTS = ["--seeds", "60"]

sys.dont_write_bytecode = True  # the catalogue stays a folder of sources


class Mutation(NamedTuple):
    name: str         # folder/short-name
    file: str         # relative to the root of the repository
    original: str     # occurs exactly once in the file
    replacement: str
    rule: str         # the rule that it breaks
    unit: str = ""    # the file to compile, when `file` is a header


class Obstacle(Exception):
    """Something that keeps the run from saying anything."""


def load_catalogue():
    mutations = []
    for path in sorted((HERE / "catalogue").glob("*.py")):
        spec = importlib.util.spec_from_file_location(path.stem, path)
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        for name, *fields in module.MUTATIONS:
            mutations.append(Mutation(f"{path.stem}/{name}", *fields))
    names = [mutation.name for mutation in mutations]
    twice = {name for name in names if names.count(name) > 1}
    if twice:
        raise Obstacle(f"names that occur twice: {sorted(twice)}")
    for mutation in mutations:
        count = (ROOT / mutation.file).read_text().count(mutation.original)
        if count != 1:
            raise Obstacle(f"{mutation.name}: its text occurs {count} times in {mutation.file}")
        if mutation.original == mutation.replacement:
            raise Obstacle(f"{mutation.name}: changes nothing")
    return mutations


class Program(NamedTuple):
    path: pathlib.Path
    arguments: list

    @property
    def name(self):
        return self.path.name


class Build:
    """The build folder: how its files are compiled, and its test programs."""

    def __init__(self, folder):
        self.folder = folder
        try:
            entries = json.loads((folder / "compile_commands.json").read_text())
        except OSError as error:
            raise Obstacle(f"configure with CMAKE_EXPORT_COMPILE_COMMANDS=ON: {error}") from error
        self.commands = {os.path.relpath(entry["file"], ROOT): entry for entry in entries}
        self.programs = []
        for path in sorted((folder / "tests").glob("**/penstock_*_tests")):
            is_model = path.name == "penstock_model_tests"
            self.programs.append(Program(path, MODEL_ARGUMENTS if is_model else GTEST_ARGUMENTS))
        if not self.programs:
            raise Obstacle(f"no penstock_*_tests below {folder}/tests")

    def object_of(self, entry):
        words = shlex.split(entry["command"])
        return str(pathlib.Path(entry["directory"], words[words.index("-o") + 1]))

    def objects(self, library):
        """The library's objects, by source file."""
        found = {}
        for file, entry in self.commands.items():
            parts = pathlib.PurePath(file).parts
            if len(parts) == 2 and parts[0] in LIBRARIES[library]:
                found[file] = self.object_of(entry)
                if os.path.getmtime(found[file]) < os.path.getmtime(entry["file"]):
                    raise Obstacle(f"{file} is newer than its object: build first")
        return found

    def compile(self, file, source, scratch):
        """Compiles `source` as `file` is compiled, headers in `scratch` first."""
        entry = self.commands[file]
        words = shlex.split(entry["command"])
        target = str(scratch / "mutant.o")
        original = os.path.abspath(entry["file"])
        command = [words[0], f"-I{scratch}"]
        skip = False
        for word in words[1:]:
            if skip:
                skip = False
            elif word in ("-o", "-MT", "-MF"):
                skip = True
            elif word not in ("-MD", "-Werror") and os.path.abspath(word) != original:
                command.append(word)
        command += ["-w", "-o", target, str(source)]
        run_tool(command, entry["directory"])
        return target

    def link(self, library, objects, folder):
        """Links `objects` into `folder` under the name by which programs load the library."""
        some = shlex.split(next(iter(self.commands.values()))["command"])
        flags = [word for word in some if word.startswith(("-fsanitize", "--coverage", "-g"))]
        soname = self.soname(library)
        script = ROOT / "cmake" / VERSION_SCRIPTS[library]
        run_tool([some[0], *flags, "-shared", f"-Wl,-soname,{soname}",
                  f"-Wl,--version-script={script}", "-o", str(folder / soname), *objects],
                 self.folder)

    def soname(self, library):
        path = next(self.folder.glob(f"**/{library}"))
        text = subprocess.run(["readelf", "-d", path], capture_output=True, text=True,
                              check=True).stdout
        return re.search(r"soname: \[(.*)\]", text).group(1)


def run_tool(command, directory):
    done = subprocess.run(command, cwd=directory, capture_output=True, text=True)
    if done.returncode != 0:
        raise Obstacle(f"{shlex.join(command)}\n{done.stderr}")


def environment(library_folder):
    """LD_LIBRARY_PATH beats a program's RUNPATH; it would not beat an RPATH: see check_loading."""
    return {**os.environ, "LD_LIBRARY_PATH": str(library_folder), "LC_ALL": "C"}


def check_loading(build, library, folder):
    """Makes sure that the programs load the library of `folder` and not that of the build."""
    wanted = str(folder / build.soname(library))
    for program in build.programs:
        listed = subprocess.run(["ldd", program.path], env=environment(folder),
                                capture_output=True, text=True).stdout
        if wanted not in listed:
            raise Obstacle(f"{program.name} does not load {library} from LD_LIBRARY_PATH: link it "
                           "dynamically, with -Wl,--enable-new-dtags")


def run_program(program, folder, timeout):
    """Returns how the program ended: "" well, otherwise what went wrong."""
    limits = lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    process = subprocess.Popen([program.path, *program.arguments], env=environment(folder),
                               cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               start_new_session=True, preexec_fn=limits)
    try:
        output, _ = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        return f"hang ({timeout:.0f} s)"
    finally:
        stop_group(process)
    if process.returncode == 0:
        return ""
    text = output.decode(errors="replace")
    failed = re.search(r"^\[  FAILED  \] (\S+)", text, re.MULTILINE)
    if failed:
        return failed.group(1).rstrip(",")
    if process.returncode < 0:
        return signal.Signals(-process.returncode).name
    return text.strip().splitlines()[0][:90] if text.strip() else f"status {process.returncode}"


def stop_group(process):
    """Ends the program and what it forked: a test of a call that never returns leaves a child."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def baseline(build):
    """Runs everything without a mutation; returns each program's time limit."""
    limits = {}
    with tempfile.TemporaryDirectory(prefix="mutation-") as name:
        folder = pathlib.Path(name)
        for library in LIBRARIES:
            build.link(library, build.objects(library).values(), folder)
        for library in LIBRARIES:
            check_loading(build, library, folder)
        for program in build.programs:
            start = time.monotonic()
            failure = run_program(program, folder, 300)
            if failure:
                raise Obstacle(f"{program.name} fails without a mutation: {failure}")
            took = time.monotonic() - start
            limits[program.name] = 30 + 6 * took
            print(f"passes without a mutation: {program.name} ({took:.1f} s)", flush=True)
    return limits


def in_order(programs, mutation):
    """The programs, the most likely ones to notice first."""
    module = mutation.file.split("/")[0]
    first = [f"penstock_{module}_tests", "penstock_model_tests", "penstock_trace_tests"]
    return sorted(programs, key=lambda p: first.index(p.name) if p.name in first else len(first))


def try_mutation(build, mutation, limits):
    """Returns the program and the failure that noticed it, or None."""
    unit = mutation.unit or mutation.file
    library = "libpenstock-host.so" if unit.startswith("host/") else "libpenstock.so"
    with tempfile.TemporaryDirectory(prefix="mutation-") as name:
        scratch = pathlib.Path(name)
        copy = scratch / mutation.file
        copy.parent.mkdir(parents=True)
        text = (ROOT / mutation.file).read_text()
        copy.write_text(text.replace(mutation.original, mutation.replacement))
        source = ROOT / unit if mutation.unit else copy
        objects = build.objects(library)
        objects[unit] = build.compile(unit, source, scratch)
        build.link(library, objects.values(), scratch)
        for program in in_order(build.programs, mutation):
            failure = run_program(program, scratch, limits[program.name])
            if failure:
                return program.name, failure
    return None


def select(mutations, only):
    if not only:
        return mutations
    chosen = [m for m in mutations if m.name == only or m.name.startswith(only.rstrip("/") + "/")]
    if not chosen:
        raise Obstacle(f"no mutation named {only}; see --list")
    return chosen


def run_all(build, mutations):
    limits = baseline(build)
    survivors = []
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        jobs = {pool.submit(try_mutation, build, m, limits): m for m in mutations}
        try:
            for job in concurrent.futures.as_completed(jobs):
                mutation = jobs[job]
                result = job.result()
                if result:
                    print(f"killed    {mutation.name}: {result[0]}: {result[1]}", flush=True)
                else:
                    survivors.append(mutation)
                    print(f"SURVIVED  {mutation.name}: {mutation.rule}", flush=True)
        except Obstacle:
            pool.shutdown(cancel_futures=True)
            raise
    for mutation in survivors:
        print(f"no test holds: {mutation.rule} ({mutation.name}, {mutation.file})")
    print(f"mutation score: {len(mutations) - len(survivors)} of {len(mutations)} killed")
    return 1 if survivors else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "dev",
                        help="a build folder with the test programs (default: build/dev)")
    parser.add_argument("--only", metavar="NAME", help="one mutation, or all of a folder")
    parser.add_argument("--list", action="store_true", help="print the mutations and stop")
    options = parser.parse_args()
    try:
        mutations = select(load_catalogue(), options.only)
        if options.list:
            for mutation in mutations:
                print(f"{mutation.name}: {mutation.rule}")
            return 0
        return run_all(Build(options.build.resolve()), mutations)
    except Obstacle as obstacle:
        print(f"run.py: {obstacle}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
