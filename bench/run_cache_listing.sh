#!/usr/bin/env bash
# Listing speed and memory with the song info cache: `quillwave-cli list CORPUS --quiet` with an
# empty cache (every file read, every record stored) and with a warm one (every song listed
# from its record), each after dropping the kernel's page cache (a user's first listing after a
# restart) and with the page cache warm. Prints times, the empty/warm ratios, the maximum
# resident memory and the memory per listed song above the program listing an empty folder.
#
#   bench/run_cache_listing.sh
#
# Two corpora (QW_BENCH_SETS, default "large small"):
#   large  $QW_BENCH_CORPUS (default /tmp/qw-corpus), QW_BENCH_COUNT (default 5000) files of
#          3-5 MB made by make_corpus.py (about 21 GB; an existing corpus is used as it is);
#   small  $QW_BENCH_SMALL_CORPUS (default /tmp/qw-small-corpus), QW_BENCH_SMALL_COUNT
#          (default 50000) files of 24-56 KB (plus the cover on a fifth) in album folders of
#          100, made by make_small_corpus.py (about 3 GB, twenty seconds). Removed at the end
#          when this run made it, unless QW_BENCH_KEEP_SMALL=1.
#
# Environment: QW_BENCH_RUNS (timed runs per case, default 3), QW_BENCH_JOBS (ninja jobs,
# default 2), QW_BENCH_CLI (a quillwave-cli already built: nothing is built then), QW_BENCH_COLD (1: also with the page cache dropped, which needs root; 0: warm page
# cache only; default: 1 when /proc/sys/vm/drop_caches can be written).
# Needs hyperfine, GNU time (/usr/bin/time), ffmpeg and lame (for the corpora), and the Debian
# python3-mutagen for /usr/bin/python3.
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
large="${QW_BENCH_CORPUS:-/tmp/qw-corpus}"
large_count="${QW_BENCH_COUNT:-5000}"
small="${QW_BENCH_SMALL_CORPUS:-/tmp/qw-small-corpus}"
small_count="${QW_BENCH_SMALL_COUNT:-50000}"
sets="${QW_BENCH_SETS:-large small}"
runs="${QW_BENCH_RUNS:-3}"
jobs="${QW_BENCH_JOBS:-2}"
build="$repo/build-bench"
cli="${QW_BENCH_CLI:-$build/src/quillwave-cli}"
py=/usr/bin/python3
drop='sync; echo 3 > /proc/sys/vm/drop_caches'

for tool in hyperfine /usr/bin/time; do
    command -v "$tool" >/dev/null || { echo "run_cache_listing.sh: $tool is needed" >&2; exit 1; }
done

cold="${QW_BENCH_COLD:-}"
if [[ -z "$cold" ]]; then
    if [[ -w /proc/sys/vm/drop_caches ]] && sh -c "$drop" 2>/dev/null; then cold=1; else cold=0; fi
fi
if [[ "$cold" == 1 ]] && ! sh -c "$drop" 2>/dev/null; then
    echo "run_cache_listing.sh: cannot drop the page cache (needs root): warm page cache only" >&2
    cold=0
fi

work="$(mktemp -d /tmp/qw-cache-listing.XXXXXX)"
made_small=0
cleanup() {
    rm -rf "$work"
    if [[ "$made_small" == 1 && "${QW_BENCH_KEEP_SMALL:-0}" != 1 ]]; then
        echo "== removing $small (made by this run; QW_BENCH_KEEP_SMALL=1 keeps it)"
        rm -rf "$small"
    fi
}
trap cleanup EXIT

if [[ -z "${QW_BENCH_CLI:-}" ]]; then
    echo "== build ($build)"
    cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQW_BUILD_BENCH=ON -DQW_BUILD_TESTS=OFF >/dev/null
    ninja -C "$build" -j "$jobs" quillwave-cli
fi
echo "== $cli"

for set in $sets; do
    case "$set" in
    large)
        echo "== corpus large ($large_count files in $large)"
        "$py" "$repo/bench/make_corpus.py" "$large" --count "$large_count"
        ;;
    small)
        echo "== corpus small ($small_count files in $small)"
        if ! grep -qs '"complete": true' "$small/.qw-small-corpus.json"; then made_small=1; fi
        "$py" "$repo/bench/make_small_corpus.py" "$small" --count "$small_count"
        ;;
    *)
        echo "run_cache_listing.sh: unknown set $set (large or small)" >&2
        exit 2
        ;;
    esac
