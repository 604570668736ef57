#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <initializer_list>

// Helpers shared by the tests: temporary folders, byte-built tags and audio, outside tools.
namespace TestSupport {

QString sourceDir();
QString cliPath();

class TempDir {
public:
    TempDir();
    QString path() const { return mDir.path(); }
    QString file(const QString &name) const { return mDir.filePath(name); }
    // Writes the bytes to name inside the folder and gives the full path.
    QString write(const QString &name, const QByteArray &bytes) const;

private:
    QTemporaryDir mDir;
};

QByteArray readAll(const QString &path);

QByteArray be32(quint32 n);
QByteArray synchsafe(quint32 n);

// One ID3v2.3/2.4 frame: ID, 4 size bytes (plain or synchsafe), 2 flag bytes, content.
QByteArray frame23(const char *id, const QByteArray &content, bool synchsafeSize = false, quint8 flags2 = 0);
// A text frame with encoding byte and content bytes as given.
QByteArray textFrame23(const char *id, const QByteArray &text, quint8 encoding = 0);
// One ID3v2.2 frame: 3-character ID, 3-byte size, content.
QByteArray frame22(const char *id, const QByteArray &content);
// A whole ID3v2 tag: header with version, flags and synchsafe size, then body and padding.
QByteArray id3v2Tag(int majorVersion, const QByteArray &body, int padding = 0, quint8 flags = 0);
// A 128-byte ID3v1 tag.
QByteArray id3v1Tag(const QByteArray &title, const QByteArray &artist, const QByteArray &album,
                    const QByteArray &year, int track, int genre, const QByteArray &comment = {});
// Bytes that look like MPEG-1 Layer III audio at 128 kbit/s, 44.1 kHz: whole frames with
// headers, enough for content sniffing to take them as MP3.
QByteArray mpegAudio(int frames = 64);

bool haveTool(const QString &program);
// Runs a program; gives its exit code (-1 when it could not start) and standard output.
int run(const QString &program, const QStringList &args, QByteArray *output = nullptr,
        QByteArray *errors = nullptr);
// Debian's Python (with its mutagen module), not whatever python3 comes first on PATH.
QString systemPython();

// The folder of a tool-made fixture set, kind "mp3" or "mp4" (tests/tools/make_KIND_fixtures.py,
// with its manifest.json). CTest makes the sets once per run below the folder QW_FIXTURES names;
// when that holds no manifest.json for the kind, the set is made into a temporary folder once per
// process. Tests only read it: whatever writes works on copies. Empty, with the reason in
// *problem, when it cannot be made.
QString toolFixtureDir(const QString &kind, QString *problem);
QString mp3FixtureDir(QString *problem);

// Our reader's rules for pictures, applied to a picture as the mutagen scripts in tests/tools give
// it ({"data": hex, "encoding", "desc"}). With text encoding 2 (UTF-16BE) a description is only
// seen when its first byte is non-zero: an empty one ("00 00") leaves one zero byte in front of the
// picture, and one whose first character is below U+0100 stays in front from its second byte on,
// with its terminator.
QByteArray expectedPictureBytes(const QJsonObject &mutagenPicture);
// In a 2.4 tag, a frame followed by padding where both the synchsafe and the plain reading of its
// size are plausible is sized by the plain reading, so a picture there carries zero bytes of the
// padding: whether ours is expected followed by one or more zero bytes and nothing else.
bool carriesPaddingZeros(const QByteArray &ours, const QByteArray &expected);

} // namespace TestSupport
