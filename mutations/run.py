#!/usr/bin/env python3
"""Breaks the library in the ways of mutations/*.tsv, one at a time, and wants a test to fail; scripts/mutate calls it.

The tests are those of build/release; only what a mutation touches is compiled anew.
"""

import argparse
import collections
import concurrent.futures
import difflib
import json
import os
import pathlib
import queue
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
RELEASE = ROOT / "build" / "release"
WORK = ROOT / "build" / "mutations"
# A copy of src/ as it was when this began, with the library that is not broken.
BASE = WORK / "base"
WORKERS = 2
# A test that a mutation lets wait or run for ever. Tests that pass take far less.
SECONDS = 60
# Of addresses: for a mutation that asks for memory without end.
BYTES = 8 << 30

Mutation = collections.namedtuple("Mutation", "where file nth old new program filter")


class Unusable(Exception):
    """A line of the list, or the build, is wrong."""


# ---- The list -----------------------------------------------------------------------------------------


def read_list():
    mutations = []
    for path in sorted((ROOT / "mutations").glob("*.tsv")):
        for number, line in enumerate(path.read_text().splitlines(), 1):
            if not line or line.startswith("#"):
                continue
            where = f"mutations/{path.name}:{number}"
            fields = line.split("\t")
            if len(fields) != 6:
                raise Unusable(f"{where}: not six fields: file, number, old, new, program, tests")
            mutations.append(Mutation(where, *fields))
    return mutations


def find(mutation):
    """The mutation's place in its source: (text, start, end). Blanks and line ends count as one blank."""
    path = BASE / "src" / mutation.file
    if not path.is_file():
        raise Unusable(f"{mutation.where}: there is no src/{mutation.file}")
    text = path.read_text()
    wanted = r"\s+".join(re.escape(word) for word in mutation.old.split())
    found = [match.span() for match in re.finditer(wanted, text)] if wanted else []
    if mutation.nth == "-":
        if len(found) != 1:
            raise Unusable(f"{mutation.where}: stands {len(found)} times in src/{mutation.file}: {mutation.old}")
        return (text, *found[0])
    if not mutation.nth.isdigit() or not 1 <= int(mutation.nth) <= len(found):
        raise Unusable(f"{mutation.where}: no number {mutation.nth} of {len(found)}: {mutation.old}")
    return (text, *found[int(mutation.nth) - 1])


def mutated(mutation):
    text, start, end = find(mutation)
    return text, text[:start] + mutation.new + text[end:]


