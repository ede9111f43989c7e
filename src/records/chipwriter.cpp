#include "chipwriter.h"
#include "pgstore.h"
#include "sqlitestore.h"

#include <QFile>
#include <QSaveFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>
#include <chrono>

namespace pyro {

bool ChipRowFromJson(const QByteArray &line, ChipRow *row)
{
    QJsonParseError err;
    const QJsonDocument doc = QJsonDocument::fromJson(line, &err);
    if (err.error != QJsonParseError::NoError || !doc.isObject())
        return false;
    const QJsonObject o = doc.object();
    const QDateTime utc = QDateTime::fromString(o.value(QLatin1String("time_utc")).toString(), Qt::ISODateWithMs);
    if (!utc.isValid() || !IsChipIdText(o.value(QLatin1String("chip_id")).toString()))
        return false;
    ChipRow r;
    r.utcMs = utc.toMSecsSinceEpoch();
    r.local = o.value(QLatin1String("time")).toString();
    r.station = o.value(QLatin1String("station")).toString();
    r.port = o.value(QLatin1String("port")).toString();
    r.chipId = o.value(QLatin1String("chip_id")).toString();
    r.order = o.value(QLatin1String("order")).toString();
    r.image = o.value(QLatin1String("image")).toString();
    r.length = qint64(o.value(QLatin1String("length")).toDouble());
    r.sha256 = o.value(QLatin1String("sha256")).toString();
    r.durationMs = qRound64(o.value(QLatin1String("duration_s")).toDouble() * 1000.0);
    r.retries = o.value(QLatin1String("retries")).toInt();
    r.result = o.value(QLatin1String("result")).toString();
    r.version = o.value(QLatin1String("version")).toString();
    r.key = ChipRowKey(r);
    *row = r;
    return true;
}

QList<ChipRow> ReadPendingRows(const QString &path)
{
    QList<ChipRow> rows;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return rows;
    while (!f.atEnd()) {
        ChipRow r;
        if (ChipRowFromJson(f.readLine().trimmed(), &r))
            rows << r;
    }
    return rows;
}

bool AppendPendingRows(const QString &path, const QList<ChipRow> &rows)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Append))
        return false;
    QByteArray text;
    for (const ChipRow &r : rows)
        text += ChipRowJson(r).toUtf8() + '\n';
    return f.write(text) == text.size() && f.flush();
}

ChipWriter::Options ChipWriterOptions(const RecordsChoice &choice)
{
    ChipWriter::Options o(choice.storePath);
    o.line = choice.line;
    return o;
}

ChipWriter::ChipWriter(const Options &options) : m_opt(options)
{
    if (m_opt.pendingPath.isEmpty())
        m_opt.pendingPath = m_opt.storePath + QStringLiteral(".pending");
}

ChipWriter::~ChipWriter()
{
    stop();
}

void ChipWriter::start()
{
    if (m_thread)
        return;
    // Read before the first row is handed over, which also goes into the file.
    m_initial = ReadPendingRows(m_opt.pendingPath);
    m_inWork = int(m_initial.size());
    // A run killed mid-line leaves a cut line: the file is written again with
    // the whole rows only, so that no new row is glued onto it.
    if (QFile::exists(m_opt.pendingPath)) {
        std::lock_guard fileLock(m_fileMutex);
        if (m_initial.isEmpty()) {
            QFile::remove(m_opt.pendingPath);
        } else {
            QSaveFile f(m_opt.pendingPath);
            QByteArray text;
            for (const ChipRow &r : m_initial)
                text += ChipRowJson(r).toUtf8() + '\n';
            if (f.open(QIODevice::WriteOnly) && f.write(text) == text.size())
                f.commit();
        }
    }
    m_thread = QThread::create([this] { run(); });
    m_thread->start();
}

void ChipWriter::append(const ChipRow &row)
{
    {
        // Both under the file's lock: the writer never rewrites the file
        // between the row's line and its place in the queue.
        std::lock_guard fileLock(m_fileMutex);
        AppendPendingRows(m_opt.pendingPath, {row});
        std::lock_guard lock(m_mutex);
        m_queue.push_back(row);
    }
    m_cv.notify_one();
}

ChipWriter::Events ChipWriter::take()
{
    std::lock_guard lock(m_mutex);
    return std::exchange(m_events, Events{});
}

int ChipWriter::pending() const
{
    std::lock_guard lock(m_mutex);
    return int(m_queue.size()) + m_inWork;
}

bool ChipWriter::faulty() const
{
    std::lock_guard lock(m_mutex);
    return m_faulty;
}

bool ChipWriter::lineFaulty() const
{
    std::lock_guard lock(m_mutex);
    return m_lineFaulty;
}

void ChipWriter::retryNow()
{
    {
        std::lock_guard lock(m_mutex);
        m_wake = true;
    }
    m_cv.notify_one();
}

void ChipWriter::stop()
{
    if (!m_thread)
        return;
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_cv.notify_one();
    m_thread->wait();
    delete m_thread;
    m_thread = nullptr;
}

void ChipWriter::push(const QString &message)
{
    std::lock_guard lock(m_mutex);
    m_events.messages << message;
}

void ChipWriter::rewritePending(const QList<ChipRow> &work)
{
    // Under both locks: no row is handed over between reading the queue and
    // writing the file.
    std::lock_guard fileLock(m_fileMutex);
    std::lock_guard lock(m_mutex);
    if (work.isEmpty() && m_queue.empty()) {
        QFile::remove(m_opt.pendingPath);
        return;
    }
    QSaveFile f(m_opt.pendingPath);
    QByteArray text;
    for (const ChipRow &r : work)
        text += ChipRowJson(r).toUtf8() + '\n';
    for (const ChipRow &r : m_queue)
        text += ChipRowJson(r).toUtf8() + '\n';
    if (f.open(QIODevice::WriteOnly) && f.write(text) == text.size())
        f.commit();
}

