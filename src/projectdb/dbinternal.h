#pragma once
// Helpers shared by the database's source files; not part of its interface.
#include "projectdb.h"

namespace pyro {

// A report box with the title "提示", when a prompter is attached.
void Report(ProjectDb &db, const QString &text);
// The first few problems, one a line, and how many there were.
QString ProblemList(const QStringList &problems);

} // namespace pyro
