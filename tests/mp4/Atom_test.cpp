// The atom tree: flat lookups on bytes and files, lazily built trees, editing with free-space
// balancing, and flattening back to bytes.
#include "common/FormatError.h"
#include "mp4/Atom.h"
#include "mp4/Mp4Builder.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using namespace Mp4Builder;

namespace {
Atom::Code c(const char *name) {
    return Atom::codeFromString(QString::fromUtf8(name));
}

std::shared_ptr<FileReader> fileWith(const TestSupport::TempDir &dir, const QByteArray &bytes) {
    static int n = 0;
    return std::make_shared<FileReader>(dir.write(QStringLiteral("f%1.m4a").arg(++n), bytes));
}

class AutoSizingOff : public ::testing::Test {
protected:
    void TearDown() override { Atom::setAutoSizing(false); }
};
} // namespace

TEST(Atom, NamesReadAsMacRoman) {
    EXPECT_EQ(Atom::codeFromString("moov"), 0x6D6F6F76u);
    EXPECT_EQ(Atom::codeFromString(QStringLiteral(u"©nam")), 0xA96E616Du);
    EXPECT_EQ(Atom::stringFromCode(0xA9415254u), QStringLiteral(u"©ART"));
}

TEST(Atom, SizesIncludingExtendedAndToTheEnd) {
    const QByteArray bytes = atom("free", QByteArray(4, 'x')) + QByteArray("\0\0\0\x01mdat", 8) + be32(0) +
                             be32(24) + QByteArray(8, 'd') + QByteArray("\0\0\0\0tail", 8) +
                             QByteArray(10, 't');
    const AtomSource source(&bytes);
    Atom::Code name = 0;
    EXPECT_EQ(Atom::sizeOfAtomIn(source, 0, &name), 12u);
    EXPECT_EQ(name, c("free"));
    EXPECT_EQ(Atom::sizeOfAtomIn(source, 12), 24u) << "size 1 reads the 64-bit size";
    EXPECT_EQ(Atom::sizeOfAtomIn(source, 36), std::uint64_t(bytes.size() - 36)) << "size 0 runs to the end";
    const QByteArray bad = QByteArray("\0\0\0\x05"
                                      "abcd",
                                      8) +
                           QByteArray(8, 0);
    EXPECT_THROW(Atom::sizeOfAtomIn(AtomSource(&bad), 0), FormatError);
    EXPECT_EQ(Atom::sizeOfAtomIn(AtomSource(), 0), 0u) << "no source";
}

TEST(Atom, FlatLookupsScanForwardAndRunPastMissingParents) {
    const QByteArray bytes = container("moov", {atom("mvhd", "12345678")}) +
                             container("ilst", {atom("covr", "one"), atom("covr", "two")}) +
                             container("udta", {container("meta", {atom("hdlr", "h")})});
    const AtomSource source(&bytes);
    EXPECT_EQ(Atom::atomDataIn(source, "moov:mvhd").value_or("none"), "12345678");
    EXPECT_EQ(Atom::atomDataIn(source, "ilst:covr", "1:2").value_or("none"), "two");
    // moov has no udta: the scan goes on past moov's end and finds the later one.
    EXPECT_NE(Atom::offsetToAtomIn(source, "moov:udta"), Atom::NotFound);
    EXPECT_EQ(Atom::offsetToAtomIn(source, "moov:trak"), Atom::NotFound);
    const QByteArray tiny(15, 'x');
    EXPECT_EQ(Atom::offsetToAtomIn(AtomSource(&tiny), "moov"), Atom::NotFound);
    EXPECT_FALSE(Atom::atomDataIn(source, "nope").has_value());
}

TEST(Atom, TreesAreLazyAndFlattenBackExactly) {
    TestSupport::TempDir dir;
    Song s;
    s.items = {textItem(QStringLiteral(u"©nam"), "Title")};
    s.freeInMeta = 100;
    const QByteArray bytes = song(s);
    auto file = fileWith(dir, bytes);
    std::unique_ptr<Atom> root = Atom::atomContainerFromFile(file);
    Atom *mdat = root->childAtAtomPath("FILE:mdat");
    ASSERT_TRUE(mdat);
    EXPECT_NE(mdat->fileDataRange().second, 0u) << "leaf payloads stay in the file until asked for";
    EXPECT_EQ(root->flattenedData().mid(8), bytes);
    Atom *title = root->childAtAtomPath(QStringLiteral(u"FILE:moov:udta:meta:ilst:©nam:data"));
    ASSERT_TRUE(title);
    EXPECT_EQ(title->stringValue(), "Title");
    EXPECT_EQ(root->childAtAtomPath(QStringLiteral(u"FILE:moov:udta:meta:ilst:©ART:data")), nullptr);
}