void ChipWriter::run()
{
    using Clock = std::chrono::steady_clock;
    SqliteChipStore::Options so;
    so.check = true;
    SqliteChipStore local(m_opt.storePath, so);
    std::unique_ptr<PgChipStore> line;
    if (m_opt.line.isSet()) {
        PgChipStore::Options po;
        po.writer = true;
        line = std::make_unique<PgChipStore>(m_opt.line, po);
    }
    // Each store has its own rows of work, both in the order handed over and
    // cleared only when all of them are stored: each is a tail of the same
    // sequence, and the longer one is what the pending file holds. Rows a
    // former run could not store come first, for both.
    QList<ChipRow> localWork = std::exchange(m_initial, {});
    QList<ChipRow> lineWork = line ? localWork : QList<ChipRow>();
    bool localShown = false, lineShown = false;
    Clock::time_point localNext, lineNext;   // a faulty store's next try
    const auto retry = std::chrono::milliseconds(m_opt.retryMs);
    for (;;) {
        bool stopping = false, wake = false;
        QList<ChipRow> fresh;
        {
            std::unique_lock lock(m_mutex);
            const auto ready = [&] { return !m_queue.empty() || m_stopping || m_wake; };
            const bool localWaits = !localWork.isEmpty() && localShown;
            const bool lineWaits = !lineWork.isEmpty() && lineShown;
            if (localWork.isEmpty() && lineWork.isEmpty()) {
                m_cv.wait(lock, ready);
            } else if ((localWork.isEmpty() || localWaits) && (lineWork.isEmpty() || lineWaits)) {
                // Only faulty stores have work: sleep until the first is due,
                // or a row comes for a store that works.
                Clock::time_point due = Clock::time_point::max();
                if (localWaits)
                    due = std::min(due, localNext);
                if (lineWaits)
                    due = std::min(due, lineNext);
                m_cv.wait_until(lock, due, ready);
            }
            wake = std::exchange(m_wake, false);
            stopping = m_stopping;
            fresh = QList<ChipRow>(m_queue.begin(), m_queue.end());
            m_queue.clear();
            m_inWork = int(std::max(localWork.size(), lineWork.size()) + fresh.size());
        }
        localWork += fresh;
        if (line)
            lineWork += fresh;
        const qsizetype before = std::max(localWork.size(), lineWork.size());
        const Clock::time_point now = Clock::now();
        QList<ChipMet> met;
        qint64 added = 0;

        // The line first, so that a chip met again is told from the whole
        // line's history; rows sent again after a fault were told already.
        bool lineOk = false;
        if (line && !lineWork.isEmpty() && (!lineShown || wake || now >= lineNext)) {
            QString error;
            lineOk = line->isOpen() || line->open(&error);
            qint64 n = 0;
            if (lineOk) {
                n = line->append(lineWork, lineShown ? nullptr : &met, &error);
                lineOk = n >= 0;
            }
            std::lock_guard lock(m_mutex);
            if (lineOk) {
                added += n;
                if (lineShown)
                    m_events.messages << QStringLiteral("The line's chip store %1 works again: %2 waiting chip(s) sent.")
                                             .arg(m_opt.line.url()).arg(lineWork.size());
                lineWork.clear();
                lineShown = false;
                m_lineFaulty = false;
            } else {
                if (!lineShown)
                    m_events.messages << QStringLiteral("The line's chip store can't be written (%1). The burn goes on: "
                                                        "the chips go to this bench's own store and wait to be sent "
                                                        "when the server is back.").arg(error);
                lineShown = true;
                m_lineFaulty = true;
                lineNext = now + retry;
            }
        }

        bool localOk = false;
        if (!localWork.isEmpty() && (!localShown || wake || stopping || now >= localNext)) {
            QString error, notice;
            localOk = local.isOpen() || local.open(&error, &notice);
            if (!notice.isEmpty())
                push(notice);
            qint64 n = 0;
            if (localOk) {
                // Told by the line's store already when it took them.
                n = local.append(localWork, (line && lineOk) || localShown ? nullptr : &met, &error);
                localOk = n >= 0;
                if (!localOk)
                    local.close();   // opened again on the next try; a damaged file is then set aside
            }
            std::lock_guard lock(m_mutex);
            if (localOk) {
                if (!line)
                    added += n;
                if (localShown)
                    m_events.messages << QStringLiteral("The chip store works again: %1 waiting chip(s) stored.").arg(localWork.size());
                localWork.clear();
                localShown = false;
            } else {
                if (!localShown)
                    m_events.messages << QStringLiteral("The chip store can't be written: %1. The burn goes on and the CSV "
                                                        "record is written; the chips not stored wait and go in when it works again.")
                                             .arg(error);
                localShown = true;
                localNext = now + retry;
            }
        }
        {
            std::lock_guard lock(m_mutex);
            m_events.met += met;
            m_events.stored += added;
            m_faulty = localShown || lineShown;
        }
        // The pending file keeps the rows still to store somewhere; a program
        // ended before this line finds stored rows there, which go in as
        // nothing (the key) next time.
        const QList<ChipRow> &longer = localWork.size() >= lineWork.size() ? localWork : lineWork;
        if (longer.size() < before)
            rewritePending(longer);
        {
            std::lock_guard lock(m_mutex);
            m_inWork = int(longer.size());
        }
        if (stopping)
            break;
    }
}

} // namespace pyro
