#include "TestSupport.h"

#include <QFile>

#include <QProcess>
#include <QStandardPaths>
#include <map>

#include <memory>

namespace TestSupport {

QString sourceDir() {
    return QStringLiteral(QW_SOURCE_DIR);
}
QString cliPath() {
    return QStringLiteral(QW_CLI_PATH);
}

TempDir::TempDir()
    : mDir(QDir::tempPath() + QStringLiteral("/qwtest-XXXXXX")) {}

QString TempDir::write(const QString &name, const QByteArray &bytes) const {
    const QString path = file(name);
    QFile f(path);
    if (f.open(QIODevice::WriteOnly)) f.write(bytes);
    return path;
}

QByteArray readAll(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QByteArray be32(quint32 n) {
    QByteArray b(4, '\0');
    b[0] = char(n >> 24);
    b[1] = char(n >> 16);
    b[2] = char(n >> 8);
    b[3] = char(n);
    return b;
}

QByteArray synchsafe(quint32 n) {
    QByteArray b(4, '\0');
    b[0] = char((n >> 21) & 0x7F);
    b[1] = char((n >> 14) & 0x7F);
    b[2] = char((n >> 7) & 0x7F);
    b[3] = char(n & 0x7F);
    return b;
}

QByteArray frame23(const char *id, const QByteArray &content, bool synchsafeSize, quint8 flags2) {
    QByteArray f(id, 4);
    f += synchsafeSize ? synchsafe(quint32(content.size())) : be32(quint32(content.size()));
    f += char(0);
    f += char(flags2);
    f += content;
    return f;
}

QByteArray textFrame23(const char *id, const QByteArray &text, quint8 encoding) {
    return frame23(id, QByteArray(1, char(encoding)) + text);
}

QByteArray frame22(const char *id, const QByteArray &content) {
    QByteArray f(id, 3);
    const quint32 n = quint32(content.size());
    f += char(n >> 16);
    f += char(n >> 8);
    f += char(n);
    f += content;
    return f;
}

QByteArray id3v2Tag(int majorVersion, const QByteArray &body, int padding, quint8 flags) {
    QByteArray tag("ID3");
    tag += char(majorVersion);
    tag += char(0);
    tag += char(flags);
    tag += synchsafe(quint32(body.size() + padding));
    tag += body;
    tag += QByteArray(padding, '\0');
    return tag;
}

QByteArray id3v1Tag(const QByteArray &title, const QByteArray &artist, const QByteArray &album,
                    const QByteArray &year, int track, int genre, const QByteArray &comment) {
    QByteArray t(128, '\0');
    t.replace(0, 3, "TAG");
    auto put = [&t](int offset, const QByteArray &v, int max) {
        for (int i = 0; i < std::min<int>(max, int(v.size())); ++i)
            t[offset + i] = v[i];
    };
    put(3, title, 30);
    put(33, artist, 30);
    put(63, album, 30);
    put(93, year, 4);
    put(97, comment, track >= 0 ? 28 : 30);
    if (track >= 0) t[126] = char(track);
    t[127] = char(genre);
    return t;
}

QByteArray mpegAudio(int frames) {
    // 128 kbit/s at 44.1 kHz: 417-byte frames without padding.
    QByteArray frame(417, '\0');
    frame[0] = char(0xFF);
    frame[1] = char(0xFB);
    frame[2] = char(0x90);
    frame[3] = char(0x64);
    QByteArray audio;
    audio.reserve(417 * frames);
    for (int i = 0; i < frames; ++i)
        audio += frame;
    return audio;
}

bool haveTool(const QString &program) {
    return !QStandardPaths::findExecutable(program).isEmpty();
}

int run(const QString &program, const QStringList &args, QByteArray *output, QByteArray *errors) {
    QProcess p;
    p.start(program, args);
    if (!p.waitForStarted(10000)) return -1;
    p.closeWriteChannel();
    p.waitForFinished(300000);
    if (output) *output = p.readAllStandardOutput();
    if (errors) *errors = p.readAllStandardError();
    return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
}

QString systemPython() {
    return QStringLiteral("/usr/bin/python3");
}

QString toolFixtureDir(const QString &kind, QString *problem) {
    const QString shared = qEnvironmentVariable("QW_FIXTURES");
    if (!shared.isEmpty() &&
        QFile::exists(shared + QLatin1Char('/') + kind + QStringLiteral("/manifest.json")))
        return shared + QLatin1Char('/') + kind;
    // Made once for the whole process, whichever test asks first.
    static std::map<QString, std::unique_ptr<TempDir>> made;
    static std::map<QString, QString> why;
    if (!made.count(kind) && why[kind].isEmpty()) {
        auto dir = std::make_unique<TempDir>();
        QByteArray out, err;
        const QString name = QStringLiteral("make_%1_fixtures.py").arg(kind);
        if (run(systemPython(), {sourceDir() + QStringLiteral("/tests/tools/") + name, dir->path()}, &out,
                &err) != 0)
            why[kind] = name + QStringLiteral(" failed: ") + QString::fromUtf8(err + out).right(600);
        else if (!QFile::exists(dir->file(QStringLiteral("manifest.json"))))
            why[kind] = name + QStringLiteral(" wrote no manifest.json");
        else
            made[kind] = std::move(dir);
    }
    if (problem) *problem = why[kind];
    return made.count(kind) ? made[kind]->path() : QString();
}

QString mp3FixtureDir(QString *problem) {
    return toolFixtureDir(QStringLiteral("mp3"), problem);
}

QByteArray expectedPictureBytes(const QJsonObject &mutagenPicture) {
    const QByteArray data =
        QByteArray::fromHex(mutagenPicture.value(QStringLiteral("data")).toString().toLatin1());
    if (mutagenPicture.value(QStringLiteral("encoding")).toInt() != 2) return data;
    const QString desc = mutagenPicture.value(QStringLiteral("desc")).toString();
    if (desc.isEmpty()) return QByteArray(1, '\0') + data; // the second byte of the UTF-16 terminator
    if (desc[0].unicode() >= 0x100) return data;
    QByteArray utf16be;
    for (QChar c : desc) {
        utf16be += char(c.unicode() >> 8);
        utf16be += char(c.unicode() & 0xFF);
    }
    return utf16be.mid(1) + QByteArray(2, '\0') + data; // the unseen description stays in front
}

bool carriesPaddingZeros(const QByteArray &ours, const QByteArray &expected) {
    return ours.size() > expected.size() && ours.startsWith(expected) &&
           ours.mid(expected.size()).count('\0') == ours.size() - expected.size();
}

} // namespace TestSupport