TEST(Atom, MetaVersionAndFlagsAreWrittenAsZero) {
    TestSupport::TempDir dir;
    QByteArray meta = container("meta", {atom("hdlr", "h")});
    meta[11] = 1; // flags on disk
    std::unique_ptr<Atom> root = Atom::atomContainerFromFile(fileWith(dir, container("udta", {meta})));
    Atom *m = root->childAtAtomPath("FILE:udta:meta");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->contents().size(), 1u);
    EXPECT_EQ(m->flattenedData(), container("meta", {atom("hdlr", "h")}));
}

TEST(Atom, MalformedFilesRaise) {
    TestSupport::TempDir dir;
    const QByteArray overrun = container("moov", {atom("mvhd", "x")});
    QByteArray grown = overrun;
    grown.replace(8, 4, be32(100)); // a child claiming more than moov holds
    EXPECT_THROW(Atom::atomContainerFromFile(fileWith(dir, QByteArray("\0\0\0\x06"
                                                                      "moov",
                                                                      8) +
                                                               QByteArray(20, 0))),
                 FormatError);
    EXPECT_NO_THROW(Atom::atomContainerFromFile(fileWith(dir, grown)))
        << "a leaf that overruns is cut at the file's end";
    QByteArray badContainer = container("moov", {container("trak", {atom("tkhd", "x")})});
    badContainer.replace(8, 4, be32(500));
    EXPECT_THROW(Atom::atomContainerFromFile(fileWith(dir, badContainer)), FormatError);
}

TEST_F(AutoSizingOff, EditsBalanceTheNextFreeAtom) {
    auto root = Atom::atomWithName(c("ilst"));
    root->becomeContainer();
    Atom *item = root->appendChild(Atom::atomWithName(c("abcd")));
    Atom *small = root->appendChild(Atom::atomWithName(c("free")));
    small->setData(QByteArray(10, 0));
    Atom *large = root->appendChild(Atom::atomWithName(c("free")));
    large->setData(QByteArray(50, 0));
    Atom::setAutoSizing(true);
    item->setData(QByteArray(10, 'x'));
    EXPECT_EQ(small->size(), 10u) << "a free atom of exactly the amount is passed over";
    EXPECT_EQ(large->size(), 40u);
    item->setData(QByteArray(4, 'x'));
    EXPECT_EQ(small->size(), 16u) << "giving back goes to the first following free atom";
    EXPECT_EQ(root->size(), 8u * 3 + 4 + 16 + 40);
    EXPECT_FALSE(root->setSize(3)) << "a container has no payload to resize";
}

TEST_F(AutoSizingOff, LookupCreatesWhatIsMissing) {
    TestSupport::TempDir dir;
    Song s;
    s.items = {textItem(QStringLiteral(u"©nam"), "T")};
    s.freeInMeta = 200;
    std::unique_ptr<Atom> root = Atom::atomContainerFromFile(fileWith(dir, song(s)));
    Atom *ilst = root->childAtAtomPath("FILE:moov:udta:meta:ilst");
    Atom *free = root->childAtAtomPath("FILE:moov:udta:meta:free");
    ASSERT_TRUE(ilst && free);
    const std::uint64_t metaSize = root->childAtAtomPath("FILE:moov:udta:meta")->size();
    Atom::setAutoSizing(true);
    Atom *artist = ilst->childAtAtomPath(QStringLiteral(u"ilst:©ART:data"), true);
    ASSERT_TRUE(artist);
    EXPECT_EQ(ilst->contents().size(), 2u);
    EXPECT_EQ(ilst->contents().back()->nameString(), QStringLiteral(u"©ART"));
    // The new item and its data header came out of the free atom.
    EXPECT_EQ(root->childAtAtomPath("FILE:moov:udta:meta")->size(), metaSize);
    EXPECT_EQ(free->size(), 200u - 16);
    EXPECT_TRUE(ilst->contents().front()->removeFromContainer());
}

TEST(Atom, FlattenedLeafAndDescriptions) {
    auto leaf = Atom::atomWithName(c("abcd"));
    leaf->setData("12345");
    EXPECT_EQ(leaf->flattenedData(), QByteArray("\0\0\0\x0D"
                                                "abcd12345",
                                                13));
    EXPECT_EQ(leaf->hash(), quint32('2' * 1 + '3' * 2 + '4' * 3 + '5' * 4));
    EXPECT_TRUE(leaf->shortDescription().contains("'abcd': 5 bytes"));
    auto box = Atom::atomWithName(c("moov"));
    box->becomeContainer();
    box->appendChild(std::move(leaf));
    EXPECT_TRUE(box->description().contains("contains 1 item>\n    <Atom"));
}
