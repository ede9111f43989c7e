#pragma once
// The store's writer: a thread of its own that owns the store's connection
// (Qt SQL uses a connection only in the thread that opened it). The line
// hands it rows through a queue and never waits: append() takes a lock for
// a push. Rows that can't be stored stay in memory and in a small pending
// file beside the store, and go in when the store works again, also in the
// next run. The pending file holds every row handed over and not yet known
// stored, so a program killed at any point loses none.
#include "chipstore.h"
#include "recordsconfig.h"

#include <QString>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

class QThread;

namespace pyro {

class ChipWriter {
public:
    struct Options {
        Options(const QString &store = {}) : storePath(store) {}
        QString storePath;
        QString pendingPath;     // empty: storePath + ".pending"
        int retryMs = 1000;      // a store that failed is tried again this often
        // The line's store, written besides the bench's own; while it can't
        // be, its rows wait in the same pending file.
        LineStoreConfig line;
    };
    explicit ChipWriter(const Options &options);
    ~ChipWriter();               // stop()
    ChipWriter(const ChipWriter &) = delete;
    ChipWriter &operator=(const ChipWriter &) = delete;

    void start();
    // The line's call, never a wait on the store: the row's line goes into
    // the pending file (a small append, as the CSV line is) and into the queue.
    void append(const ChipRow &row);
    // What happened since the last call, for the owner to show.
    struct Events {
        QStringList messages;    // a fault (once until it clears), its end, a file set aside
        QList<ChipMet> met;      // chips burned before
        qint64 stored = 0;       // rows newly stored
    };
    Events take();
    // Rows handed over and not stored yet.
    int pending() const;
    bool faulty() const;
    // The line's store is chosen and can't be written now.
    bool lineFaulty() const;
    // Tries the store again now rather than at the next retry.
    void retryNow();
    // Stores what it can in one more try and ends the thread; what is left
    // stays in the pending file for the next run.
    void stop();

    QString storePath() const { return m_opt.storePath; }

private:
    void run();
    void push(const QString &message);
    void rewritePending(const QList<ChipRow> &work);
    Options m_opt;
    QThread *m_thread = nullptr;
    std::mutex m_fileMutex;      // the pending file; taken before m_mutex
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<ChipRow> m_queue;
    QList<ChipRow> m_initial;    // from the pending file at start
    Events m_events;
    int m_inWork = 0;
    bool m_faulty = false;
    bool m_lineFaulty = false;
    bool m_stopping = false;
    bool m_wake = false;
};

// A writer's options for the store chosen at start.
ChipWriter::Options ChipWriterOptions(const RecordsChoice &choice);

// Rows kept in the pending file, one JSON object a line; lines cut short by
// an ended program are passed over.
QList<ChipRow> ReadPendingRows(const QString &path);
bool AppendPendingRows(const QString &path, const QList<ChipRow> &rows);
bool ChipRowFromJson(const QByteArray &line, ChipRow *row);

} // namespace pyro
