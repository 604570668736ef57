// AAC tags on byte-built files: items, pictures and audio properties read; items written
// back with the file saved in place or moved with its chunk offsets.
#include "mp4/AACInfoTag.h"
#include "mp4/Atom.h"
#include "mp4/Mp4Builder.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using namespace Mp4Builder;
using TestSupport::TempDir;

namespace {
std::unique_ptr<AACInfoTag> readTag(const QString &path) {
    auto tag = std::make_unique<AACInfoTag>();
    return tag->initWithPath(path) ? std::move(tag) : nullptr;
}

QString write(const TempDir &dir, const Song &s, quint32 *mdatAt = nullptr) {
    static int n = 0;
    return dir.write(QStringLiteral("s%1.m4a").arg(++n), song(s, mdatAt));
}

QList<quint32> chunkOffsets(const QByteArray &file) {
    const QByteArray stco =
        Atom::atomDataIn(AtomSource(&file), "moov:trak:mdia:minf:stbl:stco").value_or(QByteArray());
    QList<quint32> list;
    for (qsizetype i = 8; i + 4 <= stco.size(); i += 4)
        list.append(quint32(uchar(stco[i])) << 24 | quint32(uchar(stco[i + 1])) << 16 |
                    quint32(uchar(stco[i + 2])) << 8 | uchar(stco[i + 3]));
    return list;
}
} // namespace

TEST(AACReader, ItemsAndTheirRules) {
    TempDir dir;
    Song s;
    s.items = {textItem(QStringLiteral(u"©nam"), QStringLiteral(u"Tïtle ☃")),
               textItem(QStringLiteral(u"©day"), "2004-05-01T07:00:00Z"),
               binaryItem("trkn", QByteArray(2, 0) + be16(3) + be16(12) + QByteArray(2, 0), 0),
               binaryItem("gnre", be16(18), 0),
               textItem(QStringLiteral(u"©gen"), "Ignored"),
               binaryItem("tmpo", be16(120)),
               binaryItem("cpil", QByteArray(1, 1)),
               container("covr", {atom("data", QByteArray("\0\0\0\x0E\0\0\0\0", 8) + "\x89PNGone"),
                                  atom("data", QByteArray("\0\0\0\x0D\0\0\0\0", 8) + "second")})};
    auto tag = readTag(write(dir, s));
    ASSERT_TRUE(tag);
    EXPECT_EQ(tag->readVersion(), "AAC");
    EXPECT_EQ(tag->title(), QStringLiteral(u"Tïtle ☃"));
    EXPECT_EQ(tag->year(), "2004");
    EXPECT_EQ(tag->attributes().value("year").toString(), "2004-05-01T07:00:00Z") << "the full date is kept";
    EXPECT_EQ(tag->track(), "3/12");
    EXPECT_EQ(tag->genres(), "Rock") << "gnre counts from 1";
    EXPECT_EQ(tag->bpm(), "120");
    EXPECT_TRUE(tag->isPartOfCompilation());
    ASSERT_EQ(tag->numberOfImages(), 2);
    EXPECT_EQ(tag->images()[0].imageData(), "\x89PNGone");
    EXPECT_EQ(tag->images()[0].mimeFormat(), "image/png");
    EXPECT_EQ(tag->images()[1].imageData(), "second");

    s.items = {binaryItem("trkn", QByteArray(2, 0) + be16(3) + be16(0) + QByteArray(2, 0), 0),
               binaryItem("gnre", be16(0), 0), textItem(QStringLiteral(u"©gen"), "(17)Jazz"),
               binaryItem("tmpo", be16(0)), textItem(QStringLiteral(u"©day"), "199")};
    tag = readTag(write(dir, s));
    ASSERT_TRUE(tag);
    EXPECT_EQ(tag->track(), "3");
    EXPECT_EQ(tag->genres(), "Rock/Jazz") << "a zero gnre falls back to the text";
    EXPECT_TRUE(tag->bpm().isNull());
    EXPECT_TRUE(tag->year().isNull()) << "shorter than four characters";

    s.items = {binaryItem("trkn", QByteArray(2, 0) + be16(0) + be16(12) + QByteArray(2, 0), 0)};
    EXPECT_TRUE(readTag(write(dir, s))->track().isNull());
}

