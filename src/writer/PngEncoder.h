#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

namespace tk {

// A PNG writer for screenshots. The picture is cut into horizontal strips that
// are deflated in parallel and chained with sync flushes, so the file is one
// ordinary zlib stream spread over one IDAT chunk per strip.
class PngEncoder {
public:
    enum class Filter { None, Sub, Up };
    struct Options {
        int level = 1;    // zlib level
        int strategy = 0; // zlib strategy (Z_DEFAULT_STRATEGY, Z_RLE …)
        Filter filter = Filter::Up;
        int threads = 0;      // 0: one per core
        int rowsPerStrip = 0; // 0: chosen from the height and thread count
    };

    // Opaque 8-bit RGB output; alpha is dropped. Empty on failure.
    static QByteArray encode(const QImage& image, const Options& options);
    static QByteArray encode(const QImage& image) { return encode(image, Options{}); }
    // Writes to a temporary file beside `path`, then renames it into place.
    static bool write(const QImage& image, const QString& path, const Options& options);
    static bool write(const QImage& image, const QString& path) {
        return write(image, path, Options{});
    }
};

} // namespace tk
