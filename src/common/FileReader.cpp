#include "FileReader.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
std::atomic<int> sOpened{0};
}

int FileReader::openedCount() {
    return sOpened.load(std::memory_order_relaxed);
}

FileReader::FileReader(const QString &path) {
    const QByteArray native = path.toLocal8Bit();
    do {
        mFd = ::open(native.constData(), O_RDONLY | O_CLOEXEC);
    } while (mFd < 0 && errno == EINTR);
    if (mFd < 0) return;
    struct stat st;
    if (::fstat(mFd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(mFd);
        mFd = -1;
        return;
    }
    mSize = st.st_size;
    sOpened.fetch_add(1, std::memory_order_relaxed);
}

FileReader::~FileReader() {
    if (mFd >= 0) ::close(mFd);
}

QByteArray FileReader::readAt(std::int64_t offset, std::int64_t length) const {
    if (mFd < 0 || offset < 0 || length <= 0 || offset >= mSize) return {};
    if (length > mSize - offset) length = mSize - offset;
    QByteArray data(qsizetype(length), Qt::Uninitialized);
    data.truncate(qsizetype(readInto(offset, data.data(), length)));
    return data;
}

std::int64_t FileReader::readInto(std::int64_t offset, char *buffer, std::int64_t length) const {
    if (mFd < 0 || offset < 0 || length <= 0) return 0;
    constexpr std::int64_t small = 64, window = 16384;
    if (length <= small) {
        if (mWindowStart < 0 || offset < mWindowStart || offset + length > mWindowStart + mWindow.size()) {
            mWindow.resize(window);
            std::int64_t got = 0;
            while (got < window) {
                const ssize_t n =
                    ::pread(mFd, mWindow.data() + got, size_t(window - got), off_t(offset + got));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                got += n;
            }
            mWindow.truncate(qsizetype(got));
            mWindowStart = offset;
        }
        const std::int64_t available = std::min<std::int64_t>(length, mWindowStart + mWindow.size() - offset);
        if (available <= 0) return 0;
        std::memcpy(buffer, mWindow.constData() + (offset - mWindowStart), size_t(available));
        return available;
    }
    std::int64_t done = 0;
    while (done < length) {
        const ssize_t n = ::pread(mFd, buffer + done, size_t(length - done), off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += n;
    }
    return done;
}
