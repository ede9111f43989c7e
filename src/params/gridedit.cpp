#include "gridedit.h"
#include "csvtext.h"

namespace pyro {

const QString kRangeErrorText = QStringLiteral("设置超出范围，有效范围：");
const QString kRangeErrorTitle = QStringLiteral("提示！");
const QString kNoRangeText = QStringLiteral("解析协议错误！");
const QString kNoRangeTitle = QStringLiteral("警告！");
const QString kMSFGToolTip[2] = {QStringLiteral("设置参数"), QStringLiteral("显示参数")};

namespace {

constexpr int kKeyBackspace = 8;
constexpr int kKeyEnter = 13;
constexpr int kKeyPoint = 46;
constexpr int kWheelNotch = 120;

// A grid row the table made no ParamRow for behaves as a spacer.
const ParamRow &rowOf(const Params &p, int row)
{
    static const ParamRow none;
    return row >= 0 && row < p.SetRows.size() ? p.SetRows[row] : none;
}

void requestFocus(GridEdit &e, EditFocus f)
{
    e.focus = f;
    ++e.focusSerial;
}

// The cell of the last opening and the grid's current cell are one in the
// window, as every click on the grid closes the editor; the mark goes on the
// current cell as the operations that clear it expect.
void mark(Params &p, View &view, bool changed)
{
    GridModel &g = p.MSFG[0];
    g.setFore(g.currentRow(), g.currentCol(), changed ? kEditedFore : kPlainFore);
    if (changed)
        view.MenuImgEnabled[4] = true;
}

void openList(GridEdit &e, const GridCell &cur, const ParamRow &row, const CellPlace &place)
{
    MSFGListView &l = e.MSFGList;
    l.items.clear();
    for (const QString &piece : SplitList(row.Labels))
        l.items << StripTrailing(piece);
    l.selected = int(l.items.indexOf(StripTrailing(cur.text)));
    l.rowHeight = place.cell.height();
    l.colWidth = place.cell.width();
    l.alignment = cur.alignment;
    l.fontSize = cur.fontSize;
    l.back = kListBack;

    const QRect &box = e.InPutTxt.rect;
    const int height = int(l.items.size()) * l.rowHeight + place.overlap;
    // The room is measured as the design does: the grid's height less the
    // box's top on the window. For a grid at the top of its parent that is
    // the room below the cell.
    const int room = place.grid.height() - box.top();
    const int top = height <= room ? box.top() + box.height() - place.overlap
                                   : box.top() - height + place.overlap;
    l.rect = QRect(box.left(), top, box.width(), height);
    l.visible = true;
}

} // namespace

EditorKind EditorFor(const Params &p, int index, int row, int col)
{
    if (index != 0 || col != kValueCol || row < 1 || row >= p.MSFG[0].rows())
        return EditorKind::None;
    return rowOf(p, row).IsList == 1 ? EditorKind::List : EditorKind::Number;
}

void MSFGDblClick(GridEdit &e, const Params &p, int index, const CellPlace &place)
{
    const GridModel &g = p.MSFG[0];
    const int row = g.currentRow();
    const int col = g.currentCol();
    const EditorKind kind = EditorFor(p, index, row, col);
    if (kind == EditorKind::None)
        return;
    e.EditRow = int16_t(row);
    e.EditCol = int16_t(col);

    // The box is laid over the cell in both cases: the list takes its
    // place and width from it.
    const GridCell &cur = g.cell(row, col);
    InPutTxtView &box = e.InPutTxt;
    box.rect = QRect(place.grid.left() + place.cell.left(), place.grid.top() + place.cell.top(),
                     place.cell.width(), place.cell.height());
    box.back = cur.back;
    box.text = cur.text;

    if (kind == EditorKind::Number) {
        e.MSFGList.visible = false;
        box.visible = true;
        requestFocus(e, EditFocus::InPutTxt);
        return;
    }
    box.visible = false;
    openList(e, cur, rowOf(p, row), place);
}

void MSFGClick(GridEdit &e)
{
    e.InPutTxt.visible = false;
    e.MSFGList.visible = false;
}

void MSFGScroll(GridEdit &e)
{
    MSFGClick(e);
}

void TreeViewMouseMove(GridEdit &e)
{
    e.InPutTxt.visible = false;
}

QString RangeErrorMessage(const QStringList &range)
{
    if (range.size() != 2)
        return kRangeErrorText;
    return kRangeErrorText + StripTrailing(range[0]) + QLatin1Char('-') + StripTrailing(range[1]);
}

bool InPutTxtKeyPress(GridEdit &e, Params &p, View &view, Prompter *prompter, int keyAscii,
                      const QString &boxText)
{
    // Only what makes a positive number gets in: no minus, no Escape.
    if (keyAscii == kKeyBackspace || keyAscii == kKeyPoint || (keyAscii >= '0' && keyAscii <= '9'))
        return true;
    if (keyAscii != kKeyEnter || !e.InPutTxt.visible)
        return false;

    e.InPutTxt.text = boxText;
    if (!IsNumericText(boxText)) {
        requestFocus(e, EditFocus::InPutTxt);
        return false;
    }
    const ParamRow &row = rowOf(p, e.EditRow);
    const QStringList range = SplitList(row.Labels);
    if (range.size() != 2) {
        if (prompter)
            prompter->message(kNoRangeText, kNoRangeTitle);
        return false;
    }
    const double lo = LeadingNumber(range[0]);
    const double hi = LeadingNumber(range[1]);
    const double x = LeadingNumber(boxText);
    if (x < lo || x > hi) {
        if (prompter)
            prompter->message(RangeErrorMessage(range), kRangeErrorTitle);
        requestFocus(e, EditFocus::InPutTxt);
        return false;
    }

    // Stored before the cell shows it; EncodeValue writes the value's bytes
    // in one go or not at all.
    EncodeValue(boxText, p.SetImage, p.SetRows, e.EditRow, prompter);
    e.InPutTxt.visible = false;
    GridModel &g = p.MSFG[0];
    mark(p, view, g.text(e.EditRow, e.EditCol) != boxText);
    g.setText(e.EditRow, e.EditCol, boxText);
    requestFocus(e, EditFocus::Grid);
    return false;
}

void MSFGListClick(GridEdit &e, Params &p, View &view, Prompter *prompter, int row)
{
    if (!e.MSFGList.visible || row < 0 || row >= e.MSFGList.items.size())
        return;
    const QString choice = e.MSFGList.items[row];
    e.MSFGList.visible = false;
    // The cell first, then the image: a list mismatch comes up with the
    // cell already showing the choice.
    GridModel &g = p.MSFG[0];
    mark(p, view, g.text(e.EditRow, e.EditCol) != choice);
    g.setText(e.EditRow, e.EditCol, choice);
    EncodeValue(choice, p.SetImage, p.SetRows, e.EditRow, prompter);
    requestFocus(e, EditFocus::Grid);
}

void MSFGMouseMove(View &view, int index)
{
    if (index == 0 || index == 1)
        MouseHint(view, kMSFGToolTip[index]);
}

WheelAction MSFGWheel(int index, bool hasFocus, int delta, Qt::KeyboardModifiers modifiers,
                      Qt::MouseButtons buttons)
{
    if (index != 0 || !hasFocus || modifiers != Qt::NoModifier || buttons != Qt::NoButton)
        return WheelAction::None;
    if (delta == kWheelNotch)
        return WheelAction::PageUp;
    if (delta == -kWheelNotch)
        return WheelAction::PageDown;
    return WheelAction::None;
}

} // namespace pyro
