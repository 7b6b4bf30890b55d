#!/usr/bin/env python3
"""Plants small faults in product sources, one at a time, and runs the tests against each.

  scripts/mutants.py --build build/dev --tests 'REGEX' [--count N] [--seed S] FILE...
  scripts/mutants.py --build build/old --tests 'REGEX' --retry after.json --json before.json
  scripts/mutants.py --compare before.json after.json

A fault is one of: a flipped comparison (== !=, < >=, <= >, > <=, >= <), && <-> ||, a dropped
negation, return true <-> false, a dropped call statement, +1 <-> -1. The same files, seed and
count always give the same faults, so a run before and after a change to the tests compares
like with like. For each fault the test executables matching REGEX (ctest -R) are rebuilt and
run; a fault is caught when ctest fails. Sources are always restored, also on Ctrl-C.

--retry runs only the faults another run missed: after rewriting tests, run the new suite
first, then the old suite (tests checked out from before) on what the new one missed; --compare
then shows any fault the old suite caught that the new one lets through.
"""
import argparse, glob, json, os, random, re, subprocess, sys, time

RULES = [
    ("cmp", re.compile(r" == "), " != "),
    ("cmp", re.compile(r" != "), " == "),
    ("cmp", re.compile(r" <= "), " > "),
    ("cmp", re.compile(r" >= "), " < "),
    ("cmp", re.compile(r" < "), " >= "),
    ("cmp", re.compile(r" > "), " <= "),
    ("logic", re.compile(r" && "), " || "),
    ("logic", re.compile(r" \|\| "), " && "),
    ("neg", re.compile(r"\(!(?!=)"), "("),
    ("bool", re.compile(r"\breturn true;"), "return false;"),
    ("bool", re.compile(r"\breturn false;"), "return true;"),
    ("arith", re.compile(r" \+ 1\b"), " - 1"),
    ("arith", re.compile(r" - 1\b"), " + 1"),
]
CALL = re.compile(r"^(\s*)((?:[A-Za-z_][\w:]*(?:\.|->))*[A-Za-z_][\w:]*\s*\(.*\)\s*;)\s*$")
SKIP = re.compile(r"^\s*(#|//|\*|/\*)|\bq(Debug|Warning|Info|Critical)\b|\bQ_ASSERT|\bstatic_assert|\blog[A-Z]?\w*\(|NSLog|Logger")


def sites(path):
    out = []
    with open(path, encoding="utf-8", errors="replace") as f:
        lines = f.read().split("\n")
    for n, line in enumerate(lines):
        if SKIP.search(line) or '"' in line and line.count('"') % 2:
            continue
        # Never mutate inside a string; blanked to the same length so columns still match.
        code = re.sub(r'"(\\.|[^"\\])*"', lambda m: '"' + "x" * (len(m.group(0)) - 2) + '"', line)
        for kind, pat, rep in RULES:
            for m in pat.finditer(code):
                out.append({"file": path, "line": n + 1, "kind": kind, "col": m.start(),
                            "before": m.group(0), "after": rep})
        m = CALL.match(code)
        if m and not re.match(r"\s*(return|delete|throw|else|case|using|typedef)\b", code) \
                and "=" not in code.split("(")[0] and code.count("(") == code.count(")"):
            out.append({"file": path, "line": n + 1, "kind": "call", "col": len(m.group(1)),
                        "before": line[m.start(2):m.end(2)], "after": ";"})
    return out


def apply(site, text):
    lines = text.split("\n")
    line = lines[site["line"] - 1]
    col = site["col"]
    assert line[col:col + len(site["before"])] == site["before"], "source changed under the run"
    lines[site["line"] - 1] = line[:col] + site["after"] + line[col + len(site["before"]):]
    return "\n".join(lines)


def key(s):
    return f'{s["file"]}:{s["line"]}:{s["col"]}:{s["kind"]}'


def test_targets(build, regex):
    listing = subprocess.run(["ctest", "-N", "-R", regex], cwd=build, capture_output=True, text=True).stdout
    names = re.findall(r"Test\s+#\d+:\s+(\S+)", listing)
    names += ["ovpncli", "vpnctrl_launcher", "pelorin-devbackend", "pelorin-keyring"]
    targets = []
    for t in dict.fromkeys(names):
        base = t.split(".")[0]  # journeys are registered as FILE.FUNCTION
        if subprocess.run(["ninja", "-C", build, "-t", "query", base], capture_output=True).returncode == 0:
            targets.append(base)
    return list(dict.fromkeys(targets))


