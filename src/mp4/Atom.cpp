#include "Atom.h"

#include "common/FormatError.h"
#include "common/Log.h"

#include <QFile>
#include <QHash>
#include <QStringList>

#include <atomic>

namespace {

// Mac Roman, bytes 0x80 to 0xFF.
const char16_t kMacRoman[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5,
    0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3, 0x00F2, 0x00F4,
    0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6,
    0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8, 0x221E, 0x00B1, 0x2264, 0x2265,
    0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF,
    0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB, 0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5,
    0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044,
    0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02, 0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9,
    0x0131, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7};

unsigned char macRomanByte(QChar c) {
    const char16_t u = c.unicode();
    if (u < 0x80) return static_cast<unsigned char>(u);
    for (int i = 0; i < 128; ++i) {
        if (kMacRoman[i] == u) return static_cast<unsigned char>(0x80 + i);
    }
    return '?';
}

std::atomic<bool> sAutoSizing{false};

inline std::uint32_t be32(const QByteArray &b, qsizetype i) {
    const auto *p = reinterpret_cast<const unsigned char *>(b.constData()) + i;
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

void appendBE32(QByteArray &out, std::uint32_t v) {
    out += char(v >> 24);
    out += char(v >> 16);
    out += char(v >> 8);
    out += char(v);
}

struct SplitPaths {
    std::vector<Atom::Code> names;
    std::vector<int> indexes;
};

SplitPaths parsePaths(const QString &namePath, const QString &indexPath) {
    SplitPaths s;
    const QStringList names = namePath.split(QLatin1Char(':'));
    const QStringList indexes =
        (indexPath.isEmpty() ? Atom::defaultIndexPath(namePath) : indexPath).split(QLatin1Char(':'));
    for (qsizetype i = 0; i < names.size(); ++i) {
        s.names.push_back(Atom::codeFromString(names[i]));
        s.indexes.push_back(i < indexes.size() ? indexes[i].toInt() : 1);
    }
    return s;
}

// The same few paths are looked up for every file: parse each once per thread.
const SplitPaths &splitPaths(const QString &namePath, const QString &indexPath) {
    thread_local QHash<QString, SplitPaths> parsed;
    const QString key = namePath + QLatin1Char('|') + indexPath;
    auto it = parsed.constFind(key);
    if (it == parsed.constEnd()) {
        if (parsed.size() > 256) parsed.clear();
        it = parsed.insert(key, parsePaths(namePath, indexPath));
    }
    return it.value();
}

// The container list, read once from the program's resources: packed big-endian codes.
const std::vector<Atom::Code> &containerCodes() {
    static const std::vector<Atom::Code> codes = [] {
        std::vector<Atom::Code> list;
        QFile file(QStringLiteral(":/atomcontainers.dat"));
        if (file.open(QIODevice::ReadOnly)) {
            const QByteArray bytes = file.readAll();
            for (qsizetype i = 0; i + 4 <= bytes.size(); i += 4)
                list.push_back(be32(bytes, i));
        }
        return list;
    }();
    return codes;
}

constexpr Atom::Code kMeta = 0x6D657461; // 'meta'
constexpr Atom::Code kFree = 0x66726565; // 'free'
constexpr Atom::Code kFile = 0x46494C45; // 'FILE'

} // namespace

std::uint64_t AtomSource::length() const {
    if (mBytes) return std::uint64_t(mBytes->size());
    if (mFile) return std::uint64_t(mFile->size());
    return 0;
}

QByteArray AtomSource::read(std::uint64_t offset, std::uint64_t length) const {
    if (mBytes) {
        if (offset >= std::uint64_t(mBytes->size())) return {};
        return mBytes->mid(qsizetype(offset),
                           qsizetype(std::min<std::uint64_t>(length, mBytes->size() - offset)));
    }
    if (mFile) return mFile->readAt(std::int64_t(offset), std::int64_t(length));
    return {};
}

QString AtomSource::description() const {
    if (mBytes) return QStringLiteral("<%1 bytes>").arg(mBytes->size());
    return QStringLiteral("<file of %1 bytes>").arg(length());
}

Atom::Code Atom::codeFromString(const QString &name) {
    Code code = 0;
    for (int i = 0; i < 4; ++i)
        code = code << 8 | (i < name.size() ? macRomanByte(name[i]) : 0);
    return code;
}

QString Atom::stringFromCode(Code code) {
    QString s;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned char b = static_cast<unsigned char>(code >> shift);
        if (b == 0) break; // a C string ends at its first zero byte
        s += b < 0x80 ? QChar(char16_t(b)) : QChar(kMacRoman[b - 0x80]);
    }
    return s;
}

