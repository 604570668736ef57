#include "FHCompressionExtensions.h"

#include <zlib.h>

QByteArray compressedData(const QByteArray &data) {
    z_stream stream{};
    // 15 + 16: a gzip header and trailer around the deflate stream.
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return data;
    QByteArray out(qsizetype(deflateBound(&stream, uLong(data.size()))), Qt::Uninitialized);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.constData()));
    stream.avail_in = uInt(data.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = uInt(out.size());
    const int result = deflate(&stream, Z_FINISH);
    const qsizetype written = qsizetype(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) return data;
    out.truncate(written);
    return out;
}

QByteArray decompressedData(const QByteArray &data) {
    if (data.isEmpty()) return data;
    if (data.size() < 2 || uchar(data[0]) != 0x1F || uchar(data[1]) != 0x8B)
        return data; // not gzip: passed through
    QByteArray out;
    z_stream stream{};
    if (inflateInit2(&stream, 15 + 16) != Z_OK) return data;
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.constData()));
    stream.avail_in = uInt(data.size());
    char buffer[32768];
    for (;;) {
        stream.next_out = reinterpret_cast<Bytef *>(buffer);
        stream.avail_out = sizeof buffer;
        const int result = inflate(&stream, Z_NO_FLUSH);
        out.append(buffer, qsizetype(sizeof buffer - stream.avail_out));
        if (result == Z_STREAM_END) {
            // Further gzip members follow on, as a gzip reader would take them.
            if (stream.avail_in >= 2 && stream.next_in[0] == 0x1F && stream.next_in[1] == 0x8B) {
                inflateReset(&stream);
                continue;
            }
            break;
        }
        if (result != Z_OK) break; // a damaged stream gives what could be read
    }
    inflateEnd(&stream);
    return out;
}
