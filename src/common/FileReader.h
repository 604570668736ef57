#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

// Read-only access to a file by offset, with plain POSIX calls: tag reading opens many files
// and only needs a few small reads from each, so it stays away from buffered streams.
class FileReader {
public:
    explicit FileReader(const QString &path);
    ~FileReader();
    FileReader(const FileReader &) = delete;
    FileReader &operator=(const FileReader &) = delete;

    bool isOpen() const { return mFd >= 0; }
    // How many files have been opened through this class in the process (a figure for tests).
    static int openedCount();
    std::int64_t size() const { return mSize; }
    // Up to length bytes from offset; fewer at the end of the file, empty on error.
    QByteArray readAt(std::int64_t offset, std::int64_t length) const;
    // Reads into the caller's buffer; gives the number of bytes read (fewer at the end of the file).
    std::int64_t readInto(std::int64_t offset, char *buffer, std::int64_t length) const;

private:
    int mFd = -1;
    std::int64_t mSize = 0;
    // Small reads (atom and frame headers) are served from one read-ahead window.
    mutable QByteArray mWindow;
    mutable std::int64_t mWindowStart = -1;
};