def sample(mutations, count):
    """Some of each source, others with every commit."""
    told = subprocess.run(["git", "rev-list", "--count", "HEAD"], cwd=ROOT, capture_output=True, text=True)
    turn = int(told.stdout) if told.returncode == 0 else 0
    by_file = collections.defaultdict(list)
    for mutation in mutations:
        by_file[mutation.file].append(mutation)
    chosen = []
    rounds = -(-count // len(by_file))
    for number in range(rounds):
        for of_file in by_file.values():
            if number < len(of_file):
                chosen.append(of_file[(turn * rounds + number) % len(of_file)])
    # Where not all of the last round fit, the sources take turns too.
    start = turn % len(chosen)
    return (chosen[start:] + chosen[:start])[:count]


# ---- Building -----------------------------------------------------------------------------------------


def logged(command, cwd):
    done = subprocess.run(command, cwd=cwd, capture_output=True, text=True)
    if done.returncode != 0:
        raise Unusable(f"{shlex.join(command)}\n{done.stdout}{done.stderr[:2000]}")
    return done.stdout


class Builder:
    """Builds libraries out of copies of src/, in folders of their own."""

    def __init__(self):
        self.sources = []
        self.flags = []
        for entry in json.loads((RELEASE / "compile_commands.json").read_text()):
            path = pathlib.Path(entry["file"])
            if path.parent == ROOT / "src":
                self.sources.append(path.name)
                words = shlex.split(entry["command"])
                self.compiler = words[0]
                self.flags = [w for w in words if re.match(r"-[IDfs]", w)]
                self.flags += [w for i, w in enumerate(words) if "-isystem" in (w, words[i - 1])]
        commands = logged(["ninja", "-t", "commands", "libvantry.so"], RELEASE).splitlines()
        self.link = next(line for line in reversed(commands) if " -shared " in line)
        self.link = [w for w in shlex.split(self.link) if w not in (":", "&&")]
        self.uses = {}

    def compile(self, folder, source):
        out = folder / f"{source}.o"
        command = [self.compiler, *self.flags, "-O0", "-w", "-MMD", "-o", str(out), "-c", str(folder / "src" / source)]
        logged(command, folder)
        return out

    def link_all(self, folder, objects):
        words = []
        skip = False
        for word in self.link:
            name = pathlib.Path(word).name
            if skip:
                word = str(folder / "libvantry.so.1")
            elif name.endswith(".cpp.o"):
                word = str(objects[name[:-2]])
            skip = word == "-o"
            words.append(word)
        logged(words, RELEASE)

    def build_base(self):
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            outs = pool.map(lambda source: self.compile(BASE, source), self.sources)
            self.objects = dict(zip(self.sources, outs))
        for source in self.sources:
            made = (BASE / f"{source}.d").read_text()
            self.uses[source] = {pathlib.Path(w).name for w in made.split() if f"{BASE}/src/" in w}
        self.link_all(BASE, self.objects)

    def build_mutated(self, folder, mutation):
        """Builds the mutation in `folder`, a worker's own."""
        _, after = mutated(mutation)
        path = folder / "src" / mutation.file
        path.write_text(after)
        try:
            objects = dict(self.objects)
            for source in self.sources:
                if mutation.file in self.uses[source]:
                    objects[source] = self.compile(folder, source)
            self.link_all(folder, objects)
        finally:
            shutil.copyfile(BASE / "src" / mutation.file, path)


# ---- Running ------------------------------------------------------------------------------------------


def limit():
    resource.setrlimit(resource.RLIMIT_AS, (BYTES, BYTES))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Scratch:
    """A folder for the files of tests, in memory where that can be: what a test leaves when it is stopped goes with it."""

    def __init__(self):
        memory = pathlib.Path("/dev/shm")
        self.path = tempfile.mkdtemp(prefix="vantry-mutations-", dir=memory if memory.is_dir() else None)

    def __enter__(self):
        return self.path

    def __exit__(self, *_):
        shutil.rmtree(self.path, ignore_errors=True)


def run(folder, program, *arguments, seconds=SECONDS):
    """(exit code, output); the code of what was stopped is None. Nothing that it started stays behind."""
    path = RELEASE / "tests" / program
    if not path.is_file():
        raise Unusable(f"there is no test program {program}")
    with Scratch() as scratch:
        return run_in(scratch, folder, [str(path), *arguments], seconds)


def run_in(scratch, folder, command, seconds):
    process = subprocess.Popen(
        command,
        cwd=folder,
        env={**os.environ, "LD_LIBRARY_PATH": f"{folder}:{RELEASE}/platform", "TMPDIR": scratch},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        start_new_session=True,
        preexec_fn=limit,
    )
    try:
        output, _ = process.communicate(timeout=seconds)
        return process.returncode, output
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        output, _ = process.communicate()
        return None, output
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        # A test that was stopped leaves its shared results, which bear the process's number.
        for left in pathlib.Path("/dev/shm").glob(".vantry_*"):
            if re.match(rf"\.vantry_[a-z]+{process.pid}[-_]", left.name):
                left.unlink(missing_ok=True)


def killed(folder, program, tests):
    code, _ = run(folder, program, f"--gtest_filter={tests}", "--gtest_fail_fast", "--gtest_brief=1")
    return code != 0


def check_base(mutations):
    """The tests pass where nothing is broken, and each filter names some."""
    filters = collections.OrderedDict()
    for mutation in mutations:
        filters.setdefault((mutation.program, mutation.filter), mutation.where)
    programs = collections.defaultdict(list)
    for (program, tests), where in filters.items():
        _, listed = run(BASE, program, f"--gtest_filter={tests}", "--gtest_list_tests")
        if not re.search(r"^  \S", listed, re.MULTILINE):
            raise Unusable(f"{where}: {program} has no tests {tests}")
        programs[program].append(tests)
    for program, tests in programs.items():
        code, output = run(BASE, program, f"--gtest_filter={':'.join(tests)}", "--gtest_brief=1", seconds=600)
        if code != 0:
            raise Unusable(f"{program} does not pass without a mutation:\n{output}")


def find_killer(folder, mutation):
    """The first test that fails, with its program: of those that the filter names, else of all, quick programs first."""
    programs = [path.name for path in (RELEASE / "tests").glob("*_tests") if path.name != "platform_tests"]
    slow = ("cursor_tests", "request_tests", "memory_tests", "helper_tests", "shared_tests")
    programs.sort(key=lambda name: (slow.index(name) + 1 if name in slow else 0, name))
    for tests in dict.fromkeys((mutation.filter, "*")):
        for program in programs:
            code, output = run(folder, program, f"--gtest_filter={tests}", "--gtest_fail_fast", seconds=120)
            if code != 0:
                # A test that crashes or hangs is the one that it began last.
                begun = re.findall(r"^\[ RUN      \] (\S+)$", output, re.MULTILINE)
                failed = re.findall(r"^\[  FAILED  \] ([^ ,]+)", output, re.MULTILINE)
                return f"{program}\t{(failed[:1] or begun[-1:] or ['*'])[0]}"
    return None


def shown(mutation):
    before, after = mutated(mutation)
    name = f"src/{mutation.file}"
    lines = difflib.unified_diff(before.splitlines(), after.splitlines(), name, name, lineterm="", n=2)
    return "\n".join([mutation.where, *lines])


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--sample", type=int)
    parser.add_argument("--only")
    parser.add_argument("--find-killer", action="store_true")
    options = parser.parse_args()

    mutations = read_list()
    if options.only:
        name = pathlib.Path(options.only).name
        mutations = [mutation for mutation in mutations if mutation.file == name]
    if options.find_killer:
        mutations = [mutation for mutation in mutations if mutation.program == "?"]
    if not mutations:
        raise Unusable("there is no such mutation")
    shutil.rmtree(WORK, ignore_errors=True)
    shutil.copytree(ROOT / "src", BASE / "src")
    for mutation in mutations:
        find(mutation)
    if options.sample:
        mutations = sample(mutations, options.sample)

    builder = Builder()
    builder.build_base()
    if not options.find_killer:
        check_base(mutations)

    folders = queue.Queue()
    for number in range(WORKERS):
        folder = WORK / str(number)
        shutil.copytree(BASE / "src", folder / "src")
        folders.put(folder)

    def examine(mutation):
        """None, or what is wrong."""
        folder = folders.get()
        try:
            builder.build_mutated(folder, mutation)
            if options.find_killer:
                found = find_killer(folder, mutation)
                return shown(mutation) + (f"\nkilled by:\t{found}" if found else "\nno test notices it")
            if killed(folder, mutation.program, mutation.filter):
                return None
            return "survived: " + shown(mutation)
        except Unusable as error:
            return f"{mutation.where}: cannot be built:\n{error}"
        finally:
            folders.put(folder)

    bad = 0
    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        for told in pool.map(examine, mutations):
            if told is not None:
                print(told, flush=True)
                bad += 1
    if options.find_killer:
        return 0
    print(f"result: {len(mutations)} mutations, {len(mutations) - bad} killed")
    return 1 if bad else 0


try:
    sys.exit(main())
except Unusable as error:
    print(f"scripts/mutate: {error}", file=sys.stderr)
    sys.exit(1)
