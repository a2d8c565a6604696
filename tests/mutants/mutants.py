#!/usr/bin/env python3
"""Breaks the code one rule at a time, in a copy of the tree, and expects the named test to find each fault.

The faults stand in *.toml beside this file, by the folder that they break:

    [[mutant]]
    name = "claim is not confirmed"     # what is wrong, in a few words; unique
    finder = "explorer_test"            # the test program that must find it: a target of the build
    filter = "Batch*"                   # optional: only these of its GoogleTest cases
    racy = true                         # optional: found by real threads: tried more than once, not in the sample
    [[mutant.edit]]                     # one or more; `from` must stand in `file` exactly once
    file = "hash/hash_core_insert.h"
    from = '''text as it stands, without the line's first indentation'''
    to = '''text in its place'''

A fault that no caller can tell from the right code is not listed. Each finder runs on the unbroken code first. Ends
with 0 when every fault was found.
"""

import argparse
import concurrent.futures
import dataclasses
import os
import pathlib
import queue
import random
import shutil
import subprocess
import sys
import tempfile
import tomllib

ROOT = pathlib.Path(__file__).resolve().parents[2]
TRIES_OF_RACES = 3
TIME_LIMIT_S = 900  # a fault that makes a program hang is found too, but says less

Call = tuple[list[str], dict[str, str]]  # arguments and environment

# How finders are called that need more than that; one call after the other, until one finds the fault.
CALLS: dict[str, list[Call]] = {
    "explorer_test": [
        (["--gtest_filter=-Explorer.*"], {"KAVO_EXPLORE_SCHEDULES": schedules}) for schedules in ("1000", "20000")
    ],
    "model_test": [([], {"KAVO_MODEL_SEQUENCES": sequences}) for sequences in ("1000", "10000")],
    "soak": [(["--minutes", "0.4", "--seed", "1"], {})],
    "ctr_training": [(["--rows", "60000", "--threads", "1"], {})],
    "incremental_export": [(["--rows", "5000"], {})],
    "serving": [(["--rows", "5000", "--threads", "2", "--seconds", "0.5", "--increments", "5"], {})],
    "sharded_lookup": [(["--keys", "60000"], {})],
}


@dataclasses.dataclass
class Mutant:
    name: str
    finder: str
    edit: list[dict[str, str]]  # file, from, to
    filter: str = ""
    racy: bool = False


def load() -> list[Mutant]:
    mutants = []
    for path in sorted(pathlib.Path(__file__).parent.glob("*.toml")):
        mutants += [Mutant(**entry) for entry in tomllib.loads(path.read_text())["mutant"]]
    names = [mutant.name for mutant in mutants]
    twice = {name for name in names if names.count(name) > 1}
    if twice:
        sys.exit(f"two faults of one name: {sorted(twice)[0]}")
    return mutants


def broken(tree: pathlib.Path, mutant: Mutant) -> dict[pathlib.Path, str]:
    """The files that the fault is in, as it leaves them."""
    files: dict[pathlib.Path, str] = {}
    for edit in mutant.edit:
        path = tree / edit["file"]
        text = files.get(path) or path.read_text()
        if text.count(edit["from"]) != 1:
            stands = f"stands {text.count(edit['from'])} times in {edit['file']}, not once"
            raise ValueError(f"{mutant.name}: {stands}:\n{edit['from']}")
        files[path] = text.replace(edit["from"], edit["to"])
    return files


def write(files: dict[pathlib.Path, str]) -> None:
    for path, text in files.items():
        path.write_text(text)


def check(mutants: list[Mutant]) -> int:
    """Whether every edit matches once."""
    wrong = []
    for mutant in mutants:
        try:
            broken(ROOT, mutant)
        except (OSError, ValueError) as problem:
            wrong.append(str(problem))
    print("\n".join(wrong + [f"{len(mutants) - len(wrong)} of {len(mutants)} faults match the code"]))
    return 1 if wrong else 0


def run(command: list[str], **options) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", check=False, **options
    )