done

mkdir -p "$work/empty-folder"

# measure NAME FOLDER CACHE(empty|warm) PAGE(cold|warm): hyperfine runs of the listing, each
# under GNU time for its maximum resident set size; results in $work/NAME.json and NAME.time.
measure() {
    local name="$1" folder="$2" cache="$3" page="$4"
    local xdg="$work/xdg-$name"
    local timefile="$work/$name.time"
    local cmd prepare=() setup=() warmup=()
    cmd="XDG_CACHE_HOME=$(printf %q "$xdg") /usr/bin/time -a -o $(printf %q "$timefile")"
    cmd+=" -f '%M %e %U %S %I' $(printf %q "$cli") list $(printf %q "$folder") --quiet --format tsv"
    local reset="rm -rf $(printf %q "$xdg") && mkdir -p $(printf %q "$xdg")"
    mkdir -p "$xdg"
    if [[ "$cache" == empty ]]; then
        if [[ "$page" == cold ]]; then
            prepare=(--prepare "$reset && $drop")
        else
            prepare=(--prepare "$reset")
            warmup=(--warmup 1)
        fi
    else
        # The cache is filled once by a first listing; every timed listing finds it complete.
        setup=(--setup "$reset && $cmd >/dev/null 2>&1")
        if [[ "$page" == cold ]]; then
            prepare=(--prepare "$drop")
        else
            warmup=(--warmup 1)
        fi
    fi
    echo "== $name"
    hyperfine --runs "$runs" "${warmup[@]}" "${setup[@]}" "${prepare[@]}" --style basic \
        --export-json "$work/$name.json" --command-name "$name" "$cmd"
    # Only the timed runs' lines count: the setup and warm-up listings come first.
    tail -n "$runs" "$timefile" >"$timefile.runs"
}

pages=(warm)
[[ "$cold" == 1 ]] && pages=(cold warm)
for page in "${pages[@]}"; do
    measure "emptyfolder-$page" "$work/empty-folder" empty "$page"
done
for set in $sets; do
    folder="$large"
    [[ "$set" == small ]] && folder="$small"
    for page in "${pages[@]}"; do
        measure "$set-empty-$page" "$folder" empty "$page"
        measure "$set-warm-$page" "$folder" warm "$page"
    done
    # The rows listed from the cache against those read from the files (the tag version is
    # not kept in the cache and shows as unknown there: that column is left out).
    xdg="$work/xdg-check"
    rm -rf "$xdg" && mkdir -p "$xdg"
    XDG_CACHE_HOME="$xdg" "$cli" list "$folder" --quiet --format tsv 2>/dev/null | cut -f1-11,13- >"$work/$set-read.tsv"
    XDG_CACHE_HOME="$xdg" "$cli" list "$folder" --quiet --format tsv 2>/dev/null | cut -f1-11,13- >"$work/$set-cached.tsv"
    rm -rf "$xdg"
done

echo
"$py" - "$work" "$cold" "$sets" "$build/cache_listing.json" <<'EOF'
import json
import os
import statistics
import sys

work, cold, sets, out_path = sys.argv[1], sys.argv[2] == "1", sys.argv[3].split(), sys.argv[4]
pages = ["cold", "warm"] if cold else ["warm"]


def case(name):
    """Times from hyperfine; max RSS (KB), elapsed and 512-byte blocks read from GNU time."""
    with open(os.path.join(work, name + ".json")) as f:
        result = json.load(f)["results"][0]
    rows = []
    with open(os.path.join(work, name + ".time.runs")) as f:
        for line in f:
            parts = line.split()
            if len(parts) == 5 and parts[0].isdigit():
                rows.append(parts)
    return {
        "median_s": result["median"], "min_s": result["min"], "max_s": result["max"],
        "user_s": result["user"], "system_s": result["system"], "times_s": result["times"],
        "max_rss_kb": statistics.median(int(r[0]) for r in rows) if rows else 0,
        "disk_read_mb": statistics.median(int(r[4]) for r in rows) * 512 / 1e6 if rows else 0,
    }


