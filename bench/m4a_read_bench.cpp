// m4a_read_bench: how many MP4 (.m4a) files per second the tag readers get through.
//
//   m4a_read_bench [CORPUS] [--benchmark_...]
//
// CORPUS is a folder of .m4a files (make_m4a_corpus.py builds one); without it
// QW_BENCH_M4A_CORPUS is used, then /tmp/qw-m4a-corpus. One iteration is one pass over the files
// of a set; the rate is items_per_second (files/s), in wall-clock time. Before the runs the parts
// of the files any reader touches are read once (the first MiB, for the content sniffing, and
// every top-level atom but 'mdat', wherever it lies), so that the figures are parsing, not the
// disk; QW_BENCH_WARM=full reads the whole files instead, QW_BENCH_WARM=none skips it.
//
// The readers:
//   ours_reader    AACInfoTag::initWithPath, then title, artist, album, year, track, genres, the
//                  number of pictures, duration, bit rate and sample rate (the reader always works
//                  out the audio properties);
//   ours_factory   AudioInfoTag::tagWithPath (content sniffing, then the name when the sniffing
//                  cannot tell, the tag, the name fallbacks), then the same fields;
//   ours_sniff     SongFile::songDataTypeAtPath alone: the factory's share before the tag;
//   taglib         TagLib::MP4::File without audio properties, the same text fields from tag()
//                  and the pictures of its "covr" item;
//   taglib_props   the same with the audio properties (length, bit rate, sample rate), which is
//                  what ours_reader does;
//   taglib_fileref TagLib's own factory, TagLib::FileRef without audio properties (it picks the
//                  kind by the file name's extension), the same fields: the counterpart of
//                  ours_factory.
// Each runs over all files, then over the files without and with a picture and those with
// 'moov' in front of and after the audio, when the corpus has its manifest.tsv.
//
// Counters per pass: files, pictures and titles found (the readers should agree), failed
// (files a reader gave up on; for ours_sniff, files not recognised as MP4 by content) and
// disk_MB, the bytes the pass made the kernel fetch from storage (0 when all came from the page
// cache).

#include "model/AudioInfoTag.h"
#include "model/SongFile.h"
#include "mp4/AACInfoTag.h"

#include "ReadBenchSupport.h"

#include <benchmark/benchmark.h>

#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/mp4coverart.h>
#include <taglib/mp4file.h>
#include <taglib/mp4item.h>
#include <taglib/mp4tag.h>

#include <QByteArray>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace ReadBench;

// The fields every reader is asked for, through the program's tag interface.
void readFields(const AudioInfoTag &tag, Tally &tally) {
    QString title = tag.title();
    QString artist = tag.artist();
    QString album = tag.album();
    QString year = tag.year();
    QString track = tag.track();
    QString genres = tag.genres();
    const int pictures = tag.numberOfImages();
    double duration = tag.duration();
    int bitrate = tag.bitrate();
    int samplerate = tag.samplerate();
    benchmark::DoNotOptimize(title);
    benchmark::DoNotOptimize(artist);
    benchmark::DoNotOptimize(album);
    benchmark::DoNotOptimize(year);
    benchmark::DoNotOptimize(track);
    benchmark::DoNotOptimize(genres);
    benchmark::DoNotOptimize(duration);
    benchmark::DoNotOptimize(bitrate);
    benchmark::DoNotOptimize(samplerate);
    tally.pictures += pictures;
    tally.titles += title.isEmpty() ? 0 : 1;
}

void oursReader(benchmark::State &state, const FileSet *set) {
    runReader<AACInfoTag>(state, *set, readFields);
}
void oursFactory(benchmark::State &state, const FileSet *set) {
    runFactory(state, *set, readFields);
}
void oursSniff(benchmark::State &state, const FileSet *set) {
    runSniff(state, *set, SongFile::TypeAAC);
}

