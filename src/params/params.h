#pragma once
#include "codec.h"
#include "grid.h"
#include "image.h"
#include "tables.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace pyro {

// The parameter engine's state: the two tables, their grids and their
// blocks. One lives for the run of the program; the operations and the
// editor work on it through free functions.
struct Params {
    TableInfo Tables[2];                 // 0 settings (Config.For), 1 display (Display.For)
    QList<ParamRow> SetRows;
    QList<ParamRow> DisplayRows;
    // Sized before the tables are read (indices 0..60 and 0..72), then
    // BlockSize + 1 each once their table has loaded.
    QByteArray SetImage = QByteArray(61, '\0');
    QByteArray DisplayImage = QByteArray(73, '\0');
    GridModel MSFG[2];                   // 0 settings, 1 running values
    // Counts each time the working copy is replaced or sent whole (a read, an
    // update, a save, an item load, a paste), so that what remembers edits
    // of it (undo) knows they no longer apply.
    quint64 SetImageLoads = 0;

    QList<ParamRow> &rows(int table) { return table == 0 ? SetRows : DisplayRows; }
    QByteArray &block(int table) { return table == 0 ? SetImage : DisplayImage; }
};

extern const QString kTableLoadErrorText;  // "Error loading parse the file"
extern const QString kTableLoadErrorTitle; // "Hint！"

// The start-up step for the tables: Config.For then Display.For from the
// application folder; each that loads gets its block resized to BlockSize + 1
// zero bytes, each that doesn't shows the load error and keeps its block.
// diags, when given, receives the reason of each table (index as Tables).
void LoadParamTables(Params &p, const QString &appDir, Prompter *prompter, TableDiag *diags = nullptr);

} // namespace pyro