QString Atom::defaultIndexPath(const QString &namePath) {
    const qsizetype levels = namePath.count(QLatin1Char(':')) + 1;
    QString path = QStringLiteral("1");
    for (qsizetype i = 1; i < levels; ++i)
        path += QStringLiteral(":1");
    return path;
}

std::uint64_t Atom::sizeOfAtomIn(const AtomSource &source, std::uint64_t offset, Code *name) {
    if (!source.isValid()) return 0;
    const QByteArray header = source.read(offset, 16);
    if (header.size() < 8) {
        Log::console(QStringLiteral("invalid size %1 for atom '%2' in %3")
                         .arg(0)
                         .arg(QString(), source.description()));
        throw FormatError("bad size atom");
    }
    const std::uint32_t size = be32(header, 0);
    const Code code = be32(header, 4);
    if (name) *name = code;
    const std::uint64_t length = source.length();
    if (size == 1 && offset < length - 8 && header.size() >= 16) {
        const std::uint64_t extended = std::uint64_t(be32(header, 8)) << 32 | be32(header, 12);
        // An extended size smaller than its own 16-byte header is as impossible as 2 to 7.
        if (extended >= 16) return extended;
        Log::console(QStringLiteral("invalid size %1 for atom '%2' in %3")
                         .arg(extended)
                         .arg(stringFromCode(code), source.description()));
        throw FormatError("bad size atom");
    }
    if (size >= 8) return size;
    if (size == 0) return length - offset;
    Log::console(QStringLiteral("invalid size %1 for atom '%2' in %3")
                     .arg(size)
                     .arg(stringFromCode(code), source.description()));
    throw FormatError("bad size atom");
}

std::uint64_t Atom::offsetToAtomIn(const AtomSource &source, const QString &namePath,
                                   const QString &indexPath) {
    if (!source.isValid() || source.length() < 8) return NotFound;
    const SplitPaths paths = splitPaths(namePath, indexPath); // a copy: the cache may be trimmed meanwhile
    const std::uint64_t limit = source.length() - 8;
    std::uint64_t offset = 0;
    size_t level = 0;
    int matches = 0;
    while (offset < limit) {
        Code code = 0;
        const std::uint64_t size = sizeOfAtomIn(source, offset, &code);
        if (code == paths.names[level] && ++matches == paths.indexes[level]) {
            if (level + 1 == paths.names.size()) return offset;
            ++level;
            matches = 0;
            offset += 8; // into the atom; a 'meta' atom's version and flags are not skipped
            continue;
        }
        if (size == 0 || size >= limit - offset) break; // the atom runs to the end (or claims more)
        offset += size;
    }
    return NotFound;
}

std::optional<QByteArray> Atom::atomDataIn(const AtomSource &source, const QString &namePath,
                                           const QString &indexPath) {
    const std::uint64_t offset = offsetToAtomIn(source, namePath, indexPath);
    if (offset == NotFound) return std::nullopt;
    const std::uint64_t size = sizeOfAtomIn(source, offset);
    if (size == 0) return std::nullopt;
    if (size < 8) return QByteArray();
    return source.read(offset + 8, size - 8);
}

std::unique_ptr<Atom> Atom::atomContainerFromFile(const std::shared_ptr<FileReader> &file) {
    return atomContainerFromFile(file, 0, std::uint64_t(file->size()), kFile);
}

std::unique_ptr<Atom> Atom::atomContainerFromFile(const std::shared_ptr<FileReader> &file,
                                                  std::uint64_t location, std::uint64_t length, Code name) {
    auto container = std::make_unique<Atom>(name);
    container->becomeContainer();
    const AtomSource source(file.get());
    const std::uint64_t end = location + length;
    std::uint64_t position = location;
    while (position < end) {
        Code code = 0;
        const std::uint64_t size = sizeOfAtomIn(source, position, &code);
        std::unique_ptr<Atom> child;
        if (isRecognizedContainer(code)) {
            const std::uint64_t header = code == kMeta ? 12 : 8;
            if (position + size > end || size < header) throw FormatError("bad size atom");
            child = atomContainerFromFile(file, position + header, size - header, code);
        } else {
            child = std::make_unique<Atom>(code);
            child->setFile(file, position + 8, size >= 8 ? size - 8 : 0);
        }
        container->appendChild(std::move(child));
        if (size == 0 || size >= end - position)
            break; // the atom runs to the end of the range (or claims more)
        position += size;
    }
    return container;
}

bool Atom::isRecognizedContainer(Code name) {
    const std::vector<Code> &codes = containerCodes();
    return std::find(codes.begin(), codes.end(), name) != codes.end();
}

