#!/usr/bin/env python3
"""Plants each fault of a catalogue in the source tree in turn, rebuilds, runs every GoogleTest
executable of the build and records which tests catch it. A suite that is trimmed or reorganised must
still catch every fault (`--compare` with the results of an earlier run lists what it lost).

usage: python3 tests/faults/plant_faults.py [--tree DIR] [--ids a,b] [--catalogue FILE] [--out FILE]
                                            [--timeout SECONDS] [--no-baseline] [--compare OLD.json]

The catalogue (faults.json beside this script by default) is a list of
  {"id", "file", "find", "replace", "what"[, "cpu"]}
where `find` must occur exactly once in `file` (relative to the tree); a fault whose text has moved on is
reported as "find-not-unique" and needs its catalogue entry brought up to date. A fault with "cpu" runs
its tests with IMAGERY_CPU set to that value ("scalar" for faults in the plain twins of fast kernels).

The tree must already be configured in DIR/build (./run.sh test does it). Every edit is undone from the
bytes kept in memory, whatever happens, and the unmodified tree is built again at the end so that the
build directory matches the sources. Results go to build/faults-<commit>.json.
"""

import argparse
import datetime
import json
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

BUILD_JOBS = 2
FAILED_LINE = re.compile(r"^\[  FAILED  \] (\S+?)(?: \(\d+ ms\))?(?:, where .*)?$")
TEST_MACRO = re.compile(r"^\s*(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.M)


class Interrupted(Exception):
    pass


def on_signal(signum, frame):
    raise Interrupted(f"signal {signum}")


def run(cmd, cwd, env=None, timeout=None):
    """Runs cmd in its own process group; returns (returncode or None on timeout, output, seconds)."""
    start = time.monotonic()
    process = subprocess.Popen(cmd, cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               start_new_session=True)
    try:
        output, _ = process.communicate(timeout=timeout)
        code = process.returncode
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        output, _ = process.communicate()
        code = None
    except BaseException:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        raise
    return code, output.decode("utf-8", "replace"), time.monotonic() - start


def test_executables(build):
    """The GoogleTest executables CTest knows, from the include lines gtest_discover_tests writes."""
    listing = build / "tests" / "CTestTestfile.cmake"
    found = []
    if listing.exists():
        for match in re.finditer(r'include\("([^"]+)\[\d+\]_include\.cmake"\)', listing.read_text()):
            path = Path(match.group(1))
            if path.exists() and os.access(path, os.X_OK):
                found.append(path)
    if not found:  # Fall back to the executables in build/tests.
        found = sorted(p for p in (build / "tests").iterdir()
                       if p.is_file() and os.access(p, os.X_OK) and p.name.endswith("_tests"))
    return found


def test_sources(tree):
    """Suite.Name -> source file (relative to the tree) for every TEST macro under tests/."""
    sources = {}
    for path in sorted((tree / "tests").rglob("*.cpp")):
        for suite, name in TEST_MACRO.findall(path.read_text(encoding="utf-8", errors="replace")):
            sources.setdefault(f"{suite}.{name}", str(path.relative_to(tree)))
    return sources


def plain_name(test):
    """Instance/Suite.Name/Param -> Suite.Name, for looking up the source file."""
    suite, _, name = test.partition(".")
    return f"{suite.split('/')[-1]}.{name.split('/')[0]}"


def run_suite(build, cpu, timeout):
    """Runs every executable; returns (failures, per-executable notes, seconds). Failures are
    'executable: Suite.Name' strings; a crash or a timeout is a failure named after the executable."""
    env = dict(os.environ)
    env["IMAGERY_WORKER_THREADS"] = "4"
    env.pop("IMAGERY_CPU", None)
    if cpu:
        env["IMAGERY_CPU"] = cpu
    failures, notes, total = [], {}, 0.0
    for exe in test_executables(build):
        # Full output rather than --gtest_brief: the last test started and never finished names a crash.
        code, output, seconds = run([str(exe), "--gtest_color=no"], cwd=exe.parent, env=env, timeout=timeout)
        total += seconds
        names, running = [], None
        for line in output.splitlines():
            line = line.strip()
            if line.startswith("[ RUN      ] "):
                running = line[len("[ RUN      ] "):]
            elif line.startswith("[       OK ] "):
                running = None
            match = FAILED_LINE.match(line)
            if match and "." in match.group(1):
                running = None
                if match.group(1) not in names:
                    names.append(match.group(1))
        if (code is None or code < 0 or (code != 0 and not names)) and running and running not in names:
            names.append(running)  # the test that was running when the executable died or hung
        failures += [f"{exe.name}: {name}" for name in names]
        if code is None:
            failures.append(f"{exe.name}: TIMEOUT after {timeout:.0f} s")
            notes[exe.name] = f"timeout in {running}"
        elif code < 0 or (code != 0 and not names) or (code != 0 and running):
            # A signal, or a failing exit without a finished failed test: the executable died part way.
            failures.append(f"{exe.name}: CRASHED (exit {code})")
            notes[exe.name] = f"crashed in {running}, exit {code}; tail: " + " | ".join(output.splitlines()[-3:])
        notes.setdefault(exe.name, f"{len(names)} failed, {seconds:.1f} s")
    return failures, notes, total


def build_tree(tree):
    code, output, seconds = run(["cmake", "--build", "build", f"-j{BUILD_JOBS}"], cwd=tree)
    return code == 0, output, seconds


def git(tree, *args):
    return subprocess.run(["git", "-C", str(tree), *args], capture_output=True, text=True).stdout.strip()


def main():
    here = Path(__file__).resolve().parent
    root = here.parent.parent
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tree", default=str(root), help="source tree with a configured build/")
    parser.add_argument("--ids", default="", help="comma-separated fault ids to run (default: all)")
    parser.add_argument("--catalogue", default=str(here / "faults.json"))
    parser.add_argument("--out", default="", help="results file (default: TREE/build/faults-<shortsha>.json)")
    parser.add_argument("--timeout", type=float, default=300.0, help="seconds per test executable")
    parser.add_argument("--no-baseline", action="store_true", help="skip the run of the unmodified tree")
    parser.add_argument("--compare", default="", help="earlier results file to compare with")
    args = parser.parse_args()

    tree = Path(args.tree).resolve()
    build = tree / "build"
    if not (build / "CMakeCache.txt").exists():
        sys.exit(f"{build} is not configured: cmake -S {tree} -B {build} -DCMAKE_BUILD_TYPE=Release")
    faults = json.loads(Path(args.catalogue).read_text())
    if isinstance(faults, dict):
        faults = faults["faults"]
    if args.ids:
        wanted = [i.strip() for i in args.ids.split(",") if i.strip()]
        unknown = sorted(set(wanted) - {m["id"] for m in faults})
        if unknown:
            sys.exit("unknown ids: " + ", ".join(unknown))
        faults = [m for m in faults if m["id"] in wanted]
    # Mutants of one file run one after another: the restored file is then rebuilt only once.
    order = {}
    for m in faults:
        order.setdefault(m["file"], len(order))
    faults.sort(key=lambda m: order[m["file"]])

    sha = git(tree, "rev-parse", "--short", "HEAD")
    out = Path(args.out) if args.out else build / f"faults-{sha}.json"
    sources = test_sources(tree)
    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGHUP, on_signal)
    started = time.monotonic()

    report = {
        "commit": git(tree, "rev-parse", "HEAD"),
        "tracked_changes": git(tree, "status", "--porcelain", "--untracked-files=no"),
        "started": datetime.datetime.now().isoformat(timespec="seconds"),
        "executables": [p.name for p in test_executables(build)],
        "baseline": None,
        "faults": [],
    }

    def save():
        report["seconds"] = round(time.monotonic() - started, 1)
        out.write_text(json.dumps(report, indent=2) + "\n")

    baseline_failures = set()
    try:
        ok, output, seconds = build_tree(tree)
        if not ok:
            sys.exit("the unmodified tree does not build:\n" + output[-3000:])
        if not args.no_baseline:
            for cpu in sorted({m.get("cpu", "") for m in faults}):
                failures, notes, test_seconds = run_suite(build, cpu, args.timeout)
                print(f"baseline{' (IMAGERY_CPU=' + cpu + ')' if cpu else ''}: {len(failures)} failing, "
                      f"{test_seconds:.1f} s of tests", flush=True)
                for f in failures:
                    print("  baseline failure:", f)
                baseline_failures |= {(cpu, f) for f in failures}
                report["baseline"] = report["baseline"] or {}
                report["baseline"][cpu or "default"] = {
                    "failures": failures, "test_seconds": round(test_seconds, 1), "notes": notes}

        for number, m in enumerate(faults, 1):
            path = tree / m["file"]
            record = {"id": m["id"], "file": m["file"], "what": m["what"], "cpu": m.get("cpu", "")}
            t0 = time.monotonic()
            original = path.read_bytes()
            text = original.decode("utf-8")
            count = text.count(m["find"])
            if count != 1:
                record.update(status="find-not-unique", occurrences=count, caught=False, failing=[])
                print(f"[{number}/{len(faults)}] {m['id']}: `find` occurs {count} times, skipped", flush=True)
                report["faults"].append(record)
                save()
                continue
            try:
                path.write_bytes(text.replace(m["find"], m["replace"]).encode("utf-8"))
                ok, output, build_seconds = build_tree(tree)
                record["build_seconds"] = round(build_seconds, 1)
                if not ok:
                    errors = [l for l in output.splitlines() if "error" in l.lower()][:10]
                    record.update(status="did-not-compile", caught=False, failing=[], build_errors=errors)
                else:
                    cpu = m.get("cpu", "")
                    failures, notes, test_seconds = run_suite(build, cpu, args.timeout)
                    failures = [f for f in failures if (cpu, f) not in baseline_failures]
                    record.update(status="ran", caught=bool(failures), failing=failures,
                                  test_seconds=round(test_seconds, 1), notes=notes)
            finally:
                path.write_bytes(original)
            record["failing_sources"] = sorted({sources.get(plain_name(f.split(": ", 1)[1]), "?")
                                                for f in record["failing"] if "." in f.split(": ", 1)[-1]})
            record["seconds"] = round(time.monotonic() - t0, 1)
            report["faults"].append(record)
            save()
            state = record["status"] if record["status"] != "ran" else ("CAUGHT" if record["caught"] else "SURVIVED")
            print(f"[{number}/{len(faults)}] {m['id']}: {state}, {len(record['failing'])} failing, "
                  f"{record['seconds']:.0f} s", flush=True)
    except (KeyboardInterrupt, Interrupted) as stop:
        print(f"stopped ({stop}); the tree is restored", file=sys.stderr)
        report["interrupted"] = True
    finally:
        # The sources are back as they were; bring the build directory back to them.
        ok, output, _ = build_tree(tree)
        report["clean_rebuild_ok"] = ok
        save()
        if not ok:
            print("WARNING: the unmodified tree failed to rebuild:\n" + output[-2000:], file=sys.stderr)

    print_table(report)
    if args.compare:
        compare(report, json.loads(Path(args.compare).read_text()))
    print(f"\nresults: {out}  ({report['seconds']:.0f} s in all)")
    return 0 if all(r.get("caught") for r in report["faults"]) else 1


