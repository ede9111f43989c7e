#pragma once
#include "dbrecord.h"

#include <QFile>
#include <QString>

namespace pyro {

// One open .MPK file for the length of one operation. Records are got and put
// by number; every failure leaves a reason in error and makes the call false,
// so a caller can stop before its next write and say what happened.
struct DbFile {
    QFile file;
    qint64 length = 0;
    QString error;
    int puts = 0;       // records written so far in this operation
};

enum class DbMode { Read, ReadWrite };

// Opens (and for ReadWrite creates) the file.
bool OpenDbFile(DbFile &f, const QString &path, DbMode mode);
void CloseDbFile(DbFile &f);

// Records in the file, counting a cut-off last record as one.
int32_t RecordCount(const DbFile &f);
// True when the length is a whole number of records.
bool WholeRecords(const DbFile &f);

// Any record 1..N that is there in full.
bool GetRec(DbFile &f, int32_t n, DbRecord &r);
// Records 1..N+1: the file grows only at its end.
bool PutRec(DbFile &f, int32_t n, const DbRecord &r);
// A record on a chain: there in full, in use, and where it says it is.
bool GetItem(DbFile &f, int32_t n, DbRecord &r);

// The lowest free record number, N + 1 when none is free, 1 for an empty file.
// 0 with an error when the file cannot be read.
int32_t FindFreeRec(DbFile &f);
// SelfRec of the last record of the chain that starts at n; 0 with an error
// for a chain that is broken or runs in a loop.
int32_t LastSibling(DbFile &f, int32_t n);

} // namespace pyro
