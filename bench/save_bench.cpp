// Saving speed: a changed title saved into a 10 MB MP3 (the tag is never padded, so every save
// writes all the audio again) and into a 10 MB .m4a, each against the floor, a plain copy of
// the same file flushed to disk.
//
//   build-bench/bench/save_bench [FOLDER]     FOLDER for the scratch files, default /tmp
//
// The .m4a is ten minutes of 128 kb/s AAC encoded by ffmpeg with 'moov' in front of the audio,
// tagged once by AtomicParsley and once by mutagen (/usr/bin/python3): the two leave their
// padding in different places. The encoded and tagged files are kept in FOLDER
// (qw-save-bench-source*.m4a) and made again only when missing.
#include "common/Log.h"
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"
#include "mp4/AACInfoTag.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>

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

// Copies the file with read and write into a new file, flushes it and renames it over the old.
bool copyWithFsync(const QByteArray &from, const QByteArray &to, std::vector<char> &buffer) {
    const int in = ::open(from.constData(), O_RDONLY);
    const int out = ::open(to.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = in >= 0 && out >= 0;
    ssize_t n;
    while (ok && (n = ::read(in, buffer.data(), buffer.size())) > 0)
        ok = ::write(out, buffer.data(), size_t(n)) == n;
    ok = ok && ::fsync(out) == 0;
    if (out >= 0) ::close(out);
    if (in >= 0) ::close(in);
    return ok && ::rename(to.constData(), from.constData()) == 0;
}

// The same bytes copied with read and write into a new file, flushed and renamed over the old.
void BM_PlainCopyWithFsync(benchmark::State &state) {
    const QString path = makeSong(QStringLiteral("qw-copy-bench.mp3"), 10 * 1024 * 1024);
    const QByteArray from = path.toLocal8Bit();
    const QByteArray to = (path + QStringLiteral(".new")).toLocal8Bit();
    std::vector<char> buffer(1 << 20);
    for (auto _ : state) {
        if (!copyWithFsync(from, to, buffer)) state.SkipWithError("copy failed");
    }
    state.SetBytesProcessed(state.iterations() * QFile(path).size());
    QFile::remove(path);
}

enum class Tagger { AtomicParsley, Mutagen };

bool run(const QString &program, const QStringList &arguments, QString *error) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit &&
        process.exitCode() == 0)
        return true;
    *error =
        QStringLiteral("%1 failed: %2").arg(program, QString::fromLocal8Bit(process.readAll()).trimmed());
    return false;
}

// The 10 MB .m4a, tagged by the given tool: made once in the folder, then kept.
QString m4aSource(Tagger tagger, QString *error) {
    const QString encoded = gFolder + QStringLiteral("/qw-save-bench-source.m4a");
    const QString tagged =
        gFolder + (tagger == Tagger::AtomicParsley ? QStringLiteral("/qw-save-bench-source-ap.m4a")
                                                   : QStringLiteral("/qw-save-bench-source-mutagen.m4a"));
    if (QFileInfo(tagged).size() > 0) return tagged;
    if (QFileInfo(encoded).size() == 0) {
        // Ten minutes of noise and a tone, 128 kb/s AAC, 'moov' in front of 'mdat': about 9.7 MB.
        const QString partial = encoded + QStringLiteral(".part.m4a");
        if (!run(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-v"),
                  QStringLiteral("error"),
                  QStringLiteral("-y"),
                  QStringLiteral("-f"),
                  QStringLiteral("lavfi"),
                  QStringLiteral("-i"),
                  QStringLiteral("anoisesrc=d=600:c=pink:a=0.25:seed=3"),
                  QStringLiteral("-f"),
                  QStringLiteral("lavfi"),
                  QStringLiteral("-i"),
                  QStringLiteral("sine=f=220:d=600"),
                  QStringLiteral("-filter_complex"),
                  QStringLiteral("[0][1]amix=inputs=2,aformat=sample_rates=44100:channel_layouts=stereo"),
                  QStringLiteral("-c:a"),
                  QStringLiteral("aac"),
                  QStringLiteral("-b:a"),
                  QStringLiteral("128k"),
                  QStringLiteral("-movflags"),
                  QStringLiteral("+faststart"),
                  partial},
                 error) ||
            !QFile::rename(partial, encoded)) {
            QFile::remove(partial);
            if (error->isEmpty()) *error = QStringLiteral("cannot make %1").arg(encoded);
            return {};
        }
    }
    const QString partial = tagged + QStringLiteral(".part.m4a");
    QFile::remove(partial);
    bool ok;
    if (tagger == Tagger::AtomicParsley) {
        // AtomicParsley leaves 2 KB of padding in 'meta' before 'ilst', and a small 'free' after 'moov'.
        ok = run(QStringLiteral("AtomicParsley"),
                 {encoded, QStringLiteral("--title"), QStringLiteral("Start title"),
                  QStringLiteral("--artist"), QStringLiteral("Quillwave"), QStringLiteral("--album"),
                  QStringLiteral("Saving"), QStringLiteral("--year"), QStringLiteral("2024"),
                  QStringLiteral("--tracknum"), QStringLiteral("1/10"), QStringLiteral("--genre"),
                  QStringLiteral("Rock"), QStringLiteral("-o"), partial},
                 error);
    } else {
        // mutagen leaves its padding in 'meta' after 'ilst'.
        ok = QFile::copy(encoded, partial) &&
             run(QStringLiteral("/usr/bin/python3"),
                 {QStringLiteral("-c"),
                  QStringLiteral("import sys\nfrom mutagen.mp4 import MP4\nf = MP4(sys.argv[1])\n"
                                 "if f.tags is None: f.add_tags()\n"
                                 "f.tags['\\xa9nam'] = ['Start title']\nf.tags['\\xa9ART'] = ['Quillwave']\n"
                                 "f.tags['\\xa9alb'] = ['Saving']\nf.tags['\\xa9day'] = ['2024']\n"
                                 "f.tags['trkn'] = [(1, 10)]\nf.tags['\\xa9gen'] = ['Rock']\nf.save()\n"),
                  partial},
                 error);
    }
    if (!ok || !QFile::rename(partial, tagged)) {
        QFile::remove(partial);
        if (error->isEmpty()) *error = QStringLiteral("cannot make %1").arg(tagged);
        return {};
    }
    return tagged;
}

