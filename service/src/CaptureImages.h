#pragma once

#include "writer/Context.h"

#include <QString>

namespace tk::service {

// Thumbnail and annotated screenshot of one capture, each written once.
struct ImageResult {
    bool shotReadable = false; // false: no shot.png or not an image
    bool ok = true;            // false: a file could not be written (disk full ...)
};

struct ImagePaths {
    QString shot;
    QString thumb;
    QString annotated;
};

// Thread-safe; meant for a pool thread. `element` frames the guessed element when known.
ImageResult makeImages(const ImagePaths& paths, const CaptureContext& context);

} // namespace tk::service
