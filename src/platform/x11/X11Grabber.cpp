#include "platform/x11/X11Grabber.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>

namespace tk::platform {

X11Grabber::X11Grabber(std::shared_ptr<X11Connection> conn, const X11Displays* displays)
    : m_conn(std::move(conn)), m_displays(displays) {
    auto lock = m_conn->lock();
    m_shm = XShmQueryExtension(m_conn->display());
}

namespace {

bool isStandardRgb(const XImage* img) {
    return img->bits_per_pixel == 32 && img->red_mask == 0xff0000 && img->green_mask == 0xff00 &&
           img->blue_mask == 0xff;
}

// Slow path for unusual visuals: read each pixel through the masks.
QImage convertGeneric(XImage* img) {
    QImage out(img->width, img->height, QImage::Format_RGB32);
    auto channel = [](unsigned long px, unsigned long mask) {
        if (!mask)
            return 0u;
        int shift = 0;
        while (!(mask & 1)) {
            mask >>= 1;
            ++shift;
        }
        return unsigned(((px >> shift) & mask) * 255 / mask);
    };
    for (int y = 0; y < img->height; ++y) {
        auto* line = reinterpret_cast<QRgb*>(out.scanLine(y));
        for (int x = 0; x < img->width; ++x) {
            const unsigned long px = XGetPixel(img, x, y);
            line[x] = qRgb(channel(px, img->red_mask), channel(px, img->green_mask),
                           channel(px, img->blue_mask));
        }
    }
    return out;
}

} // namespace

std::optional<QImage> X11Grabber::grabRect(const QRect& r) {
    Display* dpy = m_conn->display();
    const int screen = DefaultScreen(dpy);
    Visual* visual = DefaultVisual(dpy, screen);
    const int depth = DefaultDepth(dpy, screen);
    if (m_shm) {
        XShmSegmentInfo shm{};
        XImage* img =
            XShmCreateImage(dpy, visual, depth, ZPixmap, nullptr, &shm, r.width(), r.height());
        if (img) {
            shm.shmid =
                shmget(IPC_PRIVATE, size_t(img->bytes_per_line) * img->height, IPC_CREAT | 0600);
            if (shm.shmid >= 0) {
                shm.shmaddr = img->data = static_cast<char*>(shmat(shm.shmid, nullptr, 0));
                shm.readOnly = False;
                // Marked for removal at once: the kernel frees it on the last detach,
                // even if we crash mid-grab.
                shmctl(shm.shmid, IPC_RMID, nullptr);
                if (shm.shmaddr != reinterpret_cast<char*>(-1) && XShmAttach(dpy, &shm)) {
                    const bool ok =
                        XShmGetImage(dpy, DefaultRootWindow(dpy), img, r.x(), r.y(), AllPlanes);
                    XShmDetach(dpy, &shm);
                    XSync(dpy, False);
                    std::optional<QImage> out;
                    if (ok && isStandardRgb(img)) {
                        // Hand the segment to the image; it is detached when the image dies.
                        out = QImage(
                            reinterpret_cast<uchar*>(img->data), img->width, img->height,
                            img->bytes_per_line, QImage::Format_RGB32, [](void* p) { shmdt(p); },
                            img->data);
                        img->data = nullptr;
                    } else if (ok) {
                        out = convertGeneric(img);
                    }
                    if (img->data)
                        shmdt(img->data);
                    img->data = nullptr;
                    XDestroyImage(img);
                    if (out)
                        return out;
                    // Shared memory that the server cannot reach (a remote display):
                    // plain requests from now on.
                    m_shm = false;
                    return grabRect(r);
                }
                if (shm.shmaddr != reinterpret_cast<char*>(-1))
                    shmdt(shm.shmaddr);
            }
            img->data = nullptr;
            XDestroyImage(img);
        }
    }
    XImage* img = XGetImage(dpy, DefaultRootWindow(dpy), r.x(), r.y(), r.width(), r.height(),
                            AllPlanes, ZPixmap);
    if (!img)
        return std::nullopt;
    QImage out;
    if (isStandardRgb(img)) {
        out = QImage(r.width(), r.height(), QImage::Format_RGB32);
        for (int y = 0; y < r.height(); ++y)
            std::memcpy(out.scanLine(y), img->data + size_t(y) * img->bytes_per_line,
                        size_t(r.width()) * 4);
    } else {
        out = convertGeneric(img);
    }
    XDestroyImage(img);
    return out;
}

std::optional<Grab> X11Grabber::grabUnderPointer(std::span<const unsigned long> exclude) {
    const auto monitors = m_displays->monitors();
    const auto pointer = m_displays->pointerPixels();
    const Monitor* chosen = nullptr;
    for (const auto& m : monitors)
        if (pointer && m.pixels.contains(*pointer)) {
            chosen = &m;
            break;
        }
    for (const auto& m : monitors)
        if (!chosen && m.primary)
            chosen = &m;
    if (!chosen)
        return std::nullopt;

    auto lock = m_conn->lock();
    Display* dpy = m_conn->display();
    std::vector<Window> hidden;
    for (unsigned long w : exclude) {
        XWindowAttributes attrs;
        if (XGetWindowAttributes(dpy, w, &attrs) && attrs.map_state == IsViewable) {
            XUnmapWindow(dpy, w);
            hidden.push_back(w);
        }
    }
    if (!hidden.empty())
        XSync(dpy, False);
    auto image = grabRect(chosen->pixels);
    for (Window w : hidden)
        XMapWindow(dpy, w);
    if (!hidden.empty())
        XFlush(dpy);
    if (!image)
        return std::nullopt;
    return Grab{std::move(*image), chosen->scale};
}

} // namespace tk::platform
