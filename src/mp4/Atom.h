#pragma once

#include "common/FileReader.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

// Where the flat lookups read from: a block of bytes in memory or an open file.
class AtomSource {
public:
    AtomSource() = default;
    AtomSource(const QByteArray *bytes)
        : mBytes(bytes) {}
    AtomSource(const FileReader *file)
        : mFile(file) {}

    bool isValid() const { return mBytes || (mFile && mFile->isOpen()); }
    std::uint64_t length() const;
    // Up to length bytes at offset; fewer at the end.
    QByteArray read(std::uint64_t offset, std::uint64_t length) const;
    QString description() const;

private:
    const QByteArray *mBytes = nullptr;
    const FileReader *mFile = nullptr;
};

// One atom (box) of an MP4 file. Flat lookups work straight on bytes or a file; a tree built
// from a file reads leaf payloads only when asked, can be edited, and flattens back to bytes.
// An atom is a container exactly when it has a children list, even an empty one.
class Atom {
public:
    using Code = std::uint32_t;
    static constexpr std::uint64_t NotFound = ~std::uint64_t(0);

    // Four-character codes and their text (the bytes read as Mac Roman, so A9 is "©").
    static Code codeFromString(const QString &name);
    static QString stringFromCode(Code code);

    // Flat lookups. sizeOfAtomIn throws FormatError("bad size atom") on sizes 2 to 7.
    static std::uint64_t sizeOfAtomIn(const AtomSource &source, std::uint64_t offset, Code *name = nullptr);
    static std::uint64_t offsetToAtomIn(const AtomSource &source, const QString &namePath,
                                        const QString &indexPath = QString());
    static std::optional<QByteArray> atomDataIn(const AtomSource &source, const QString &namePath,
                                                const QString &indexPath = QString());
    static QString defaultIndexPath(const QString &namePath);

    // Trees. The file is shared by the lazy leaves, which read from it when asked.
    static std::unique_ptr<Atom> atomContainerFromFile(const std::shared_ptr<FileReader> &file);
    static std::unique_ptr<Atom> atomContainerFromFile(const std::shared_ptr<FileReader> &file,
                                                       std::uint64_t location, std::uint64_t length,
                                                       Code name);
    static bool isRecognizedContainer(Code name);
    static std::unique_ptr<Atom> atomWithName(Code name);
    static bool autoSizing();
    static void setAutoSizing(bool on);

    explicit Atom(Code name);
    ~Atom();
    Atom(const Atom &) = delete;
    Atom &operator=(const Atom &) = delete;

    Code name() const { return _name; }
    void setName(Code name);
    QString nameString() const;

    bool isContainer() const { return mIsContainer; }
    const std::vector<std::unique_ptr<Atom>> &contents() const { return _contents; }
    void becomeContainer();
    Atom *parent() const { return _parent; }
    void setParent(Atom *parent) { _parent = parent; }

    // The payload: nothing for a container; read from the file now for a lazy leaf.
    std::optional<QByteArray> data() const;
    void setData(const QByteArray &data);
    std::uint64_t size() const;
    bool setSize(std::uint64_t size);
    void setFile(const std::shared_ptr<FileReader> &file, std::uint64_t location, std::uint64_t length);
    // Location and length of a lazy leaf's payload in its file; zeros otherwise.
    std::pair<std::uint64_t, std::uint64_t> fileDataRange() const;

    Atom *nextSibling() const;
    // Appends to this node's parent; gives the added node, or nothing without a parent.
    Atom *addSibling(std::unique_ptr<Atom> sibling);
    bool removeFromContainer();
    bool resizeSiblingFreeBy(std::int32_t change);
    // Appends a child (the caller decides whether its parent link is set).
    Atom *appendChild(std::unique_ptr<Atom> child, bool linkParent = true);

    // Lookup by name path starting with this node itself; optionally creates what is missing.
    Atom *childAtAtomPath(const QString &namePath, bool create = false, const QString &indexPath = QString());

    bool setStringValue(const QString &value);
    QString stringValue() const;

    QByteArray flattenedData() const;
    std::uint32_t hash() const;
    QString shortDescription() const;
    QString descriptionWithIndentLevel(int level) const;
    QString description() const { return descriptionWithIndentLevel(0); }

private:
    void appendFlattened(QByteArray &out) const;

    Code _name;
    mutable QString _nameString;
    bool mIsContainer = false;
    std::vector<std::unique_ptr<Atom>> _contents;
    QByteArray mData;
    std::shared_ptr<FileReader> mFile;
    std::uint64_t mFileLocation = 0;
    std::uint64_t mFileLength = 0;
    Atom *_parent = nullptr;
};
