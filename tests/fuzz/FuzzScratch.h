#pragma once
// The fuzz targets read their input as a file on disk, as the program reads songs.

#include "common/Log.h"

#include <QDir>
#include <QFile>

#include <cstddef>
#include <cstdint>
#include <unistd.h>

// Writes the input to this process's scratch file (suffix .mp3, .m4a…); gives its path, or an
// empty string when it cannot be written.
inline QString writeScratchFile(const uint8_t *data, size_t size, const char *suffix) {
    const QString path =
        QDir::tempPath() + QStringLiteral("/qw-fuzz-%1%2").arg(::getpid()).arg(QLatin1String(suffix));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return {};
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    return path;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    Log::setConsoleEnabled(false);
    return 0;
}
