#include "SafeSave.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace SafeSave {

namespace {

class Fd {
public:
    explicit Fd(int fd = -1)
        : mFd(fd) {}
    ~Fd() {
        if (mFd >= 0) ::close(mFd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return mFd; }
    int release() {
        const int fd = mFd;
        mFd = -1;
        return fd;
    }

private:
    int mFd;
};

bool fail(QString *error, const QString &what, int err) {
    if (error) *error = QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(err)));
    return false;
}

bool writeAll(int fd, const char *data, std::int64_t length) {
    while (length > 0) {
        const ssize_t n = ::write(fd, data, size_t(length));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= n;
    }
    return true;
}

// Copies a byte range between files, in the kernel where it can.
bool copyRange(int from, std::int64_t offset, std::int64_t length, int to) {
#ifdef __linux__
    loff_t in = offset;
    while (length > 0) {
        const ssize_t n =
            ::copy_file_range(from, &in, to, nullptr, size_t(std::min<std::int64_t>(length, 1 << 30)), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break; // not supported here, or the source ended: finish the plain way
        length -= n;
    }
    offset = in;
#endif
    std::vector<char> buffer(1 << 20);
    while (length > 0) {
        const ssize_t n =
            ::pread(from, buffer.data(), size_t(std::min<std::int64_t>(length, std::int64_t(buffer.size()))),
                    off_t(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false; // the file is shorter than it was when its tags were read
        if (!writeAll(to, buffer.data(), n)) return false;
        offset += n;
        length -= n;
    }
    return true;
}

QString resolvedPath(const QString &path) {
    char resolved[PATH_MAX];
    if (::realpath(path.toLocal8Bit().constData(), resolved)) return QString::fromLocal8Bit(resolved);
    return path;
}

} // namespace

bool replace(const QString &givenPath, const QByteArray &head, std::int64_t copyOffset,
             std::int64_t copyLength, const QByteArray &tail, QString *error) {
    const QString path = resolvedPath(givenPath);
    const QByteArray nativePath = path.toLocal8Bit();
    Fd original(::open(nativePath.constData(), O_RDONLY | O_CLOEXEC));
    if (original.get() < 0) return fail(error, QStringLiteral("cannot open %1").arg(path), errno);
    struct stat before;
    if (::fstat(original.get(), &before) != 0)
        return fail(error, QStringLiteral("cannot examine %1").arg(path), errno);
    if (!S_ISREG(before.st_mode))
        return fail(error, QStringLiteral("%1 is not a regular file").arg(path), EINVAL);
    if (copyOffset < 0 || copyLength < 0 || copyOffset + copyLength > before.st_size)
        return fail(error, QStringLiteral("%1 changed size").arg(path), EINVAL);
    // A file the user may not write is not replaced, even where the folder would allow it.
    if (::access(nativePath.constData(), W_OK) != 0)
        return fail(error, QStringLiteral("%1 is not writable").arg(path), errno);

    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const QString folder =
        slash > 0 ? path.left(slash) : (slash == 0 ? QStringLiteral("/") : QStringLiteral("."));
    const QString name = path.mid(slash + 1);
    QByteArray temp = (folder + QStringLiteral("/.") + name + QStringLiteral(".qw-XXXXXX")).toLocal8Bit();
    Fd out(::mkostemp(temp.data(), O_CLOEXEC));
    if (out.get() < 0) return fail(error, QStringLiteral("cannot create a file in %1").arg(folder), errno);

    auto abandon = [&](const QString &what, int err) {
        ::unlink(temp.constData());
        return fail(error, what, err);
    };
    if (!writeAll(out.get(), head.constData(), head.size()) ||
        !copyRange(original.get(), copyOffset, copyLength, out.get()) ||
        !writeAll(out.get(), tail.constData(), tail.size()))
        return abandon(QStringLiteral("cannot write the new file"), errno ? errno : EIO);
    if (::fchmod(out.get(), before.st_mode & 07777) != 0)
        return abandon(QStringLiteral("cannot set permissions"), errno);
    if (::fchown(out.get(), before.st_uid, before.st_gid) != 0 && errno != EPERM)
        return abandon(QStringLiteral("cannot set the owner"), errno);
    if (::fsync(out.get()) != 0) return abandon(QStringLiteral("cannot flush the new file"), errno);
    if (::close(out.release()) != 0) return abandon(QStringLiteral("cannot close the new file"), errno);

    // Someone else changed the file meanwhile: their change wins, ours is dropped.
    struct stat now;
    if (::stat(nativePath.constData(), &now) != 0 || now.st_ino != before.st_ino ||
        now.st_dev != before.st_dev || now.st_size != before.st_size ||
        now.st_mtim.tv_sec != before.st_mtim.tv_sec || now.st_mtim.tv_nsec != before.st_mtim.tv_nsec)
        return abandon(QStringLiteral("%1 changed while it was being saved").arg(path), EAGAIN);

    if (::rename(temp.constData(), nativePath.constData()) != 0)
        return abandon(QStringLiteral("cannot replace %1").arg(path), errno);
    Fd dir(::open(folder.toLocal8Bit().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) ::fsync(dir.get());
    return true;
}

} // namespace SafeSave
