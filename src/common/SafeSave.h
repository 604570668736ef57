#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

// Rewrites a file without ever leaving it half-written: the new content goes into a hidden
// file beside the old one, is flushed to disk, takes over the old file's permissions (and
// owner and group where the process may set them), and is then renamed over it. On any
// failure the original stays byte-for-byte as it was.
namespace SafeSave {
// The new file is head, then copyLength bytes of the current file from copyOffset, then tail.
// A symbolic link is followed: its target is replaced, the link stays.
bool replace(const QString &path, const QByteArray &head, std::int64_t copyOffset, std::int64_t copyLength,
             const QByteArray &tail, QString *error);
} // namespace SafeSave