// A fresh copy of the tagged .m4a to work on.
QString makeM4A(const QString &name, Tagger tagger, QString *error) {
    const QString source = m4aSource(tagger, error);
    if (source.isEmpty()) return {};
    const QString path = gFolder + QLatin1Char('/') + name;
    QFile::remove(path);
    if (!QFile::copy(source, path)) {
        *error = QStringLiteral("cannot copy %1").arg(source);
        return {};
    }
    return path;
}

// Two titles of different lengths, so that every save changes the size of the item list.
void BM_SaveChangedTitleM4A(benchmark::State &state, Tagger tagger) {
    QString error;
    const QString path = makeM4A(QStringLiteral("qw-save-bench.m4a"), tagger, &error);
    if (path.isEmpty()) {
        state.SkipWithError(error.toUtf8().constData());
        return;
    }
    const qint64 sizeBefore = QFile(path).size();
    int round = 0;
    for (auto _ : state) {
        AACInfoTag tag;
        tag.initWithPath(path);
        tag.setTitle(++round % 2 ? QStringLiteral("A longer title, saved on every other round")
                                 : QStringLiteral("Short title"));
        if (!tag.modifySongFileAtPath(path, &error)) {
            state.SkipWithError((QStringLiteral("save failed: ") + error).toUtf8().constData());
            break;
        }
    }
    // How the file came out: its size change and the title read back.
    AACInfoTag check;
    check.initWithPath(path);
    state.counters["size_change"] = double(QFile(path).size() - sizeBefore);
    state.counters["title_ok"] =
        check.title() == (round % 2 ? QStringLiteral("A longer title, saved on every other round")
                                    : QStringLiteral("Short title"));
    state.SetBytesProcessed(state.iterations() * QFile(path).size());
    QFile::remove(path);
}

void BM_PlainCopyWithFsyncM4A(benchmark::State &state) {
    QString error;
    const QString path = makeM4A(QStringLiteral("qw-copy-bench.m4a"), Tagger::AtomicParsley, &error);
    if (path.isEmpty()) {
        state.SkipWithError(error.toUtf8().constData());
        return;
    }
    const QByteArray from = path.toLocal8Bit();
    const QByteArray to = (path + QStringLiteral(".new")).toLocal8Bit();
    std::vector<char> buffer(1 << 20);
    for (auto _ : state) {
        if (!copyWithFsync(from, to, buffer)) state.SkipWithError("copy failed");
    }
    state.SetBytesProcessed(state.iterations() * QFile(path).size());
    QFile::remove(path);
}

} // namespace

BENCHMARK(BM_SaveChangedTitle)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainCopyWithFsync)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SaveChangedTitleM4A, atomicparsley, Tagger::AtomicParsley)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SaveChangedTitleM4A, mutagen, Tagger::Mutagen)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainCopyWithFsyncM4A)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (argc > 1) gFolder = QString::fromLocal8Bit(argv[1]);
    Log::setConsoleEnabled(false);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
