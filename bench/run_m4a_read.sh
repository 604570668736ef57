#!/usr/bin/env bash
# MP4 tag-reading speed: makes the .m4a corpus if needed, builds m4a_read_bench (Release,
# build-bench/), runs it and the mutagen script, and prints files per second of each reader.
#
#   bench/run_m4a_read.sh [CORPUS]        CORPUS defaults to $QW_BENCH_M4A_CORPUS, then /tmp/qw-m4a-corpus
#
# Environment: QW_BENCH_M4A_COUNT (files, default 2000), QW_BENCH_REPS (repetitions of each
# benchmark, default 5), QW_BENCH_MIN_TIME (seconds per repetition, default 1), QW_BENCH_JOBS
# (ninja jobs, default 2), QW_BENCH_WARM (see m4a_read_bench.cpp).
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
corpus="${1:-${QW_BENCH_M4A_CORPUS:-/tmp/qw-m4a-corpus}}"
count="${QW_BENCH_M4A_COUNT:-2000}"
reps="${QW_BENCH_REPS:-5}"
min_time="${QW_BENCH_MIN_TIME:-1}"
jobs="${QW_BENCH_JOBS:-2}"
build="$repo/build-bench"
# The system Python carries mutagen; the first python3 on PATH may not.
py=/usr/bin/python3

echo "== corpus ($count files in $corpus)"
"$py" "$repo/bench/make_m4a_corpus.py" "$corpus" --count "$count"

echo "== build ($build)"
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQW_BUILD_BENCH=ON -DQW_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" -j "$jobs" m4a_read_bench

echo "== m4a_read_bench"
"$build/bench/m4a_read_bench" "$corpus" \
    --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_min_time="$min_time" --benchmark_enable_random_interleaving=true \
    --benchmark_out="$build/m4a_read_bench.json" --benchmark_out_format=json

echo "== mutagen"
"$py" "$repo/bench/mutagen_m4a_read.py" "$corpus" --passes "$reps" --json "$build/mutagen_m4a_read.json"

echo
"$py" - "$build/m4a_read_bench.json" "$build/mutagen_m4a_read.json" "$(pkg-config --modversion taglib)" <<'EOF'
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
        ("ours_sniff", "ours (factory's sniffing alone)"), ("taglib", "TagLib %s" % taglib_version),
        ("taglib_props", "TagLib %s + audio properties" % taglib_version),
        ("taglib_fileref", "TagLib %s FileRef (by extension)" % taglib_version)]
ours = rows[:3]
subsets = [s for s in ("all", "no_picture", "picture", "moov_front", "moov_back") if ("taglib", s) in wall]


def ratio(rates, key, base, subset):
    return rates.get((key, subset), 0.0) / rates[(base, subset)] if rates.get((base, subset)) else 0.0


def table(title, rates, with_mutagen):
    print(title)
    header = "%-44s" % "reader" + "".join("%12s" % s for s in subsets)
    print(header)
    print("-" * len(header))
    for key, label in rows:
        print("%-44s" % label + "".join("%12.0f" % rates.get((key, s), 0.0) for s in subsets))
    if with_mutagen:
        print("%-44s" % ("mutagen %s (Python)" % mutagen["version"]) + "%12.0f" % mutagen["files_per_second"])
    for key, label in ours:
        print("%-44s" % (label + " / TagLib")
              + "".join("%11.2fx" % ratio(rates, key, "taglib", s) for s in subsets))
    for key, label in ours[:2]:
        print("%-44s" % (label + " / TagLib + properties")
              + "".join("%11.2fx" % ratio(rates, key, "taglib_props", s) for s in subsets))
    print("%-44s" % "ours (factory) / TagLib FileRef"
          + "".join("%11.2fx" % ratio(rates, "ours_factory", "taglib_fileref", s) for s in subsets))
    if with_mutagen:
        print("%-44s" % "mutagen / TagLib + properties"
              + "%11.2fx" % (mutagen["files_per_second"] / rates[("taglib_props", "all")]))
    print()


counts = {s: next(b["files"] for b in bench["benchmarks"] if b["run_name"].split("/")[1] == s) for s in subsets}
print("%s; load average %s" % (", ".join("%s: %d files" % (s, counts[s]) for s in subsets),
                               open("/proc/loadavg").read().split()[0]))
print()
table("Files per second, wall clock (median of the repetitions)", wall, True)
table("Files per CPU-second (the process's own CPU time; steadier on a busy machine)", cpu, False)
EOF
