#pragma once

#include <QByteArray>

// gzip streams in memory. Bytes that are no gzip stream come back from decompressedData as they
// were, as a gzip reader passes plain data through.
QByteArray compressedData(const QByteArray &data);
QByteArray decompressedData(const QByteArray &data);
