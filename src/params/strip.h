#pragma once
#include "link.h"
#include "paramops.h"

#include <QRect>
#include <QSize>
#include <QString>
#include <array>
#include <functional>

namespace pyro {

// The image strip in Frame3: seven picture buttons MenuImg(0..6) and the one
// frame Shape2 that marks the button last touched. The window draws the
// pictures and the frame from this state and forwards the mouse events of
// each picture with its index.

struct MenuImgButton {
    int top;                             // twips inside Frame3
    QString toolTip;
    QSize picture;                       // the design's bitmap, pixels
};

constexpr QRect kFrame3{12560, 2550, 950, 7095};
constexpr int kMenuImgLeft = 120;
constexpr int kMenuImgSize = 705;        // each picture stretched to this square
constexpr int kMenuImgCount = 7;
extern const std::array<MenuImgButton, kMenuImgCount> kMenuImg;

// A button's rectangle inside Frame3, in twips.
QRect MenuImgRect(int index);

struct ImageStrip {
    int Shape2Top = 240;                 // on button 0 before the mouse comes
    int Shape2BorderWidth = 1;           // 2 while a mouse button is held
    bool Shape2Visible = true;

    // Action 4, storing the edited settings in the project database: true
    // when its question was answered Yes. Empty: button 4 does nothing.
    std::function<bool()> saveItem;
};

// Shape2's rectangle inside Frame3, in twips.
QRect Shape2Rect(const ImageStrip &s);

// Mouse move over button i: the frame goes there and shows, its tool tip goes
// to panel 3. A disabled button takes no mouse event, so nothing happens.
void MenuImgMouseMove(ImageStrip &s, View &view, int index);
// Any mouse button pressed on button i.
void MenuImgMouseDown(ImageStrip &s, const View &view, int index);
// Any mouse button released after a press on button i, wherever the pointer
// stands now: runs action i. Actions 0..3, 5, 6 are the device operations
// (MenuImgClick), which also bring the grid they fill to the front; action 4
// is saveItem, after which button 4 is disabled whatever the answer, and a
// Yes hides the frame until the mouse next moves over a button.
void MenuImgMouseUp(ImageStrip &s, ParamOps &ops, int index);

} // namespace pyro
