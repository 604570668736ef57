// tag_read_bench: how many MP3 files per second the tag readers get through.
//
//   tag_read_bench [CORPUS] [--benchmark_...]
//
// CORPUS is a folder of .mp3 files (make_corpus.py builds one); without it QW_BENCH_CORPUS is
// used, then /tmp/qw-corpus. One iteration is one pass over the files of a set; the rate is
// items_per_second (files/s), in wall-clock time. Before the runs the parts of the files any
// reader touches are read once, so that the figures are parsing, not the disk;
// QW_BENCH_WARM=full reads the whole files instead, QW_BENCH_WARM=none skips it.
//
// The readers:
//   ours_reader   MP3InfoTag::initWithPath, then title, artist, album, year, track, genres and
//                 the number of pictures;
//   ours_factory  AudioInfoTag::tagWithPath (content sniffing, the tag, the name fallbacks),
//                 then the same fields;
//   ours_sniff    SongFile::songDataTypeAtPath alone: the factory's share before the tag;
//   taglib        TagLib::MPEG::File without audio properties, the same fields from tag() and
//                 the APIC frames of ID3v2Tag().
// Each runs over all files, then over the files without and with a picture when the corpus
// has its manifest.tsv.
//
// Counters per pass: files, pictures and titles found (the readers should agree), and
// disk_MB, the bytes the pass made the kernel fetch from storage (0 when all came from the page
// cache).

#include "id3/MP3InfoTag.h"
#include "model/AudioInfoTag.h"
#include "model/SongFile.h"

#include "ReadBenchSupport.h"

#include <benchmark/benchmark.h>

#include <taglib/attachedpictureframe.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tag.h>

#include <QByteArray>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace ReadBench;

// The fields every reader is asked for, through the program's tag interface.
template <typename Tag> void readFields(const Tag &tag, Tally &tally) {
    QString title = tag.title();
    QString artist = tag.artist();
    QString album = tag.album();
    QString year = tag.year();
    QString track = tag.track();
    QString genres = tag.genres();
    const int pictures = tag.numberOfImages();
    benchmark::DoNotOptimize(title);
    benchmark::DoNotOptimize(artist);
    benchmark::DoNotOptimize(album);
    benchmark::DoNotOptimize(year);
    benchmark::DoNotOptimize(track);
    benchmark::DoNotOptimize(genres);
    tally.pictures += pictures;
    tally.titles += title.isEmpty() ? 0 : 1;
}

void oursReader(benchmark::State &state, const FileSet *set) {
    runReader<MP3InfoTag>(state, *set, readFields<MP3InfoTag>);
}
void oursFactory(benchmark::State &state, const FileSet *set) {
    runFactory(state, *set, readFields<AudioInfoTag>);
}
void oursSniff(benchmark::State &state, const FileSet *set) {
    runSniff(state, *set, SongFile::TypeMP3);
}

void taglibReader(benchmark::State &state, const FileSet *set) {
    Tally tally;
    const long long disk = storageBytesRead();
    for (auto _ : state) {
        for (const std::string &path : set->paths) {
            TagLib::MPEG::File file(path.c_str(), false);
            if (!file.isValid()) {
                ++tally.failures;
                continue;
            }
            const TagLib::Tag *tag = file.tag();
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
            if (const TagLib::ID3v2::Tag *id3v2 = file.ID3v2Tag())
                tally.pictures += static_cast<long long>(id3v2->frameList("APIC").size());
            tally.titles += title.isEmpty() ? 0 : 1;
        }
    }
    report(state, *set, tally, disk);
}

// The corpus's own list of the files with a picture: the "pictures" column of manifest.tsv.
bool filesWithPictures(const std::filesystem::path &folder, std::unordered_set<std::string> *names) {
    std::ifstream manifest(folder / "manifest.tsv");
    if (!manifest) return false;
    std::string line;
    std::getline(manifest, line); // header
    while (std::getline(manifest, line)) {
        std::istringstream fields(line);
        std::string file, version, id3v1, pictures;
        if (std::getline(fields, file, '\t') && std::getline(fields, version, '\t') &&
            std::getline(fields, id3v1, '\t') && std::getline(fields, pictures, '\t') && pictures != "0")
            names->insert(file);
    }
    return true;
}

// Reads what the readers will read: the first MiB (tag and the content sniffing) and the last
// 64 KiB (ID3v1, APE and footer lookups), or the whole file.
void warmPageCache(const std::vector<std::string> &paths, bool wholeFiles) {
    constexpr std::size_t chunk = 1 << 20;
    constexpr off_t tail = 64 << 10;
    std::vector<char> buffer(chunk);
    long long bytes = 0;
    for (const std::string &path : paths) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        const off_t size = ::lseek(fd, 0, SEEK_END);
        if (wholeFiles) {
            ssize_t n;
            off_t at = 0;
            while ((n = ::pread(fd, buffer.data(), chunk, at)) > 0) {
                at += n;
                bytes += n;
            }
        } else {
            bytes += std::max<ssize_t>(::pread(fd, buffer.data(), chunk, 0), 0);
            if (size > off_t(chunk))
                bytes += std::max<ssize_t>(
                    ::pread(fd, buffer.data(), tail, std::max(size - tail, off_t(chunk))), 0);
        }
        ::close(fd);
    }
    std::fprintf(stderr, "page cache warmed: %.1f MB read from %zu files (%s)\n", double(bytes) / 1e6,
                 paths.size(), wholeFiles ? "whole files" : "first MiB and last 64 KiB");
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    std::string folder;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--", 2) == 0 || !folder.empty()) {
            std::fprintf(
                stderr,
                "tag_read_bench: unknown argument %s\nusage: tag_read_bench [CORPUS] [--benchmark_...]\n",
                argv[i]);
            return 2;
        }
        folder = argv[i];
    }
    if (folder.empty()) {
        const char *env = std::getenv("QW_BENCH_CORPUS");
        folder = (env && *env) ? env : "/tmp/qw-corpus";
    }

    std::error_code error;
    std::vector<std::string> all;
    for (const auto &entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.is_regular_file() && entry.path().extension() == ".mp3")
            all.push_back(entry.path().string());
    }
    if (error || all.empty()) {
        std::fprintf(stderr, "tag_read_bench: no .mp3 files in %s%s%s (make_corpus.py makes some)\n",
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
    std::unordered_set<std::string> withPicture;
    if (filesWithPictures(folder, &withPicture) && !withPicture.empty()) {
        std::vector<std::string> plain, pictured;
        for (const std::string &p : all)
            (withPicture.count(std::filesystem::path(p).filename().string()) ? pictured : plain).push_back(p);
        if (!plain.empty()) sets.push_back(std::make_unique<FileSet>(makeSet("no_picture", plain)));
        if (!pictured.empty()) sets.push_back(std::make_unique<FileSet>(makeSet("picture", pictured)));
    }

    using Reader = void (*)(benchmark::State &, const FileSet *);
    const std::pair<const char *, Reader> readers[] = {
        {"ours_reader", oursReader},
        {"ours_factory", oursFactory},
        {"ours_sniff", oursSniff},
        {"taglib", taglibReader},
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
