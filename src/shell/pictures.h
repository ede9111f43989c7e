#pragma once
#include <QIcon>
#include <QPixmap>

namespace pyro {

// The program's own pictures, drawn rather than shipped: the window icon in
// 256, 48, 32, 24 and 16 pixels, and the seven symbols of the image strip.
QIcon appIcon();
QPixmap appIconPixmap(int size);
QPixmap stripPicture(int index, int size);

} // namespace pyro
