#include "twips.h"

#include <cmath>

namespace pyro {

int twipsToPx(int twips, double dpi)
{
    return int(std::lround(twips * dpi / 1440.0));
}

QRect twipsToPx(const QRect &t, double dpi)
{
    // Edges are converted, not the size, so that neighbours that touch in
    // twips still touch in pixels.
    const int left = twipsToPx(t.left(), dpi);
    const int top = twipsToPx(t.top(), dpi);
    const int right = twipsToPx(t.left() + t.width(), dpi);
    const int bottom = twipsToPx(t.top() + t.height(), dpi);
    return QRect(left, top, std::max(1, right - left), std::max(1, bottom - top));
}

QSize twipsToPx(const QSize &t, double dpi)
{
    return QSize(twipsToPx(t.width(), dpi), twipsToPx(t.height(), dpi));
}

int pxToTwips(int px, double dpi)
{
    return int(std::lround(px * 1440.0 / dpi));
}

} // namespace pyro