TEST(AACReader, AudioProperties) {
    TempDir dir;
    Song s;
    auto tag = readTag(write(dir, s));
    ASSERT_TRUE(tag);
    EXPECT_DOUBLE_EQ(tag->duration(), 3.0);
    EXPECT_EQ(tag->samplerate(), 44100);
    EXPECT_EQ(tag->bitrate(), 128);

    // Without udta or meta: no items, but the properties are there.
    s.withUdta = false;
    tag = readTag(write(dir, s));
    ASSERT_TRUE(tag);
    EXPECT_TRUE(tag->attributes().isEmpty());
    EXPECT_EQ(tag->samplerate(), 44100);
}

TEST(AACReader, FilesThatCannotBeRead) {
    TempDir dir;
    EXPECT_FALSE(readTag(dir.write("bad.m4a", QByteArray("\0\0\0\x03"
                                                         "moov",
                                                         8) +
                                                  QByteArray(300, 0))));
    EXPECT_FALSE(readTag(dir.file("missing.m4a")));
    QByteArray cut = song(Song());
    cut.truncate(cut.size() / 2); // moov's children run past the end
    auto tag = readTag(dir.write("cut.m4a", cut));
    EXPECT_TRUE(!tag || tag->title().isNull());
}

TEST(AACWriter, TitleChangeWithRoomInFreeKeepsMdatInPlace) {
    TempDir dir;
    Song s;
    s.items = {textItem(QStringLiteral(u"©nam"), "Old title"), binaryItem("cpil", QByteArray(1, 0))};
    s.freeInMeta = 500;
    quint32 mdatAt = 0;
    const QString path = write(dir, s, &mdatAt);
    const QByteArray before = TestSupport::readAll(path);
    auto tag = readTag(path);
    tag->setTitle("A considerably longer new title");
    QString error;
    ASSERT_TRUE(tag->modifySongFileAtPath(path, &error)) << error.toStdString();
    const QByteArray after = TestSupport::readAll(path);
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(after.indexOf("mdat"), before.indexOf("mdat"));
    EXPECT_EQ(after.mid(after.indexOf("mdat")), before.mid(before.indexOf("mdat")));
    EXPECT_EQ(chunkOffsets(after), chunkOffsets(before));
    EXPECT_EQ(readTag(path)->title(), "A considerably longer new title");
}

TEST(AACWriter, GrowingMetaMovesMdatAndItsChunkOffsets) {
    TempDir dir;
    for (bool mdatFirst : {false, true}) {
        Song s;
        s.items = {textItem(QStringLiteral(u"©nam"), "T")};
        s.mdatFirst = mdatFirst;
        quint32 mdatAt = 0;
        const QString path = write(dir, s, &mdatAt);
        const QList<quint32> before = chunkOffsets(TestSupport::readAll(path));
        auto tag = readTag(path);
        tag->addImage(ID3Image(QByteArray(200000, 'p'), "image/jpeg"));
        QString error;
        ASSERT_TRUE(tag->modifySongFileAtPath(path, &error)) << error.toStdString();
        const QByteArray after = TestSupport::readAll(path);
        const qint64 shift = after.indexOf("mdat") - (mdatAt - 4);
        QList<quint32> expected;
        for (quint32 o : before)
            expected.append(quint32(o + shift));
        EXPECT_EQ(chunkOffsets(after), expected) << (mdatFirst ? "mdat first" : "moov first");
        EXPECT_EQ(shift != 0, !mdatFirst);
        EXPECT_EQ(after.mid(after.indexOf("mdat") + 4, 4000), QByteArray(4000, 'a'));
        auto back = readTag(path);
        ASSERT_EQ(back->numberOfImages(), 1);
        EXPECT_EQ(back->images()[0].imageData().size(), 200000);
    }
}