std::unique_ptr<Atom> Atom::atomWithName(Code name) {
    return std::make_unique<Atom>(name);
}

bool Atom::autoSizing() {
    return sAutoSizing.load();
}
void Atom::setAutoSizing(bool on) {
    sAutoSizing.store(on);
}

Atom::Atom(Code name)
    : _name(name) {}
Atom::~Atom() = default;

void Atom::setName(Code name) {
    _name = name;
    _nameString.clear();
}

QString Atom::nameString() const {
    if (_nameString.isEmpty()) _nameString = stringFromCode(_name);
    return _nameString;
}

void Atom::becomeContainer() {
    mData.clear();
    mFile.reset();
    mFileLocation = mFileLength = 0;
    mIsContainer = true;
}

std::optional<QByteArray> Atom::data() const {
    if (mIsContainer) return std::nullopt;
    if (mFile) return mFile->readAt(std::int64_t(mFileLocation), std::int64_t(mFileLength));
    return mData;
}

void Atom::setData(const QByteArray &data) {
    const std::uint64_t oldSize = size();
    _contents.clear();
    mIsContainer = false;
    mFile.reset();
    mFileLocation = mFileLength = 0;
    mData = data;
    if (autoSizing() && oldSize != size())
        resizeSiblingFreeBy(std::int32_t(std::int64_t(oldSize) - std::int64_t(size())));
}

std::uint64_t Atom::size() const {
    if (mIsContainer) {
        std::uint64_t total = 0;
        for (const auto &child : _contents)
            total += 8 + child->size();
        return total;
    }
    return mFile ? mFileLength : std::uint64_t(mData.size());
}

bool Atom::setSize(std::uint64_t newSize) {
    if (mIsContainer) return false;
    QByteArray bytes = data().value_or(QByteArray());
    if (newSize <= std::uint64_t(bytes.size())) {
        bytes.truncate(qsizetype(newSize));
    } else {
        try {
            bytes.append(QByteArray(qsizetype(newSize - bytes.size()), '\0'));
        } catch (const std::bad_alloc &) {
            return false;
        }
    }
    setData(bytes);
    return true;
}

void Atom::setFile(const std::shared_ptr<FileReader> &file, std::uint64_t location, std::uint64_t length) {
    const std::uint64_t fileLength = file ? std::uint64_t(file->size()) : 0;
    if (location + length > fileLength) {
        Log::console(QStringLiteral("Atom (%1) will trunc setFile:withRange: %2 + %3 (%4) > %5")
                         .arg(nameString())
                         .arg(location)
                         .arg(length)
                         .arg(location + length)
                         .arg(fileLength));
        length = location < fileLength ? fileLength - location : 0;
    }
    _contents.clear();
    mIsContainer = false;
    mData.clear();
    mFile = file;
    mFileLocation = location;
    mFileLength = length;
}

std::pair<std::uint64_t, std::uint64_t> Atom::fileDataRange() const {
    return mFile ? std::make_pair(mFileLocation, mFileLength)
                 : std::make_pair(std::uint64_t(0), std::uint64_t(0));
}

Atom *Atom::nextSibling() const {
    if (!_parent) return nullptr;
    const auto &siblings = _parent->_contents;
    for (size_t i = 0; i < siblings.size(); ++i) {
        if (siblings[i].get() == this) return i + 1 < siblings.size() ? siblings[i + 1].get() : nullptr;
    }
    return nullptr;
}

Atom *Atom::appendChild(std::unique_ptr<Atom> child, bool linkParent) {
    if (!mIsContainer) becomeContainer();
    if (linkParent) child->_parent = this;
    _contents.push_back(std::move(child));
    return _contents.back().get();
}

Atom *Atom::addSibling(std::unique_ptr<Atom> sibling) {
    if (!_parent) return nullptr;
    Atom *added = _parent->appendChild(std::move(sibling));
    if (autoSizing()) added->resizeSiblingFreeBy(std::int32_t(-8 - std::int64_t(added->size())));
    return added;
}

bool Atom::removeFromContainer() {
    if (!_parent) return false;
    auto &siblings = _parent->_contents;
    const auto it =
        std::find_if(siblings.begin(), siblings.end(), [this](const auto &a) { return a.get() == this; });
    if (it == siblings.end()) return false;
    if (autoSizing()) resizeSiblingFreeBy(std::int32_t(size() + 8));
    siblings.erase(it); // destroys this node
    return true;
}

bool Atom::resizeSiblingFreeBy(std::int32_t change) {
    for (Atom *sibling = nextSibling(); sibling; sibling = sibling->nextSibling()) {
        if (sibling->_name != kFree) continue;
        if (change < 0 && !(std::int64_t(sibling->size()) > -std::int64_t(change))) continue;
        const bool previous = autoSizing();
        setAutoSizing(false);
        sibling->setSize(std::uint64_t(std::int64_t(sibling->size()) + change));
        setAutoSizing(previous);
        return true;
    }
    return _parent ? _parent->resizeSiblingFreeBy(change) : false;
}

