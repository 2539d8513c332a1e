#include "writer/PngEncoder.h"

#include <QSaveFile>

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace tk {
namespace {

void putU32(QByteArray& out, quint32 v) {
    const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    out.append(b, 4);
}

void putChunk(QByteArray& out, const char type[4], const QByteArray& data, uLong crc) {
    putU32(out, quint32(data.size()));
    out.append(type, 4);
    out.append(data);
    putU32(out, quint32(crc));
}

uLong chunkCrc(const char type[4], const QByteArray& data) {
    uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(type), 4);
    return crc32(crc, reinterpret_cast<const Bytef*>(data.constData()), uInt(data.size()));
}

// One row as RGB with its filter byte in front.
void filterRow(const uchar* cur, const uchar* prev, int width, PngEncoder::Filter f, uchar* out) {
    const auto* c = reinterpret_cast<const QRgb*>(cur);
    const auto* p = reinterpret_cast<const QRgb*>(prev);
    uchar* o = out + 1;
    switch (f) {
    case PngEncoder::Filter::None:
        out[0] = 0;
        for (int x = 0; x < width; ++x) {
            o[3 * x] = uchar(qRed(c[x]));
            o[3 * x + 1] = uchar(qGreen(c[x]));
            o[3 * x + 2] = uchar(qBlue(c[x]));
        }
        break;
    case PngEncoder::Filter::Sub: {
        out[0] = 1;
        QRgb left = 0;
        for (int x = 0; x < width; ++x) {
            o[3 * x] = uchar(qRed(c[x]) - qRed(left));
            o[3 * x + 1] = uchar(qGreen(c[x]) - qGreen(left));
            o[3 * x + 2] = uchar(qBlue(c[x]) - qBlue(left));
            left = c[x];
        }
        break;
    }
    case PngEncoder::Filter::Up:
        if (!p) { // the first row has nothing above: Up equals None there
            filterRow(cur, nullptr, width, PngEncoder::Filter::None, out);
            out[0] = 2;
            break;
        }
        out[0] = 2;
        for (int x = 0; x < width; ++x) {
            o[3 * x] = uchar(qRed(c[x]) - qRed(p[x]));
            o[3 * x + 1] = uchar(qGreen(c[x]) - qGreen(p[x]));
            o[3 * x + 2] = uchar(qBlue(c[x]) - qBlue(p[x]));
        }
        break;
    }
}

struct Strip {
    int first = 0;
    int last = 0; // exclusive
    QByteArray data;
    uLong adler = 1;
    uLong crc = 0;
    bool ok = false;
};

void deflateStrip(const QImage& img, Strip& s, bool final, const PngEncoder::Options& opt) {
    z_stream z{};
    if (deflateInit2(&z, opt.level, Z_DEFLATED, -15, 8, opt.strategy) != Z_OK)
        return;
    const int width = img.width();
    const size_t rowBytes = size_t(width) * 3 + 1;
    std::vector<uchar> row(rowBytes);
    s.data.resize(int(deflateBound(&z, uLong(rowBytes) * uLong(s.last - s.first)) + 64));
    z.next_out = reinterpret_cast<Bytef*>(s.data.data());
    z.avail_out = uInt(s.data.size());
    uLong adler = adler32(0L, nullptr, 0);
    bool ok = true;
    for (int y = s.first; y < s.last && ok; ++y) {
        filterRow(img.constScanLine(y), y > 0 ? img.constScanLine(y - 1) : nullptr, width,
                  opt.filter, row.data());
        adler = adler32(adler, row.data(), uInt(rowBytes));
        z.next_in = row.data();
        z.avail_in = uInt(rowBytes);
        const int flush = y + 1 < s.last ? Z_NO_FLUSH : (final ? Z_FINISH : Z_SYNC_FLUSH);
        const int rc = deflate(&z, flush);
        ok = (rc == Z_OK || rc == Z_STREAM_END || rc == Z_BUF_ERROR) && z.avail_in == 0;
    }
    s.data.resize(int(z.total_out));
    deflateEnd(&z);
    s.adler = adler;
    s.ok = ok;
}

} // namespace

QByteArray PngEncoder::encode(const QImage& source, const Options& options) {
    if (source.isNull())
        return {};
    const QImage img =
        (source.format() == QImage::Format_RGB32 || source.format() == QImage::Format_ARGB32)
            ? source
            : source.convertToFormat(QImage::Format_RGB32);
    const int h = img.height();
    int threads = options.threads > 0 ? options.threads
                                      : int(std::max(1u, std::thread::hardware_concurrency()));
    threads = std::min(threads, 16);
    // More strips than threads keeps both cores busy to the end; each strip
    // costs a few bytes of flush and a fresh dictionary.
    int rows = options.rowsPerStrip > 0 ? options.rowsPerStrip
                                        : std::max(32, (h + threads * 4 - 1) / (threads * 4));
    std::vector<Strip> strips;
    for (int y = 0; y < h; y += rows)
        strips.push_back(Strip{y, std::min(h, y + rows), {}, 1, 0, false});

    std::atomic<size_t> next{0};
    auto work = [&] {
        for (size_t i = next++; i < strips.size(); i = next++) {
            deflateStrip(img, strips[i], i + 1 == strips.size(), options);
            strips[i].crc = chunkCrc("IDAT", strips[i].data);
        }
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < std::min<int>(threads, int(strips.size())); ++t)
        pool.emplace_back(work);
    work();
    for (auto& t : pool)
        t.join();

    uLong adler = adler32(0L, nullptr, 0);
    for (const auto& s : strips) {
        if (!s.ok)
            return {};
        const uLong len = uLong(s.last - s.first) * (uLong(img.width()) * 3 + 1);
        adler = adler32_combine(adler, s.adler, z_off_t(len));
    }

    qsizetype total = 128;
    for (const auto& s : strips)
        total += s.data.size() + 12;
    QByteArray out;
    out.reserve(total);
    out.append("\x89PNG\r\n\x1a\n", 8);
    QByteArray ihdr;
    putU32(ihdr, quint32(img.width()));
    putU32(ihdr, quint32(h));
    ihdr.append(char(8)); // bit depth
    ihdr.append(char(2)); // truecolour
    ihdr.append(char(0));
    ihdr.append(char(0));
    ihdr.append(char(0));
    putChunk(out, "IHDR", ihdr, chunkCrc("IHDR", ihdr));
    // zlib header (deflate, 32K window, fastest) in its own chunk, then one
    // chunk per strip, then the checksum.
    const QByteArray header("\x78\x01", 2);
    putChunk(out, "IDAT", header, chunkCrc("IDAT", header));
    for (const auto& s : strips)
        putChunk(out, "IDAT", s.data, s.crc);
    QByteArray trailer;
    putU32(trailer, quint32(adler));
    putChunk(out, "IDAT", trailer, chunkCrc("IDAT", trailer));
    putChunk(out, "IEND", QByteArray(), chunkCrc("IEND", QByteArray()));
    return out;
}

bool PngEncoder::write(const QImage& image, const QString& path, const Options& options) {
    const QByteArray png = encode(image, options);
    if (png.isEmpty())
        return false;
    QSaveFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    if (f.write(png) != png.size())
        return false;
    return f.commit();
}

} // namespace tk
