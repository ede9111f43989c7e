#include "gridundo.h"

namespace pyro {

namespace {

UndoCell cellNow(const Params &p, int row)
{
    const GridCell &c = p.MSFG[0].cell(row, kValueCol);
    return {p.SetImage, c.text, c.fore};
}

void put(Params &p, View &v, GridEdit &e, int row, const UndoCell &c)
{
    MSFGClick(e);
    p.SetImage = c.image;
    GridModel &g = p.MSFG[0];
    g.setText(row, kValueCol, c.text);
    g.setFore(row, kValueCol, c.fore);
    v.MenuImgEnabled[4] = true;
}

} // namespace

UndoMark UndoBegin(const Params &p, const GridEdit &e)
{
    UndoMark m;
    m.row = e.EditRow;
    m.editorOpen = e.InPutTxt.visible || e.MSFGList.visible;
    m.cell = cellNow(p, m.row);
    return m;
}

void UndoCommit(GridUndo &u, const Params &p, const GridEdit &e, const UndoMark &m)
{
    UndoSync(u, p);
    if (!m.editorOpen || e.InPutTxt.visible || e.MSFGList.visible || e.EditRow != m.row)
        return;
    const UndoCell now = cellNow(p, m.row);
    if (now.image == m.cell.image && now.text == m.cell.text && now.fore == m.cell.fore)
        return;
    u.done << UndoStep{m.row, m.cell, now};
    u.undone.clear();
    while (u.done.size() > u.limit)
        u.done.removeFirst();
}

void UndoSync(GridUndo &u, const Params &p)
{
    if (u.loads == p.SetImageLoads)
        return;
    u.done.clear();
    u.undone.clear();
    u.loads = p.SetImageLoads;
}

bool CanUndo(GridUndo &u, const Params &p)
{
    UndoSync(u, p);
    return !u.done.isEmpty();
}

bool CanRedo(GridUndo &u, const Params &p)
{
    UndoSync(u, p);
    return !u.undone.isEmpty();
}

bool Undo(GridUndo &u, Params &p, View &v, GridEdit &e)
{
    if (!CanUndo(u, p))
        return false;
    const UndoStep s = u.done.takeLast();
    put(p, v, e, s.row, s.before);
    u.undone << s;
    return true;
}

bool Redo(GridUndo &u, Params &p, View &v, GridEdit &e)
{
    if (!CanRedo(u, p))
        return false;
    const UndoStep s = u.undone.takeLast();
    put(p, v, e, s.row, s.after);
    u.done << s;
    return true;
}

} // namespace pyro
