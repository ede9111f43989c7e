#pragma once
#include <QRect>
#include <QSize>

namespace pyro {

// Twips are 1440 to the inch. Pixels come from the screen's logical
// resolution, so the design keeps its proportions on a high-DPI screen.
int twipsToPx(int twips, double dpi);
QRect twipsToPx(const QRect &twips, double dpi);
QSize twipsToPx(const QSize &twips, double dpi);
int pxToTwips(int px, double dpi);

} // namespace pyro
