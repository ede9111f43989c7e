#pragma once
// Undo and redo for the edits typed into the settings grid. Each accepted
// edit is one step: the working copy's bytes, the cell's text and its mark,
// before and after. The stack holds only while the working copy is the one
// it was built on: a read, an update, a save, an item load or a paste (each
// counts up Params::SetImageLoads) empties it.
#include "gridedit.h"
#include "params.h"

#include <QByteArray>
#include <QList>
#include <QRgb>
#include <QString>

namespace pyro {

struct UndoCell {
    QByteArray image;                    // SetImage, the spare byte included
    QString text;                        // column 3 of the edited row
    QRgb fore = 0;
};

struct UndoStep {
    int row = 0;
    UndoCell before, after;
};

struct GridUndo {
    QList<UndoStep> done;                // the last is undone first
    QList<UndoStep> undone;              // the last is redone first
    quint64 loads = 0;                   // SetImageLoads the steps belong to
    int limit = 500;                     // steps kept; the oldest go first
};

// Taken before an event that may accept an edit (Enter in the number box, a
// click on the list), handed to UndoCommit after it.
struct UndoMark {
    int row = 0;
    bool editorOpen = false;
    UndoCell cell;
};
UndoMark UndoBegin(const Params &p, const GridEdit &e);
// Keeps the step when the event accepted an edit (the editor closed and the
// image, the text or the mark changed). A new step drops what was undone.
void UndoCommit(GridUndo &u, const Params &p, const GridEdit &e, const UndoMark &m);

// Empties the stack when the working copy was replaced or sent since it was built.
void UndoSync(GridUndo &u, const Params &p);
bool CanUndo(GridUndo &u, const Params &p);
bool CanRedo(GridUndo &u, const Params &p);
// Puts the image, the cell's text and its mark back as they were before
// (after) the step; enables the save button, as the edit did. False when
// there is nothing to undo (redo). An open editor closes.
bool Undo(GridUndo &u, Params &p, View &v, GridEdit &e);
bool Redo(GridUndo &u, Params &p, View &v, GridEdit &e);

} // namespace pyro
