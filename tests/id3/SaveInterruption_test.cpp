// A save killed at any moment leaves either the old file or the new one, never a mixture.
#include "id3/MP3InfoTag.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>

#include <gtest/gtest.h>

using namespace TestSupport;

namespace {
// Audio frames filled with varied bytes, so that a shifted or torn copy cannot pass as intact.
QByteArray variedAudio(int frames) {
    QByteArray audio = mpegAudio(frames);
    QRandomGenerator rng(7);
    for (qsizetype i = 0; i < audio.size(); ++i) {
        if (i % 417 >= 4) audio[i] = char(rng.bounded(256));
    }
    return audio;
}

QByteArray savedWithTitle(const TempDir &dir, const QByteArray &original, const QString &title) {
    static int counter = 0;
    const QString path = dir.write(QStringLiteral("expected-%1.mp3").arg(++counter), original);
    QProcess p;
    p.start(cliPath(), {"set", path, "--title", title, "--quiet"});
    p.waitForFinished(120000);
    return readAll(path);
}
} // namespace

TEST(SaveInterruption, KilledSavesLeaveOldOrNewFile) {
    TempDir dir;
    // About 25 MB: each save rewrites all of it, so kills land in the middle of the copy.
    const QByteArray audio = variedAudio(60000);
    const QByteArray original = id3v2Tag(3,
                                         textFrame23("TIT2", "Start") + textFrame23("TPE1", "Artist") +
                                             frame23("PRIV", QByteArray(3000, 'p')),
                                         0) +
                                audio;
    const QByteArray withA = savedWithTitle(dir, original, "A");
    const QByteArray withLongB = savedWithTitle(dir, original, QString(500, 'B'));
    ASSERT_NE(withA, withLongB);
    ASSERT_TRUE(withLongB.endsWith(audio));
    ASSERT_TRUE(withA.endsWith(audio));

    const QString path = dir.write("song.mp3", withA);
    // One undisturbed save tells how long a save takes here; kills are spread over 1.5 times that.
    QElapsedTimer clock;
    clock.start();
    savedWithTitle(dir, withA, "A");
    const qint64 window = std::max<qint64>(clock.nsecsElapsed() / 1000 * 3 / 2, 2000);

    QRandomGenerator rng(2024);
    int completed = 0, keptOld = 0;
    for (int round = 0; round < 40; ++round) {
        const QByteArray before = readAll(path);
        const QString title = before == withA ? QString(500, 'B') : QStringLiteral("A");
        const QByteArray after = before == withA ? withLongB : withA;
        QProcess writer;
        writer.start(cliPath(), {"set", path, "--title", title, "--quiet"});
        ASSERT_TRUE(writer.waitForStarted(10000));
        QThread::usleep(rng.bounded(window));
        writer.kill(); // SIGKILL, or nothing when it has finished
        writer.waitForFinished(60000);

        const QByteArray now = readAll(path);
        ASSERT_TRUE(now == before || now == after)
            << "round " << round << ": the file is neither the old nor the new one";
        (now == after ? completed : keptOld)++;
        // What a killed save leaves behind is a hidden scratch file, never the song itself.
        for (const QString &left : QDir(dir.path()).entryList({".song.mp3.qw-*"}, QDir::Hidden | QDir::Files))
            QFile::remove(dir.file(left));
    }
    RecordProperty("completed", completed);
    RecordProperty("killedBeforeReplacing", keptOld);
    EXPECT_GT(keptOld, 0) << "no save was interrupted";
    EXPECT_GT(completed, 0) << "no save got through";
}
