#!/usr/bin/env python3
"""Ratios of kuvAdd to its peers, from kuv_bench's JSON output.

Runs kuv_bench on the BM_kuvAdd_*, BM_cvAdd_* and BM_memcpy_* cases with
repetitions (randomly interleaved, so that a change of load hits every peer
alike), takes the median real time of each, and prints per case:

    kuv/cv     kuvAdd over cv::add on the same buffers
    kuv/bound  kuvAdd over the bandwidth bound; the bound is 1.5 x memcpy,
               as an add reads two images and writes one where memcpy reads
               one and writes one

  bench/ratios.py [--binary build-bench/bench/kuv_bench] [--repetitions 5]
  bench/ratios.py --json saved.json       (only read an earlier run)
  bench/ratios.py --save run.json         (keep the raw JSON of this run)
"""

import argparse
import json
import subprocess
import sys

TYPES = ["8UC1", "8UC3", "16SC1", "32FC1"]
SHAPES = ["whole", "roi", "8x8"]

# The bars this benchmark answers to: (type, shape) -> limits.
BARS = {
    ("8UC3", "whole"): {"kuv/cv": 1.0, "kuv/bound": 1.5},
    ("8UC3", "roi"): {"kuv/cv": 1.2},
}
TINY_LIMIT_NS = 200.0   # every 8x8 call


def run_bench(binary, repetitions, min_time, extra):
    cmd = [
        binary,
        "--benchmark_filter=^BM_(kuvAdd|cvAdd|memcpy)_",
        "--benchmark_format=json",
        "--benchmark_repetitions=%d" % repetitions,
        "--benchmark_report_aggregates_only=true",
        "--benchmark_enable_random_interleaving=true",
    ]
    if min_time is not None:
        cmd.append("--benchmark_min_time=%g" % min_time)
    cmd += extra
    print("running:", " ".join(cmd), file=sys.stderr)
    done = subprocess.run(cmd, check=True, stdout=subprocess.PIPE)
    return done.stdout.decode()


def to_ns(value, unit):
    return value * {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[unit]


def medians(report):
    """run_name -> (median real time in ns, the median entry)."""
    out = {}
    for b in report["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") == "median":
            out[b["run_name"]] = (to_ns(b["real_time"], b["time_unit"]), b)
    # A run of one repetition has no aggregates: its single entry stands.
    for b in report["benchmarks"]:
        if b.get("run_type") == "iteration" and b["run_name"] not in out:
            out[b["run_name"]] = (to_ns(b["real_time"], b["time_unit"]), b)
    return out


def allocs_of(report, name):
    """The allocation counter of a kuvAdd case: its mean and spread over the
    repetitions, which are both 0 only when every repetition saw 0."""
    mean = spread = None
    for b in report["benchmarks"]:
        if b.get("run_name") != name or "allocs" not in b:
            continue
        if b.get("run_type") == "iteration":
            mean = b["allocs"] if mean is None else max(mean, abs(b["allocs"]))
        elif b.get("aggregate_name") == "mean":
            mean = b["allocs"]
        elif b.get("aggregate_name") == "stddev":
            spread = b["allocs"]
    return mean, spread


def fmt_time(ns):
    if ns >= 1e6:
        return "%.3f ms" % (ns / 1e6)
    if ns >= 1e3:
        return "%.1f us" % (ns / 1e3)
    return "%.1f ns" % ns


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--binary", default="build-bench/bench/kuv_bench")
    ap.add_argument("--repetitions", type=int, default=5)
    ap.add_argument("--min-time", type=float, default=None,
                    help="seconds per repetition (the library's default if unset)")
    ap.add_argument("--json", help="read this saved JSON instead of running")
    ap.add_argument("--save", help="write the raw JSON of the run here")
    ap.add_argument("extra", nargs="*", help="further arguments for kuv_bench (after --)")
    args = ap.parse_args()

    if args.json:
        with open(args.json) as f:
            text = f.read()
    else:
        text = run_bench(args.binary, args.repetitions, args.min_time, args.extra)
        if args.save:
            with open(args.save, "w") as f:
                f.write(text)
    report = json.loads(text)
    med = medians(report)

    ctx = report.get("context", {})
    print("host: %s, %s CPUs at %s MHz, load %s; %s" % (
        ctx.get("host_name", "?"), ctx.get("num_cpus", "?"), ctx.get("mhz_per_cpu", "?"),
        ", ".join("%.2f" % x for x in ctx.get("load_avg", [])), ctx.get("date", "?")))
    print("medians of %s repetitions, real time per call" % args.repetitions
          if not args.json else "medians, real time per call")
    print()
    head = "%-12s %-6s %11s %11s %11s %11s %8s %9s %8s %7s" % (
        "case", "shape", "kuvAdd", "cv::add", "memcpy", "bound", "kuv/cv", "kuv/bound",
        "cv/bound", "allocs")
    print(head)
    print("-" * len(head))
    verdicts = []
    missing = []
    for shape in SHAPES:
        for t in TYPES:
            names = ["BM_%s_%s_%s" % (p, t, shape) for p in ("kuvAdd", "cvAdd", "memcpy")]
            if not all(n in med for n in names):
                missing += [n for n in names if n not in med]
                continue
            kuv, cv, mc = (med[n][0] for n in names)
            bound = 1.5 * mc
            mean, spread = allocs_of(report, names[0])
            allocs = "?" if mean is None else ("0" if mean == 0 and not spread else "%g" % mean)
            r = {"kuv/cv": kuv / cv, "kuv/bound": kuv / bound}
            print("%-12s %-6s %11s %11s %11s %11s %8.2f %9.2f %8.2f %7s" % (
                t, shape, fmt_time(kuv), fmt_time(cv), fmt_time(mc), fmt_time(bound),
                r["kuv/cv"], r["kuv/bound"], cv / bound, allocs))
            for key, limit in BARS.get((t, shape), {}).items():
                verdicts.append(("%s %s %s <= %.1f" % (t, shape, key, limit), r[key],
                                 r[key] <= limit))
            if shape == "8x8":
                verdicts.append(("%s 8x8 kuvAdd per call <= %.0f ns" % (t, TINY_LIMIT_NS),
                                 kuv, kuv <= TINY_LIMIT_NS))
            if allocs != "0":
                verdicts.append(("%s %s kuvAdd allocations == 0" % (t, shape),
                                 mean if mean is not None else float("nan"), False))
    print()
    for what, value, ok in verdicts:
        print("%-4s %-44s (%.2f)" % ("ok" if ok else "MISS", what, value))
    if missing:
        print("missing from the run:", ", ".join(missing))
    return 0 if all(ok for _, _, ok in verdicts) and not missing else 1


if __name__ == "__main__":
    sys.exit(main())