template <bool withProperties> void taglibReader(benchmark::State &state, const FileSet *set) {
    Tally tally;
    const long long disk = storageBytesRead();
    for (auto _ : state) {
        for (const std::string &path : set->paths) {
            TagLib::MP4::File file(path.c_str(), withProperties);
            if (!file.isValid()) {
                ++tally.failures;
                continue;
            }
            const TagLib::MP4::Tag *tag = file.tag();
            TagLib::String title = tag->title();
            TagLib::String artist = tag->artist();
            TagLib::String album = tag->album();
            unsigned year = tag->year();
            unsigned track = tag->track();
            TagLib::String genre = tag->genre();
            benchmark::DoNotOptimize(title);
            benchmark::DoNotOptimize(artist);
            benchmark::DoNotOptimize(album);
            benchmark::DoNotOptimize(year);
            benchmark::DoNotOptimize(track);
            benchmark::DoNotOptimize(genre);
            if constexpr (withProperties) {
                if (const TagLib::MP4::Properties *audio = file.audioProperties()) {
                    int length = audio->lengthInMilliseconds();
                    int bitrate = audio->bitrate();
                    int samplerate = audio->sampleRate();
                    benchmark::DoNotOptimize(length);
                    benchmark::DoNotOptimize(bitrate);
                    benchmark::DoNotOptimize(samplerate);
                }
            }
            tally.pictures += static_cast<long long>(tag->item("covr").toCoverArtList().size());
            tally.titles += title.isEmpty() ? 0 : 1;
        }
    }
    report(state, *set, tally, disk);
}

void taglibFileRef(benchmark::State &state, const FileSet *set) {
    Tally tally;
    const long long disk = storageBytesRead();
    for (auto _ : state) {
        for (const std::string &path : set->paths) {
            TagLib::FileRef ref(path.c_str(), false);
            const auto *file = dynamic_cast<const TagLib::MP4::File *>(ref.file());
            if (ref.isNull() || !file) {
                ++tally.failures;
                continue;
            }
            const TagLib::Tag *tag = ref.tag();
            TagLib::String title = tag->title();
            TagLib::String artist = tag->artist();
            TagLib::String album = tag->album();
            unsigned year = tag->year();
            unsigned track = tag->track();
            TagLib::String genre = tag->genre();
            benchmark::DoNotOptimize(title);
            benchmark::DoNotOptimize(artist);
            benchmark::DoNotOptimize(album);
            benchmark::DoNotOptimize(year);
            benchmark::DoNotOptimize(track);
            benchmark::DoNotOptimize(genre);
            tally.pictures += static_cast<long long>(file->tag()->item("covr").toCoverArtList().size());
            tally.titles += title.isEmpty() ? 0 : 1;
        }
    }
    report(state, *set, tally, disk);
}

// The corpus's own description of its files, from manifest.tsv: file name to the "moov"
// (front or back) and "pictures" columns.
struct ManifestEntry {
    std::string moov;
    bool picture = false;
};

bool readManifest(const std::filesystem::path &folder, std::map<std::string, ManifestEntry> *entries) {
    std::ifstream manifest(folder / "manifest.tsv");
    if (!manifest) return false;
    std::string line;
    std::getline(manifest, line); // header
    while (std::getline(manifest, line)) {
        std::istringstream fields(line);
        std::string file, moov, pictures;
        if (std::getline(fields, file, '\t') && std::getline(fields, moov, '\t') &&
            std::getline(fields, pictures, '\t'))
            (*entries)[file] = ManifestEntry{moov, pictures != "0"};
    }
    return true;
}