def run(args):
    if args.retry:
        chosen = [{k: v for k, v in r.items() if k != "outcome"} for r in json.load(open(args.retry))
                  if r["outcome"] == "missed"]
        files = sorted({s["file"] for s in chosen})
        allsites = chosen
    else:
        files = sorted({f for pat in args.files for f in glob.glob(pat)})
        allsites = [s for f in files for s in sites(f)]
        rng = random.Random(args.seed)
        chosen = sorted(rng.sample(allsites, min(args.count, len(allsites))), key=key)
    targets = test_targets(args.build, args.tests)
    if not targets:
        sys.exit(f"no test matches {args.tests!r} in {args.build}")
    print(f"{len(allsites)} sites in {len(files)} files; running {len(chosen)}; targets: {' '.join(targets)}", flush=True)
    results = []
    for i, s in enumerate(chosen, 1):
        original = open(s["file"], encoding="utf-8").read()
        try:
            with open(s["file"], "w", encoding="utf-8") as f:
                f.write(apply(s, original))
            t0 = time.time()
            b = subprocess.run(["ninja", "-C", args.build, *targets], capture_output=True, text=True)
            if b.returncode != 0:
                outcome = "nobuild"
            else:
                t = subprocess.run(["ctest", "-R", args.tests, "-j", str(args.jobs), "--timeout", str(args.timeout),
                                    "--stop-on-failure"], cwd=args.build, capture_output=True, text=True)
                outcome = "caught" if t.returncode != 0 else "missed"
        finally:
            with open(s["file"], "w", encoding="utf-8") as f:
                f.write(original)
        results.append(dict(s, outcome=outcome))
        print(f"[{i}/{len(chosen)}] {outcome:7} {s['file']}:{s['line']} {s['kind']}: "
              f"{s['before'].strip()[:60]} -> {s['after'].strip()} ({time.time() - t0:.0f}s)", flush=True)
    counted = [r for r in results if r["outcome"] != "nobuild"]
    caught = sum(r["outcome"] == "caught" for r in counted)
    print(f"caught {caught}/{len(counted)} ({100 * caught / max(1, len(counted)):.0f}%), "
          f"{len(results) - len(counted)} did not build")
    if args.json:
        with open(args.json, "w") as f:
            json.dump(results, f, indent=1)
    subprocess.run(["ninja", "-C", args.build, *targets], capture_output=True)


def compare(a, b):
    before = {key(r): r for r in json.load(open(a))}
    after = {key(r): r for r in json.load(open(b))}
    lost = [k for k, r in before.items() if r["outcome"] == "caught" and after.get(k, {}).get("outcome") == "missed"]
    gained = [k for k, r in before.items() if r["outcome"] == "missed" and after.get(k, {}).get("outcome") == "caught"]
    for k in lost:
        print("LOST   ", k, before[k]["before"].strip()[:60])
    for k in gained:
        print("GAINED ", k, before[k]["before"].strip()[:60])
    n = lambda d: (sum(r["outcome"] == "caught" for r in d.values()), sum(r["outcome"] != "nobuild" for r in d.values()))
    print(f"before {n(before)[0]}/{n(before)[1]}, after {n(after)[0]}/{n(after)[1]}, lost {len(lost)}, gained {len(gained)}")
    sys.exit(1 if lost else 0)


if __name__ == "__main__":
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build")
    p.add_argument("--tests", help="ctest -R regex")
    p.add_argument("--count", type=int, default=30)
    p.add_argument("--seed", type=int, default=1)
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--timeout", type=int, default=120)
    p.add_argument("--json")
    p.add_argument("--retry", metavar="JSON", help="run only the faults that run missed")
    p.add_argument("--compare", nargs=2, metavar=("BEFORE", "AFTER"))
    p.add_argument("files", nargs="*")
    a = p.parse_args()
    if a.compare:
        compare(*a.compare)
    elif not (a.build and a.tests and (a.files or a.retry)):
        p.error("--build, --tests and source files are needed")
    else:
        run(a)