class Workshop:
    """A copy of the tree with a build of its own."""

    def __init__(self, folder: pathlib.Path, jobs: int):
        self.tree, self.build, self.jobs = folder / "tree", folder / "build", jobs
        shutil.copytree(ROOT, self.tree, ignore=shutil.ignore_patterns("build", ".git"), symlinks=True)
        configure = ["cmake", "-S", str(self.tree), "-B", str(self.build), "-G", "Ninja", "-DKAVO_BENCHMARKS=OFF"]
        done = run(configure + ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O1 -w"])
        if done.returncode != 0:
            sys.exit(done.stdout)

    def compile(self, finder: str) -> str:
        done = run(["cmake", "--build", str(self.build), "-j", str(self.jobs), "--target", finder])
        return done.stdout if done.returncode != 0 else ""

    def find(self, finder: str, cases: str, calls: list[Call]) -> str:
        """What the finder found; empty when it ended well each time."""
        program = next(path for path in self.build.rglob(finder) if path.is_file() and os.access(path, os.X_OK))
        for arguments, environment in calls:
            if finder.endswith("_test"):  # other programs have options of their own
                arguments = ["--gtest_fail_fast", *([f"--gtest_filter={cases}"] if cases else arguments)]
            try:
                variables = {**os.environ, "KAVO_TEST_SEED": "1", **environment}
                done = run([str(program), *arguments], env=variables, timeout=TIME_LIMIT_S)
            except subprocess.TimeoutExpired:
                return f"no end after {TIME_LIMIT_S} s"
            if done.returncode != 0:
                return summary(done)
        return ""


def summary(done: subprocess.CompletedProcess[str]) -> str:
    lines = done.stdout.splitlines()
    first = next((i for i, line in enumerate(lines) if line.endswith(": Failure")), len(lines))
    case = next((line.split()[-1] for line in reversed(lines[:first]) if line.startswith("[ RUN")), "")
    what = next((line.strip() for line in lines[first:][1:] if line.strip() and line != "Failed"), "")
    if not what:
        what = f"ended by signal {-done.returncode}" if done.returncode < 0 else f"exit status {done.returncode}"
    return f"{case}: {what}" if case else what


def try_all(chosen: list[Mutant], workers: int) -> int:
    sound: dict[str, str] = {}  # what each finder says of the unbroken code

    def judge(workshop: Workshop, mutant: Mutant) -> tuple[str, str]:
        calls = CALLS.get(mutant.finder, [([], {})])
        if mutant.finder not in sound:
            sound[mutant.finder] = workshop.compile(mutant.finder) or workshop.find(mutant.finder, "", calls[:1])
        if sound[mutant.finder]:
            return "NOT SOUND", "the unbroken code fails: " + sound[mutant.finder][-2000:]
        try:
            edited = broken(workshop.tree, mutant)
        except (OSError, ValueError) as problem:
            return "NO MATCH", str(problem)
        whole = {path: path.read_text() for path in edited}
        try:
            write(edited)
            if wrong := workshop.compile(mutant.finder):
                return "NO BUILD", wrong[-2000:]
            found = workshop.find(mutant.finder, mutant.filter, calls * (TRIES_OF_RACES if mutant.racy else 1))
            return ("found", found) if found else ("NOT FOUND", "")
        finally:
            write(whole)

    with tempfile.TemporaryDirectory(prefix="kavo-mutants-") as scratch:
        free: queue.SimpleQueue[Workshop] = queue.SimpleQueue()
        for number in range(workers):
            free.put(Workshop(pathlib.Path(scratch) / str(number), max(1, (os.cpu_count() or 2) // workers)))

        def is_found(mutant: Mutant) -> bool:
            workshop = free.get()
            try:
                result, detail = judge(workshop, mutant)
            finally:
                free.put(workshop)
            print(f"{result:<10} {mutant.name}   [{mutant.finder}] {detail}", flush=True)
            return result == "found"

        with concurrent.futures.ThreadPoolExecutor(workers) as pool:
            # Neighbours share what was built. Whatever is raised ends the program.
            found = list(pool.map(is_found, sorted(chosen, key=lambda mutant: mutant.finder)))
    print(f"{found.count(True)} found, {found.count(False)} not found")
    return 0 if all(found) else 1


def main() -> int:
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--list", action="store_true", help="print finders and names")
    options.add_argument("--check", action="store_true", help="only see that every edit matches the code once")
    options.add_argument("--sample", type=int, metavar="N", help="N of those whose finder does the same at each run")
    options.add_argument("--seed", default="1", help="chooses the sample")
    options.add_argument("--finder", metavar="PROGRAM", help="only those that this program must find")
    options.add_argument("--workers", type=int, default=os.cpu_count() or 2, help="trees built and run at once")
    options.add_argument("names", nargs="*", metavar="NAME")
    chosen = options.parse_args()
    mutants = load()
    unknown = set(chosen.names) - {mutant.name for mutant in mutants}
    if unknown:
        sys.exit(f"no such fault: {sorted(unknown)[0]}")
    if chosen.names:
        mutants = [mutant for mutant in mutants if mutant.name in chosen.names]
    if chosen.finder:
        mutants = [mutant for mutant in mutants if mutant.finder == chosen.finder]
    if chosen.sample is not None:
        steady = [mutant for mutant in mutants if not mutant.racy]
        mutants = random.Random(chosen.seed).sample(steady, min(chosen.sample, len(steady)))
    if chosen.list:
        print("\n".join(f"{mutant.finder:<24} {mutant.name}" for mutant in mutants))
        return 0
    if chosen.check:
        return check(mutants)
    return try_all(mutants, max(1, min(chosen.workers, len(mutants) // 4)))  # a tree of its own pays for a few


if __name__ == "__main__":
    sys.exit(main())