TEST(AACWriter, ItemPayloads) {
    TempDir dir;
    Song s;
    s.items = {textItem(QStringLiteral(u"©nam"), "T"), binaryItem("gnre", be16(18), 0),
               binaryItem("tmpo", be16(90)), container("covr", {atom("data", QByteArray(8, 0) + "old")})};
    const QString path = write(dir, s);
    struct {
        const char *track;
        QByteArray trkn;
    } rows[] = {{"5/", QByteArray(10, 0) + be16(5) + be16(0) + QByteArray(2, 0)},
                {"/9", QByteArray(10, 0) + be16(0) + be16(0) + QByteArray(2, 0)},
                {"7/12", QByteArray(10, 0) + be16(7) + be16(12) + QByteArray(2, 0)}};
    for (const auto &row : rows) {
        auto tag = readTag(path);
        tag->setTrack(row.track);
        tag->setBPM("abc");
        tag->removeAllImages();
        QString error;
        ASSERT_TRUE(tag->modifySongFileAtPath(path, &error));
        // The flat scan cannot step into 'meta' (its version bytes read as a size), so look in a tree.
        std::unique_ptr<Atom> root = Atom::atomContainerFromFile(std::make_shared<FileReader>(path));
        const auto item = [&root](const QString &name) {
            Atom *node = root->childAtAtomPath(QStringLiteral("FILE:moov:udta:meta:ilst:") + name);
            return node ? node->data().value_or("container") : QByteArray("none");
        };
        EXPECT_EQ(item("trkn:data"), row.trkn) << row.track;
        EXPECT_EQ(item("tmpo"), "none") << "bpm abc removes tempo";
        EXPECT_EQ(item("covr"), "none") << "no pictures, no covr";
        EXPECT_EQ(item("gnre"), "none") << "gnre is never written";
        EXPECT_EQ(item(QStringLiteral(u"©gen:data")), QByteArray("\0\0\0\x01\0\0\0\0Rock", 12));
        EXPECT_EQ(item("cpil:data"), QByteArray("\0\0\0\x15\0\0\0\0\0", 9));
    }
}

TEST(AACWriter, RefusedWritesLeaveTheFileAlone) {
    TempDir dir;
    Song s;
    s.withUdta = false;
    const QString path = write(dir, s);
    const QByteArray before = TestSupport::readAll(path);
    auto tag = readTag(path);
    tag->setTitle("T");
    QString error;
    EXPECT_FALSE(tag->modifySongFileAtPath(path, &error));
    EXPECT_TRUE(error.isEmpty()) << "no item list: no error text";
    EXPECT_EQ(TestSupport::readAll(path), before);

    // Without an mvhd to stamp the write stops before anything is saved.
    QByteArray noMvhd = song(Song());
    noMvhd.replace(noMvhd.indexOf("mvhd"), 4, "xxxx");
    const QString p2 = dir.write("nomvhd.m4a", noMvhd);
    auto t2 = readTag(p2);
    ASSERT_TRUE(t2);
    EXPECT_FALSE(t2->modifySongFileAtPath(p2, &error));
    EXPECT_EQ(error, "cannot set modification date");
    EXPECT_EQ(TestSupport::readAll(p2), noMvhd);
}

TEST(AACWriter, StampsTheModificationTimes) {
    QByteArray bytes = song(Song());
    const QDateTime when(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC);
    ASSERT_TRUE(AACInfoTag::setModifiedTime(when, bytes));
    const quint32 expected = quint32(QDateTime(QDate(1904, 1, 1), QTime(0, 0), Qt::UTC).secsTo(when));
    const qsizetype mvhd = bytes.indexOf("mvhd") - 4;
    EXPECT_EQ(bytes.mid(mvhd + 16, 4), be32(expected));
    const qsizetype mdhd = bytes.indexOf("mdhd") - 4;
    EXPECT_EQ(bytes.mid(mdhd + 16, 4), be32(expected));
}
