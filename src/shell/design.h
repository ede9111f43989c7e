#pragma once
#include <QList>
#include <QRect>
#include <QString>

// The design of the windows as data: every control with its parent, its
// rectangle in twips (1440 to the inch, from the parent's top left), its
// caption, tool tip and font. One builder reads these tables; nothing else in
// the window code carries a number of the design.
namespace pyro::design {

enum class Kind {
    Frame,       // a borderless container (Frame1, Frame2, Frame3)
    Label,
    BoxLabel,    // a label with a thin border and a transparent back
    Bar,         // PersLab: the coloured bar behind InfLab
    Combo,       // an editable combo box
    Button,
    Lamp,        // Shape1: a filled circle
    Check,
    Line,        // a single-line text box
    Text,        // a several-line text box with a vertical scroll bar
    Log,         // RTB
    Grid,
    List,        // MSFGList
    Tree,
    Image,       // a picture button of the strip
    Mark,        // Shape2: a rectangle without fill
    VLine,       // a drawn line; the rectangle is its span
    HLine,       // an engraved rule across a window
};

struct Font {
    bool song = false;   // 宋体, or the nearest installed CJK face
    double points = 0;   // 0: the window's font
    bool bold = false;
};

struct Control {
    QString name;        // the design's name, "ComboSet" ...
    int index = -1;      // index in a control array; -1 for a single control
    QString parent;      // "ViewForm" or the name of a frame
    QRect twips;
    Kind kind = Kind::Label;
    QString caption;
    QString toolTip;
    Font font;
    bool visible = true;
    bool enabled = true;
    bool checked = false;
    bool centred = false;   // a text box whose text stands in the middle
};

// "ComboSet(3)" for an array member, "Command1" otherwise.
QString controlId(const QString &name, int index = -1);

struct Window {
    QString caption;
    QSize clientTwips;   // the design's client area
    QSize outerTwips;    // the fixed run-time size, frame included; empty: none
    QList<Control> controls;
};

const Window &viewForm();
const Window &aboutForm();

// Menus: top-level items have an empty parent; "-" is a separator.
struct MenuItem {
    QString name;
    QString parent;
    QString caption;
    bool visible = true;      // in the run-time view
    bool visibleFull = true;  // in the full view
    bool enabled = true;
    QString shortcut;
    bool checkable = false;
};
const QList<MenuItem> &viewFormMenus();

// Status panels of SB: widths in twips and the design's starting texts.
struct Panel {
    int widthTwips;
    QString text;
    QString toolTip;
};
const QList<Panel> &statusPanels();
constexpr int kStatusHeightTwips = 375;

// Colours of the design.
constexpr unsigned kDividerRgb = 0x404040;   // the line beside the note boxes

} // namespace pyro::design
