// Saving speed: a changed title saved into a 10 MB MP3 (the tag is never padded, so every save
// writes all the audio again) against the floor, a plain copy of the same file flushed to disk.
//
//   build-bench/bench/save_bench [FOLDER]     FOLDER for the scratch files, default /tmp
#include "common/Log.h"
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"

#include <QFile>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

QString gFolder = QStringLiteral("/tmp");

QString makeSong(const QString &name, qint64 bytes) {
    const QString path = gFolder + QLatin1Char('/') + name;
    QByteArray frame(417, '\x55');
    frame[0] = char(0xFF);
    frame[1] = char(0xFB);
    frame[2] = char(0x90);
    frame[3] = char(0x64);
    QByteArray tag("ID3\x03\x00\x00\x00\x00\x00\x17TIT2\x00\x00\x00\x0D\x00\x00\x00Start title", 33);
    QFile file(path);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(tag);
    for (qint64 written = tag.size(); written < bytes; written += frame.size())
        file.write(frame);
    return path;
}

void BM_SaveChangedTitle(benchmark::State &state) {
    const QString path = makeSong(QStringLiteral("qw-save-bench.mp3"), 10 * 1024 * 1024);
    int round = 0;
    for (auto _ : state) {
        MP3InfoTag tag;
        tag.initWithPath(path);
        tag.setTitle(QStringLiteral("Title %1").arg(++round % 2));
        QString error;
        if (!tag.modifySongFileAtPath(path, &error)) state.SkipWithError(error.toUtf8().constData());
    }
    state.SetBytesProcessed(state.iterations() * QFile(path).size());
    QFile::remove(path);
}

// The same bytes copied with read and write into a new file, flushed and renamed over the old.
void BM_PlainCopyWithFsync(benchmark::State &state) {
    const QString path = makeSong(QStringLiteral("qw-copy-bench.mp3"), 10 * 1024 * 1024);
    const QByteArray from = path.toLocal8Bit();
    const QByteArray to = (path + QStringLiteral(".new")).toLocal8Bit();
    std::vector<char> buffer(1 << 20);
    for (auto _ : state) {
        const int in = ::open(from.constData(), O_RDONLY);
        const int out = ::open(to.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ssize_t n;
        while ((n = ::read(in, buffer.data(), buffer.size())) > 0)
            if (::write(out, buffer.data(), size_t(n)) != n) state.SkipWithError("write failed");
        ::fsync(out);
        ::close(out);
        ::close(in);
        ::rename(to.constData(), from.constData());
    }
    state.SetBytesProcessed(state.iterations() * QFile(path).size());
    QFile::remove(path);
}

} // namespace

BENCHMARK(BM_SaveChangedTitle)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainCopyWithFsync)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (argc > 1) gFolder = QString::fromLocal8Bit(argv[1]);
    Log::setConsoleEnabled(false);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