Atom *Atom::childAtAtomPath(const QString &namePath, bool create, const QString &indexPath) {
    const SplitPaths paths = splitPaths(namePath, indexPath); // a copy: the cache may be trimmed meanwhile
    const size_t levels = paths.names.size();
    Atom *current = this;
    Atom *lastExamined = nullptr;
    size_t level = 0;
    int matches = 0;
    auto makeNode = [&](size_t atLevel) {
        auto node = atomWithName(paths.names[atLevel]);
        if (atLevel + 1 < levels) node->becomeContainer();
        return node;
    };
    while (current) {
        lastExamined = current;
        if (current->_name == paths.names[level] && ++matches == paths.indexes[level]) {
            if (level + 1 == levels) return current;
            ++level;
            matches = 0;
            if (current->mIsContainer) {
                if (current->_contents.empty() && create) {
                    // Deliberately appended without a parent link.
                    current->appendChild(makeNode(level), false);
                    current->resizeSiblingFreeBy(-8);
                }
                current = current->_contents.empty() ? nullptr : current->_contents.front().get();
            } else {
                current = nullptr;
            }
        } else {
            current = current->nextSibling();
        }
        if (!current && create && lastExamined) {
            current = lastExamined->addSibling(makeNode(level));
            if (!current) return nullptr; // nothing to attach it to
        }
    }
    return nullptr;
}

bool Atom::setStringValue(const QString &value) {
    QByteArray payload("\0\0\0\x01\0\0\0\0", 8);
    payload += value.toUtf8();
    setData(payload);
    return true;
}

QString Atom::stringValue() const {
    if (size() < 9) return {};
    const QByteArray bytes = data().value_or(QByteArray());
    return QString::fromUtf8(bytes.constData() + 8, bytes.size() - 8);
}

void Atom::appendFlattened(QByteArray &out) const {
    const qsizetype headerAt = out.size();
    out += QByteArray(8, '\0');
    if (mIsContainer) {
        if (_name == kMeta) out += QByteArray(4, '\0'); // version and flags, always written as zero
        for (const auto &child : _contents)
            child->appendFlattened(out);
    } else if (mFile) {
        const qsizetype at = out.size();
        out.resize(at + qsizetype(mFileLength));
        const std::int64_t n =
            mFile->readInto(std::int64_t(mFileLocation), out.data() + at, std::int64_t(mFileLength));
        out.resize(at + qsizetype(n));
    } else {
        out += mData;
    }
    const std::uint64_t total = std::uint64_t(out.size() - headerAt);
    if (total <= 0xFFFFFFFFu) {
        QByteArray header;
        appendBE32(header, std::uint32_t(total));
        appendBE32(header, _name);
        out.replace(headerAt, 8, header);
    } else {
        QByteArray header;
        appendBE32(header, 1);
        appendBE32(header, _name);
        appendBE32(header, std::uint32_t((total + 8) >> 32));
        appendBE32(header, std::uint32_t(total + 8));
        out.replace(headerAt, 8, header);
    }
}

QByteArray Atom::flattenedData() const {
    QByteArray out;
    out.reserve(qsizetype(size() + 16));
    appendFlattened(out);
    return out;
}

std::uint32_t Atom::hash() const {
    const QByteArray bytes = data().value_or(QByteArray());
    std::uint32_t sum = 0;
    for (qsizetype i = 0; i < bytes.size(); ++i)
        sum += std::uint32_t(static_cast<unsigned char>(bytes[i])) * std::uint32_t(i);
    return sum;
}

QString Atom::shortDescription() const {
    const QString identity = QStringLiteral("0x%1").arg(quintptr(this), 0, 16);
    if (mIsContainer)
        return QStringLiteral("<Atom %1 '%2': contains %3 %4>")
            .arg(identity, nameString())
            .arg(_contents.size())
            .arg(_contents.size() == 1 ? QStringLiteral("item") : QStringLiteral("items"));
    return QStringLiteral("<Atom %1 '%2': %3 bytes (%4 hash)>")
        .arg(identity, nameString())
        .arg(size())
        .arg(hash());
}

QString Atom::descriptionWithIndentLevel(int level) const {
    QString text = QString(level * 4, QLatin1Char(' ')) + shortDescription();
    for (const auto &child : _contents)
        text += QLatin1Char('\n') + child->descriptionWithIndentLevel(level + 1);
    return text;
}