def songs(set_name):
    with open(os.path.join(work, set_name + "-read.tsv"), encoding="utf-8") as f:
        return sum(1 for _ in f) - 1


def agree(set_name):
    read = open(os.path.join(work, set_name + "-read.tsv"), encoding="utf-8").read().splitlines()
    cached = open(os.path.join(work, set_name + "-cached.tsv"), encoding="utf-8").read().splitlines()
    if len(read) != len(cached):
        return "no (%d rows read, %d from the cache)" % (len(read) - 1, len(cached) - 1)
    differing = sum(1 for a, b in zip(read, cached) if a != b)
    return "yes" if not differing else "no (%d rows differ)" % differing


summary = {"load_average": open("/proc/loadavg").read().split()[0], "sets": {}}
baseline = {page: case("emptyfolder-" + page) for page in pages}
summary["empty_folder"] = baseline
rss_base = statistics.median(b["max_rss_kb"] for b in baseline.values())

print("Load average %s; page cache dropped before each cold run (sync; drop_caches=3)%s"
      % (summary["load_average"], "" if cold else " -- NOT measured: warm page cache only"))
print("Empty folder (program start): max RSS %.1f MB; %s" % (
    rss_base / 1024, ", ".join("%s page cache %.3f s" % (p, baseline[p]["median_s"]) for p in pages)))
print()
header = "%-8s %7s %-6s | %-27s | %-27s | %8s" % ("corpus", "songs", "page", "empty cache: s (min-max)",
                                                    "warm cache: s (min-max)", "empty/warm")
print(header)
print("-" * len(header))
for set_name in sets:
    n = songs(set_name)
    entry = {"songs": n, "listings_agree": agree(set_name)}
    for page in pages:
        e = case("%s-empty-%s" % (set_name, page))
        w = case("%s-warm-%s" % (set_name, page))
        ratio = e["median_s"] / w["median_s"] if w["median_s"] > 0 else 0.0
        entry[page] = {"empty_cache": e, "warm_cache": w, "ratio": ratio}
        print("%-8s %7d %-6s | %8.3f (%7.3f-%8.3f) | %8.3f (%7.3f-%8.3f) | %7.1fx" % (
            set_name, n, page, e["median_s"], e["min_s"], e["max_s"], w["median_s"], w["min_s"], w["max_s"], ratio))
    summary["sets"][set_name] = entry
print()
header = "%-8s %-6s %-11s | %12s %12s %12s | %14s" % ("corpus", "page", "cache", "user s", "system s",
                                                       "disk MB", "max RSS MB")
print(header)
print("-" * len(header))
for set_name in sets:
    for page in pages:
        for kind in ("empty_cache", "warm_cache"):
            c = summary["sets"][set_name][page][kind]
            print("%-8s %-6s %-11s | %12.2f %12.2f %12.1f | %14.1f" % (
                set_name, page, kind.replace("_", " "), c["user_s"], c["system_s"], c["disk_read_mb"],
                c["max_rss_kb"] / 1024))
print()
print("Memory per listed song above the program listing an empty folder (median max RSS of the runs):")
for set_name in sets:
    entry = summary["sets"][set_name]
    n = entry["songs"]
    for kind, label in (("warm_cache", "from the warm cache"), ("empty_cache", "reading (empty cache)")):
        rss = statistics.median(entry[p][kind]["max_rss_kb"] for p in pages)
        per_song = (rss - rss_base) / n if n else 0.0
        entry.setdefault("kb_per_song", {})[kind] = per_song
        print("  %-8s %-24s %8.2f KB per song  (%.1f MB - %.1f MB over %d songs)" % (
            set_name, label, per_song, rss / 1024, rss_base / 1024, n))
print()
for set_name in sets:
    print("%s: rows listed from the cache agree with rows read from the files: %s"
          % (set_name, summary["sets"][set_name]["listings_agree"]))
with open(out_path, "w") as f:
    json.dump(summary, f, indent=1)
print("(JSON: %s)" % out_path)
EOF