def print_table(report):
    rows = report["faults"]
    print()
    print(f"{'id':32} {'caught':7} {'#fail':>5}  failing tests (up to 6)")
    for r in rows:
        caught = "yes" if r.get("caught") else ("NO" if r["status"] == "ran" else r["status"])
        names = [f.split(": ", 1)[1] for f in r["failing"]]
        flag = " <== only these" if 0 < len(names) <= 2 else ""
        print(f"{r['id']:32} {caught:7} {len(names):>5}  {', '.join(names[:6])}{flag}")
    caught = sum(1 for r in rows if r.get("caught"))
    print(f"\n{caught} of {len(rows)} caught")


def test_names(tests):
    return ", ".join(t.split(": ", 1)[1] for t in tests[:6]) + (" ..." if len(tests) > 6 else "")


def compare(report, old):
    """What the suite of this run lost against an earlier run: faults no longer caught, and tests that
    caught a fault before and do not now (gone, renamed or weakened)."""
    before = {r["id"]: r for r in old["faults"]}
    print(f"\ncompared with {old.get('commit', '?')[:12]}:")
    changes = 0
    for r in report["faults"]:
        o = before.get(r["id"])
        if o is None:
            continue
        lost = sorted(set(o["failing"]) - set(r["failing"]))
        if o.get("caught") and not r.get("caught"):
            changes += 1
            print(f"  LOST  {r['id']}: was caught by {len(o['failing'])}, now by none")
        elif lost:
            # A test that was renamed or merged shows up as one lost and one gained.
            changes += 1
            gained = sorted(set(r["failing"]) - set(o["failing"]))
            label = "fewer" if len(r["failing"]) < len(o["failing"]) else "moved"
            print(f"  {label} {r['id']}: {len(o['failing'])} -> {len(r['failing'])} catching; no longer: "
                  + test_names(lost) + ("; now also: " + test_names(gained) if gained else ""))
        elif r.get("caught") and not o.get("caught"):
            changes += 1
            print(f"  NEW   {r['id']}: now caught")
    if not changes:
        print("  the same faults are caught by the same tests")


if __name__ == "__main__":
    sys.exit(main())
