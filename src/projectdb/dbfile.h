#pragma once
#include "dbrecord.h"

#include <QFile>
#include <QList>
#include <QPair>
#include <QString>
#include <functional>

namespace pyro {

// Records a database may hold. FindFreeRec reads the whole file when no
// record is free, so a bound keeps every add short; the loader refuses a
// larger file before reading it.
constexpr int32_t kMaxRecords = 100000;

// What a test puts in the way of writing: a disk that is full once the file
// reaches spaceLimit bytes (-1: never), a write that breaks off halfway at the
// failPut-th record of an operation (0: none), and a look at the file after
// every record written (a power cut there leaves the file as it then is).
struct DbFaults {
    qint64 spaceLimit = -1;
    int failPut = 0;
    std::function<void()> afterPut;
};

// One open .MPK file for the length of one operation. Records are got and put
// by number; every failure leaves a reason in error and makes the call false,
// so a caller can stop before its next write and say what happened.
struct DbFile {
    QFile file;
    qint64 length = 0;
    QString error;
    int puts = 0;                               // records written so far in this operation
    // Enough to undo the operation: the length before it and the old bytes
    // of each record it overwrote, in the order written.
    qint64 startLength = 0;
    QList<QPair<int32_t, QByteArray>> undo;
    const DbFaults *faults = nullptr;
};

enum class DbMode { Read, ReadWrite };

// Opens (and for ReadWrite creates) the file. An existing name must be a
// regular file of at most kMaxRecords records: a FIFO or a device would block
// or never end.
bool OpenDbFile(DbFile &f, const QString &path, DbMode mode);
void CloseDbFile(DbFile &f);

// Records in the file, counting a cut-off last record as one.
int32_t RecordCount(const DbFile &f);
// True when the length is a whole number of records.
bool WholeRecords(const DbFile &f);
// Cuts a cut-off last record away, the start of an operation's undo. Only for
// a tail that no link names: the loader reports any that does.
bool CutPartialTail(DbFile &f);

// Any record 1..N that is there in full.
bool GetRec(DbFile &f, int32_t n, DbRecord &r);
// Records 1..N+1: the file grows only at its end.
bool PutRec(DbFile &f, int32_t n, const DbRecord &r);
// A record a link may name: an item (2 or higher), there in full, in use.
bool GetItem(DbFile &f, int32_t n, DbRecord &r);
// Puts an item under its own number and key form, whatever it was read with.
bool PutItem(DbFile &f, int32_t n, DbRecord &r);
// Puts back what this operation overwrote, newest first, and the old length.
bool RollBack(DbFile &f);

// The lowest free record number, N + 1 when none is free, 1 for an empty file.
// 0 with an error when the file cannot be read.
int32_t FindFreeRec(DbFile &f);
// The number of the last record of the chain that starts at n; 0 with an
// error for a chain that is broken or runs in a loop.
int32_t LastSibling(DbFile &f, int32_t n);

} // namespace pyro