// Reads what the readers will read: the first MiB (the content sniffing looks at up to about
// 500 KB) and every top-level atom other than 'mdat' (the movie header, sample tables and item
// list, in front of the audio or after it), or the whole file.
void warmPageCache(const std::vector<std::string> &paths, bool wholeFiles) {
    constexpr std::size_t chunk = 1 << 20;
    std::vector<char> buffer(chunk);
    long long bytes = 0;
    const auto readRange = [&](int fd, off_t at, off_t length) {
        while (length > 0) {
            const ssize_t n = ::pread(fd, buffer.data(), std::min<off_t>(length, off_t(chunk)), at);
            if (n <= 0) break;
            at += n;
            length -= n;
            bytes += n;
        }
    };
    for (const std::string &path : paths) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        const off_t size = ::lseek(fd, 0, SEEK_END);
        if (wholeFiles) {
            readRange(fd, 0, size);
        } else {
            readRange(fd, 0, std::min(size, off_t(chunk)));
            off_t at = 0;
            unsigned char header[16];
            while (at + 8 <= size && ::pread(fd, header, sizeof header, at) >= 8) {
                std::uint64_t length = std::uint64_t(header[0]) << 24 | std::uint64_t(header[1]) << 16 |
                                       std::uint64_t(header[2]) << 8 | header[3];
                if (length == 1) {
                    length = 0;
                    for (int i = 8; i < 16; ++i)
                        length = length << 8 | header[i];
                } else if (length == 0) {
                    length = std::uint64_t(size - at);
                }
                if (length < 8) break;
                if (std::memcmp(header + 4, "mdat", 4) != 0 && at + off_t(length) > off_t(chunk))
                    readRange(fd, std::max(at, off_t(chunk)),
                              at + off_t(length) - std::max(at, off_t(chunk)));
                at += off_t(length);
            }
        }
        ::close(fd);
    }
    std::fprintf(stderr, "page cache warmed: %.1f MB read from %zu files (%s)\n", double(bytes) / 1e6,
                 paths.size(), wholeFiles ? "whole files" : "first MiB and the atoms around 'mdat'");
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    std::string folder;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--", 2) == 0 || !folder.empty()) {
            std::fprintf(
                stderr,
                "m4a_read_bench: unknown argument %s\nusage: m4a_read_bench [CORPUS] [--benchmark_...]\n",
                argv[i]);
            return 2;
        }
        folder = argv[i];
    }
    if (folder.empty()) {
        const char *env = std::getenv("QW_BENCH_M4A_CORPUS");
        folder = (env && *env) ? env : "/tmp/qw-m4a-corpus";
    }

    std::error_code error;
    std::vector<std::string> all;
    for (const auto &entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.is_regular_file() && entry.path().extension() == ".m4a")
            all.push_back(entry.path().string());
    }
    if (error || all.empty()) {
        std::fprintf(stderr, "m4a_read_bench: no .m4a files in %s%s%s (make_m4a_corpus.py makes some)\n",
                     folder.c_str(), error ? ": " : "", error ? error.message().c_str() : "");
        return 1;
    }
    std::sort(all.begin(), all.end());

    const char *warm = std::getenv("QW_BENCH_WARM");
    const std::string warmMode = warm ? warm : "";
    if (warmMode != "none") warmPageCache(all, warmMode == "full");

    // The sets live until the end: the registered benchmarks point at them.
    std::vector<std::unique_ptr<FileSet>> sets;
    sets.push_back(std::make_unique<FileSet>(makeSet("all", all)));
    std::map<std::string, ManifestEntry> manifest;
    if (readManifest(folder, &manifest) && !manifest.empty()) {
        std::vector<std::string> plain, pictured, front, back;
        for (const std::string &p : all) {
            const auto it = manifest.find(std::filesystem::path(p).filename().string());
            if (it == manifest.end()) continue;
            (it->second.picture ? pictured : plain).push_back(p);
            if (it->second.moov == "front") front.push_back(p);
            if (it->second.moov == "back") back.push_back(p);
        }
        const std::pair<const char *, std::vector<std::string> *> subsets[] = {
            {"no_picture", &plain}, {"picture", &pictured}, {"moov_front", &front}, {"moov_back", &back}};
        for (const auto &[name, paths] : subsets) {
            if (!paths->empty()) sets.push_back(std::make_unique<FileSet>(makeSet(name, *paths)));
        }
    }

    using Reader = void (*)(benchmark::State &, const FileSet *);
    const std::pair<const char *, Reader> readers[] = {
        {"ours_reader", oursReader},
        {"ours_factory", oursFactory},
        {"ours_sniff", oursSniff},
        {"taglib", taglibReader<false>},
        {"taglib_props", taglibReader<true>},
        {"taglib_fileref", taglibFileRef},
    };
    for (const auto &set : sets) {
        for (const auto &[name, reader] : readers) {
            benchmark::RegisterBenchmark((std::string(name) + "/" + set->name).c_str(), reader, set.get())
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        }
    }

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
