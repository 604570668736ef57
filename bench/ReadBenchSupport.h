#pragma once
// What the tag-reading benchmarks share: file sets, what a pass found, the counters they report,
// and the runs of our own readers (the tag class alone, the factory, the content sniffing).

#include "model/AudioInfoTag.h"
#include "model/SongFile.h"

#include <benchmark/benchmark.h>

#include <QString>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace ReadBench {

struct FileSet {
    std::string name;
    std::vector<std::string> paths; // native, for TagLib
    std::vector<QString> qtPaths;   // the same, as the program holds them
};

// What a pass found, summed over the files.
struct Tally {
    long long pictures = 0;
    long long titles = 0;
    long long failures = 0;
};

inline FileSet makeSet(std::string name, const std::vector<std::string> &paths) {
    FileSet set;
    set.name = std::move(name);
    set.paths = paths;
    set.qtPaths.reserve(paths.size());
    for (const std::string &p : set.paths)
        set.qtPaths.push_back(QString::fromLocal8Bit(p));
    return set;
}

// Bytes this process made the kernel read from storage so far (/proc/self/io).
inline long long storageBytesRead() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == "read_bytes:") return value;
    }
    return -1;
}

inline void report(benchmark::State &state, const FileSet &set, const Tally &tally, long long diskBefore) {
    const auto passes = static_cast<double>(std::max<benchmark::IterationCount>(state.iterations(), 1));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(set.paths.size()));
    state.counters["files"] = static_cast<double>(set.paths.size());
    state.counters["pictures"] = static_cast<double>(tally.pictures) / passes;
    state.counters["titles"] = static_cast<double>(tally.titles) / passes;
    if (tally.failures) state.counters["failed"] = static_cast<double>(tally.failures) / passes;
    const long long diskAfter = storageBytesRead();
    if (diskBefore >= 0 && diskAfter >= 0)
        state.counters["disk_MB"] = static_cast<double>(diskAfter - diskBefore) / 1e6 / passes;
}

// Our tag class on every file, then read(tag, tally).
template <typename Tag, typename Read>
void runReader(benchmark::State &state, const FileSet &set, Read read) {
    Tally tally;
    const long long disk = storageBytesRead();
    for (auto _ : state) {
        for (const QString &path : set.qtPaths) {
            Tag tag;
            if (!tag.initWithPath(path)) {
                ++tally.failures;
                continue;
            }
            read(tag, tally);
        }
    }
    report(state, set, tally, disk);
}

// The factory the program uses: content sniffing, then the tag class it picks.
template <typename Read> void runFactory(benchmark::State &state, const FileSet &set, Read read) {
    Tally tally;
    const long long disk = storageBytesRead();
    for (auto _ : state) {
        for (const QString &path : set.qtPaths) {
            const std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithPath(path);
            if (!tag) {
                ++tally.failures;
                continue;
            }
            read(*tag, tally);
        }
    }
    report(state, set, tally, disk);
}

// The content sniffing alone; files it does not take for the expected type count as failures.
inline void runSniff(benchmark::State &state, const FileSet &set, int expectedType) {
    Tally tally;
    const long long disk = storageBytesRead();
    for (auto _ : state) {
        for (const QString &path : set.qtPaths) {
            const int type = SongFile::songDataTypeAtPath(path);
            benchmark::DoNotOptimize(type);
            if (type != expectedType) ++tally.failures;
        }
    }
    report(state, set, tally, disk);
}

} // namespace ReadBench
