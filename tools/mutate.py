#!/usr/bin/python3
"""Mutation runner: applies the mutants of a list one at a time to a copy of
the source tree, rebuilds incrementally and runs the fast test set (plain
GoogleTest build, fuzz seed replays, script-level examples; a mutant marked
`memory` runs in the sanitizer build instead, one marked `mbedtls36` in a
build on mbedTLS 3.6, scripts/test_mbedtls36.sh's). Prints one row per
mutant and a last line `killed K of N`.

  tools/mutate.py [--list tools/mutants.txt] [--work build-mutants]
                  [--only ID[,ID...]] [--killed FILE] [--baseline FILE] [--all-tests]

Without --all-tests the examples (the slowest test) run only on a mutant
that the unit tests and replays leave alive, so a killed mutant's row names
the unit tests that failed.

The list holds blocks separated by blank lines ('#' starts a comment line):

  [id] src/unit.cpp [memory|mbedtls36]
  find:    exact text, unique in the file
  replace: its replacement
  why:     one line: the real fault this stands for
  equivalent: why no test can tell it apart (only for survivors judged so)

In find/replace, {NL} stands for a line break. A find text that is missing
or not unique marks the mutant STALE (neither killed nor survived): refit it.
--killed writes the killed ids (with the tests that failed); --baseline
compares with such a file and names every mutant killed there but not now.
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Packaging checks find no faults in the code and take long: left out.
EXCLUDED_TESTS = "rockspec|install_destdir|load_module"
TEST_LIMIT = 420  # seconds for one test run; longer counts as a kill by time-out


class Mutant:
    def __init__(self, ident, path, kind, line):
        self.ident, self.path, self.kind, self.line = ident, path, kind, line
        self.find = self.replace = self.why = self.equivalent = None


def parse_list(path):
    mutants, current = [], None
    with open(path, encoding="utf-8") as text:
        for number, raw in enumerate(text, 1):
            line = raw.rstrip("\n")
            if not line.strip():
                current = None
                continue
            if line.lstrip().startswith("#"):
                continue
            head = re.match(r"\[([\w.-]+)\]\s+(\S+)(?:\s+(memory|mbedtls36))?\s*$", line)
            if head:
                current = Mutant(head.group(1), head.group(2), head.group(3) or "plain", number)
                mutants.append(current)
                continue
            field = re.match(r"(find|replace|why|equivalent):\s?\s*(.*)$", line)
            if current is None or not field:
                sys.exit("%s:%d: not understood: %s" % (path, number, line))
            value = field.group(2).replace("{NL}", "\n")
            setattr(current, field.group(1), value)
    for m in mutants:
        if m.find is None or m.replace is None or not m.why:
            sys.exit("%s:%d: [%s] needs find, replace and why" % (path, m.line, m.ident))
    idents = [m.ident for m in mutants]
    duplicates = sorted({i for i in idents if idents.count(i) > 1})
    if duplicates:
        sys.exit("duplicate ids: " + ", ".join(duplicates))
    return mutants


def tracked_files():
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "-z"],
                            cwd=ROOT, capture_output=True).stdout.decode()
    if not listed:  # an exported tree: everything but build directories
        return [os.path.relpath(os.path.join(d, f), ROOT) for d, dirs, files in os.walk(ROOT)
                if not os.path.relpath(d, ROOT).startswith("build") for f in files]
    return [f for f in listed.split("\0") if f and os.path.isfile(os.path.join(ROOT, f))]


def sync_tree(tree):
    """Copies changed files only, so that the builds stay incremental."""
    for name in tracked_files():
        source, target = os.path.join(ROOT, name), os.path.join(tree, name)
        with open(source, "rb") as f:
            data = f.read()
        if os.path.isfile(target):
            with open(target, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copy2(source, target)


def run(command, limit=None, env=None, quiet=True):
    """Runs command in its own process group; (status, output), status None on time-out."""
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               env=env, start_new_session=True)
    try:
        output = process.communicate(timeout=limit)[0].decode(errors="replace")
        return process.returncode, output
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return None, process.communicate()[0].decode(errors="replace")


def mbedtls36_settings(work):
    """(environment, CMake options) of a build on mbedTLS 3.6."""
    status, output = run([os.path.join(ROOT, "scripts", "test_mbedtls36.sh"), "--settings", work])
    if status != 0:
        sys.exit("no mbedTLS 3.6 root:\n" + output)
    lines = output.split()
    return dict(os.environ, LD_LIBRARY_PATH=lines[0].split("=", 1)[1]), lines[1:]


def configure(tree, build, kind, extra):
    if os.path.isfile(os.path.join(build, "CMakeCache.txt")):
        return
    options = ["-DCMAKE_BUILD_TYPE=Debug", "-DWS_CLIENT_SANITIZE=%s" % ("ON" if kind == "memory" else "OFF")] + extra
    status, output = run(["cmake", "-S", tree, "-B", build] + options)
    if status != 0:
        sys.exit("configure failed:\n" + output)


def build(build_dir, jobs):
    status, output = run(["cmake", "--build", build_dir, "-j", str(jobs)], limit=1800)
    return status == 0, output


def failed_tests(build_dir, jobs, env, part="all"):
    """The tests that fail. part "staged": the script-level examples (the
    slowest tests) run only when the unit tests and replays all pass."""
    if part == "staged":
        return failed_tests(build_dir, jobs, env, "unit") or failed_tests(build_dir, jobs, env, "examples")
    selection = {"all": ["-E", EXCLUDED_TESTS], "unit": ["-E", EXCLUDED_TESTS + "|examples"],
                 "examples": ["-R", "examples"]}[part]
    status, output = run(["ctest", "--test-dir", build_dir, "-j", str(jobs)] + selection, limit=TEST_LIMIT, env=env)
    if status is None:
        return ["(time-out)"]
    if part == "examples" and "No tests were found" in output:
        return []
    failed = re.findall(r"^\s*\d+ - (\S+) \(", output.split("The following tests FAILED:")[-1], re.M) \
        if "The following tests FAILED:" in output else []
    if status != 0 and not failed:
        failed = ["(ctest status %d)" % status]
    return failed


def short(names):
    """GoogleTest case names without the suite prefix, joined."""
    return ",".join(n.split(".", 1)[-1] if n[:1].isupper() else n for n in names)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--list", default=os.path.join(ROOT, "tools", "mutants.txt"))
    parser.add_argument("--work", default=os.path.join(ROOT, "build-mutants"))
    parser.add_argument("--only", default="")
    parser.add_argument("--jobs", type=int, default=2, help="build jobs")
    parser.add_argument("--test-jobs", type=int, default=4, help="tests at once (they mostly wait)")
    parser.add_argument("--killed", help="write the killed ids to this file")
    parser.add_argument("--baseline", help="a --killed file to compare with")
    parser.add_argument("--all-tests", action="store_true",
                        help="run every fast test on every mutant (default: the examples only when the rest pass)")
    args = parser.parse_args()

    mutants = parse_list(args.list)
    if args.only:
        wanted = set(args.only.split(","))
        mutants = [m for m in mutants if m.ident in wanted]
    started = time.time()
    tree = os.path.join(args.work, "tree")
    builds = {kind: os.path.join(args.work, kind) for kind in ("plain", "memory", "mbedtls36")}
    builds["memory"] = os.path.join(args.work, "asan")
    envs, extra = {"plain": None, "memory": dict(os.environ, ASAN_OPTIONS="detect_leaks=1")}, {}
    sync_tree(tree)
    kinds = sorted({m.kind for m in mutants})
    for kind in kinds:
        if kind == "mbedtls36":
            envs[kind], extra[kind] = mbedtls36_settings(builds[kind])
        configure(tree, builds[kind], kind, extra.get(kind, []))
        ok, output = build(builds[kind], args.jobs)
        if not ok:
            sys.exit("the unmutated tree does not build:\n" + output[-3000:])
        failed = failed_tests(builds[kind], args.test_jobs, envs[kind])
        if failed:
            sys.exit("the unmutated tree fails %s in %s: fix that first" % (", ".join(failed), builds[kind]))
    print("unmutated tree passes (%.0f s)" % (time.time() - started), flush=True)

    results = {}
    # Grouped by file: only the mutated unit and the one restored are rebuilt.
    for m in sorted(mutants, key=lambda m: (m.kind, m.path)):
        target = os.path.join(tree, m.path)
        original = open(target, encoding="utf-8").read() if os.path.isfile(target) else ""
        count = original.count(m.find) if m.find else 0
        if count != 1:
            results[m.ident] = ("STALE", "find text %s" % ("missing" if count == 0 else "found %d times" % count))
        else:
            with open(target, "w", encoding="utf-8") as f:
                f.write(original.replace(m.find, m.replace))
            mutant_start = time.time()
            ok, output = build(builds[m.kind], args.jobs)
            if not ok:
                results[m.ident] = ("NO BUILD", output.split("error:")[1].split("\n")[0].strip()
                                    if "error:" in output else "build failed")
            else:
                failed = failed_tests(builds[m.kind], args.test_jobs, envs[m.kind],
                                      "all" if args.all_tests else "staged")
                results[m.ident] = ("killed" if failed else "survived", short(failed))
            with open(target, "w", encoding="utf-8") as f:
                f.write(original)
            results[m.ident] += (time.time() - mutant_start,)
        print("  %-22s %-9s %s" % (m.ident, results[m.ident][0], results[m.ident][1]), flush=True)
    for kind in kinds:  # leave the builds unmutated
        build(builds[kind], args.jobs)

    print("\n%-22s %-18s %-9s %s" % ("mutant", "file", "result", "failed tests / note"))
    for m in mutants:
        result, note = results[m.ident][:2]
        if result == "survived" and m.equivalent:
            note = "equivalent: " + m.equivalent
        tag = {"plain": "", "memory": " (asan)", "mbedtls36": " (3.6)"}[m.kind]
        print("%-22s %-18s %-9s %s" % (m.ident, os.path.basename(m.path) + tag, result, note))
    killed = [m for m in mutants if results[m.ident][0] == "killed"]
    counted = [m for m in mutants if results[m.ident][0] in ("killed", "survived")]
    stale = [m.ident for m in mutants if results[m.ident][0] == "STALE"]
    broken = [m.ident for m in mutants if results[m.ident][0] == "NO BUILD"]
    equivalent = [m.ident for m in mutants if results[m.ident][0] == "survived" and m.equivalent]
    if args.killed:
        with open(args.killed, "w", encoding="utf-8") as f:
            for m in killed:
                f.write("%s %s\n" % (m.ident, results[m.ident][1]))
    if args.baseline:
        before = {line.split()[0] for line in open(args.baseline, encoding="utf-8")
                  if line.strip() and not line.startswith("#")}
        lost = sorted(before - {m.ident for m in killed} - set(stale))
        print("killed in %s but not now: %s" % (os.path.basename(args.baseline), ", ".join(lost) or "none"))
    if stale:
        print("stale (refit the list): " + ", ".join(stale))
    if broken:
        print("do not build (fix the list): " + ", ".join(broken))
    if equivalent:
        print("survivors judged equivalent: " + ", ".join(equivalent))
    print("wall time %.0f s" % (time.time() - started))
    print("killed %d of %d" % (len(killed), len(counted)))


if __name__ == "__main__":
    main()
