#pragma once
#include "link.h"
#include "params.h"

#include <QRect>
#include <QRgb>
#include <QString>
#include <QStringList>
#include <cstdint>

namespace pyro {

// In-place editing of the settings grid MSFG(0): which cell takes which
// editor, where the editor stands, what a key or a click on it does. The
// window keeps two widgets (the number box InPutTxt and the drop-down list
// MSFGList), copies GridEdit into them after every event and forwards the
// events below; it decides nothing itself.

enum class EditorKind { None, Number, List };

// The editor a double click on (row, col) of MSFG(index) opens: none on the
// display grid, outside the value column or on the caption row; the list for
// a row with IsList 1 (bit rows among them), the number box for the others,
// spacers included (their Enter then says the table lacks a range).
EditorKind EditorFor(const Params &p, int index, int row, int col);

// The list's back colour and how far it overlaps the cell's edge, in twips.
constexpr QRgb kListBack = qRgb(150, 100, 100);
constexpr int kListOverlapTwips = 20;

// The two marks on a settings cell.
constexpr QRgb kEditedFore = qRgb(250, 0, 0);     // the last accepted edit changed the text
constexpr QRgb kPlainFore = qRgb(0, 0, 0);        // as read, or the edit left the text as it was

extern const QString kRangeErrorText;    // "设置超出范围，有效范围："
extern const QString kRangeErrorTitle;   // "提示！"
// The range message's text for the two pieces of Labels: the bounds as the
// table writes them, without the blanks that pad its fixed field.
QString RangeErrorMessage(const QStringList &range);
extern const QString kNoRangeText;       // "解析协议错误！"
extern const QString kNoRangeTitle;      // "警告！"

// Where the double-clicked cell stands: the grid's rectangle on the window,
// and the cell's inside the grid as it is scrolled now (its column's position
// and width, its row's position and height). Twips, as the design measures
// them; a window that passes another unit passes the overlap in it too.
struct CellPlace {
    QRect grid;
    QRect cell;
    int overlap = kListOverlapTwips;
};

struct InPutTxtView {
    bool visible = false;
    QRect rect{5880, 4200, 2000, 300};   // the design's place until a cell is edited
    QString text;
    QRgb back = qRgb(255, 255, 255);
};

struct MSFGListView {
    bool visible = false;
    QRect rect{5880, 4560, 2055, 3975};
    QStringList items;                   // one per piece of Labels, trailing blanks cut
    int selected = -1;                   // the entry the cell shows now, -1 none
    int rowHeight = 0;                   // every entry as high as the edited row
    int colWidth = 0;                    // the one column as wide as the value column
    QRgb back = kListBack;
    int16_t alignment = kAlignLeftCenter; // of the edited cell
    float fontSize = 9.0f;
};

// Which control the window should give the input focus. The box takes it
// with its whole text selected, ready to be typed over.
enum class EditFocus { None, InPutTxt, Grid };

struct GridEdit {
    int16_t EditRow = 0;                 // kept after the editor closes
    int16_t EditCol = 0;
    InPutTxtView InPutTxt;
    MSFGListView MSFGList;
    // A focus request counts up each time, so the window applies each once
    // even when the same control is asked for twice in a row.
    EditFocus focus = EditFocus::None;
    quint32 focusSerial = 0;
};

// Double click on MSFG(index) at its current cell: lays the editor for that
// cell over it (number box shown and focused, or the list opened downward if
// it fits in the room the grid leaves under the box, else upward).
void MSFGDblClick(GridEdit &e, const Params &p, int index, const CellPlace &place);

// A click or a scroll of either grid, and the pointer over the project tree
// (the box only): the editors close and what was typed is dropped.
void MSFGClick(GridEdit &e);
void MSFGScroll(GridEdit &e);
void TreeViewMouseMove(GridEdit &e);

// A key press in the number box, keyAscii being the character the key makes
// (keys that make none, arrows and Delete among them, never come here).
// True: the box takes the key as usual (Backspace, the point, digits). False:
// the key is dropped; Enter is dropped too once it has run its test:
// numeric, then the row's range, then stored into SetImage, the cell marked
// and written, and MenuImg(4) enabled by a change. boxText is the box's text
// as it stands.
bool InPutTxtKeyPress(GridEdit &e, Params &p, View &view, Prompter *prompter, int keyAscii,
                      const QString &boxText);

// A click on entry 'row' of the list: the cell is marked and written, then
// the choice is stored. A click that hits no entry does nothing.
void MSFGListClick(GridEdit &e, Params &p, View &view, Prompter *prompter, int row);

// The tool tips of MSFG(0) and MSFG(1), which a mouse move puts into panel 3.
extern const QString kMSFGToolTip[2];    // "设置参数", "显示参数"
void MSFGMouseMove(View &view, int index);

// The wheel: only MSFG(0), only while it has the focus, and only one notch
// (angle delta +120 or -120) with no key and no mouse button held pages the
// grid as Page Up (wheel forward) or Page Down would. Everything else does
// nothing, the display grid's wheel included.
enum class WheelAction { None, PageUp, PageDown };
WheelAction MSFGWheel(int index, bool hasFocus, int delta, Qt::KeyboardModifiers modifiers,
                      Qt::MouseButtons buttons);

} // namespace pyro
