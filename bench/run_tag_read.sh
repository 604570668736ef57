#!/usr/bin/env bash
# Tag-reading speed: makes the corpus if needed, builds tag_read_bench (Release, build-bench/),
# runs it and the mutagen script, and prints files per second of each reader.
#
#   bench/run_tag_read.sh [CORPUS]        CORPUS defaults to $QW_BENCH_CORPUS, then /tmp/qw-corpus
#
# Environment: QW_BENCH_COUNT (files, default 5000), QW_BENCH_REPS (repetitions of each
# benchmark, default 5), QW_BENCH_MIN_TIME (seconds per repetition, default 1), QW_BENCH_JOBS
# (ninja jobs, default 2), QW_BENCH_WARM (see tag_read_bench.cpp).
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
corpus="${1:-${QW_BENCH_CORPUS:-/tmp/qw-corpus}}"
count="${QW_BENCH_COUNT:-5000}"
reps="${QW_BENCH_REPS:-5}"
min_time="${QW_BENCH_MIN_TIME:-1}"
jobs="${QW_BENCH_JOBS:-2}"
build="$repo/build-bench"
# The system Python carries mutagen; the first python3 on PATH may not.
py=/usr/bin/python3

echo "== corpus ($count files in $corpus)"
"$py" "$repo/bench/make_corpus.py" "$corpus" --count "$count"

echo "== build ($build)"
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQW_BUILD_BENCH=ON -DQW_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" -j "$jobs" tag_read_bench

echo "== tag_read_bench"
"$build/bench/tag_read_bench" "$corpus" \
    --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_min_time="$min_time" --benchmark_enable_random_interleaving=true \
    --benchmark_out="$build/tag_read_bench.json" --benchmark_out_format=json

echo "== mutagen"
"$py" "$repo/bench/mutagen_read.py" "$corpus" --passes "$reps" --json "$build/mutagen_read.json"

echo
"$py" - "$build/tag_read_bench.json" "$build/mutagen_read.json" "$(pkg-config --modversion taglib)" <<'EOF'
import json
import sys

bench = json.load(open(sys.argv[1]))
mutagen = json.load(open(sys.argv[2]))
taglib_version = sys.argv[3]

# run_name looks like "ours_reader/all/real_time"; the medians of the repetitions are used.
wall, cpu = {}, {}
for b in bench["benchmarks"]:
    if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
        continue
    reader, subset = b["run_name"].split("/")[:2]
    wall[(reader, subset)] = b["items_per_second"]
    cpu_seconds = b["cpu_time"] * {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b["time_unit"]]
    cpu[(reader, subset)] = b["files"] / cpu_seconds if cpu_seconds > 0 else 0.0

rows = [("ours_reader", "ours (reader)"), ("ours_factory", "ours (factory)"),
        ("ours_sniff", "ours (factory's sniffing alone)"), ("taglib", "TagLib " + taglib_version)]
subsets = [s for s in ("all", "no_picture", "picture") if ("taglib", s) in wall]


def table(title, rates, with_mutagen):
    print(title)
    header = "%-42s" % "reader" + "".join("%14s" % s for s in subsets)
    print(header)
    print("-" * len(header))
    for key, label in rows:
        print("%-42s" % label + "".join("%14.0f" % rates.get((key, s), 0.0) for s in subsets))
    if with_mutagen:
        print("%-42s" % ("mutagen %s (Python)" % mutagen["version"]) + "%14.0f" % mutagen["files_per_second"])
    for key, label in rows[:3]:
        print("%-42s" % (label.strip() + " / TagLib")
              + "".join("%13.2fx" % (rates.get((key, s), 0.0) / rates[("taglib", s)]) for s in subsets))
    if with_mutagen:
        print("%-42s" % "mutagen / TagLib" + "%13.2fx" % (mutagen["files_per_second"] / rates[("taglib", "all")]))
    print()


counts = {s: next(b["files"] for b in bench["benchmarks"] if b["run_name"].split("/")[1] == s) for s in subsets}
print("%s; load average %s" % (", ".join("%s: %d files" % (s, counts[s]) for s in subsets),
                               open("/proc/loadavg").read().split()[0]))
print()
table("Files per second, wall clock (median of the repetitions)", wall, True)
table("Files per CPU-second (the process's own CPU time; steadier on a busy machine)", cpu, False)
EOF
