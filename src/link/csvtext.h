#pragma once
// CSV as the program's files write and read it: one record reader for every
// CSV file read back, one field writer, and the trailing-blank trim that the
// table files and settings texts share.
#include <QString>
#include <QStringList>
#include <QStringView>

namespace pyro {

// A field as written: quoted (quotes doubled) when it holds a comma, a quote
// or a line end. With quoteBlanks, also when it begins or ends with a blank,
// for readers that trim the fields they read.
QString CsvField(const QString &s, bool quoteBlanks = false);

enum class CsvRead { Record, End, Unclosed };

// The record that starts at *pos: fields split at commas; a field that begins
// with a quote runs to its closing quote (a doubled quote is one quote) and
// may hold commas and line ends; carriage returns outside quotes are dropped.
// *pos and *line (1-based, counting line ends) move past it. Unclosed: a
// quote that is never closed, the rest of the text read as its field.
CsvRead ReadCsvRecord(QStringView text, qsizetype *pos, int *line, QStringList *fields);

// s without the blanks at its end.
QString StripTrailing(const QString &s);

} // namespace pyro
