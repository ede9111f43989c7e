#include "chipwriter.h"
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

namespace {

// The chip's burns that ended done, as the store holds them now.
bool lookUpChip(ChipStore &store, const QString &chipId, ChipMet *out, QString *notice)
{
    QString error;
    if (!store.isOpen() && !store.open(&error, notice))
        return false;
    ChipQuery q;
    q.chipId = chipId;
    q.result = QStringLiteral("done");
    ChipMet m;
    m.now.chipId = chipId;
    const bool ok = store.select(q, [&m](const ChipRow &r) {
        ++m.times;
        m.before = r;                // time order: the last one stays
        return true;
    }, &error);
    if (ok)
        *out = m;
    return ok;
}

} // namespace

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

void ChipWriter::lookup(const QString &chipId)
{
    {
        std::lock_guard lock(m_mutex);
        m_lookups << chipId;
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

void ChipWriter::run()
{
    SqliteChipStore::Options so;
    so.check = true;
    SqliteChipStore store(m_opt.storePath, so);
    // Rows a former run could not store come first; the pending file then
    // holds exactly the rows of work until they are stored.
    QList<ChipRow> work = std::exchange(m_initial, {});
    bool faultShown = false;
    for (;;) {
        bool stopping = false;
        QList<ChipRow> fresh;
        QStringList asked;
        {
            std::unique_lock lock(m_mutex);
            if (work.isEmpty())
                m_cv.wait(lock, [&] { return !m_queue.empty() || !m_lookups.isEmpty() || m_stopping; });
            else if (m_faulty)
                m_cv.wait_for(lock, std::chrono::milliseconds(m_opt.retryMs),
                              [&] { return m_stopping || m_wake || !m_lookups.isEmpty(); });
            m_wake = false;
            stopping = m_stopping;
            fresh = QList<ChipRow>(m_queue.begin(), m_queue.end());
            m_queue.clear();
            m_inWork = int(work.size() + fresh.size());
            asked = std::exchange(m_lookups, {});
        }
        work += fresh;
        // Questions first: they are asked while a chip burns, and its row
        // waits to show the answer. A store that can't answer says nothing.
        if (!asked.isEmpty()) {
            QList<ChipMet> known;
            QString notice;
            for (const QString &id : asked) {
                ChipMet m;
                m.now.chipId = id;
                // No store yet: nothing met before, and no file made for asking.
                if ((!store.isOpen() && !QFile::exists(m_opt.storePath)) || lookUpChip(store, id, &m, &notice))
                    known << m;
            }
            std::lock_guard lock(m_mutex);
            if (!notice.isEmpty())
                m_events.messages << notice;
            m_events.known += known;
        }
        if (work.isEmpty()) {
            if (stopping)
                break;
            continue;
        }
        QString error, notice;
        bool ok = store.isOpen() || store.open(&error, &notice);
        if (!notice.isEmpty())
            push(notice);
        QList<ChipMet> met;
        qint64 added = 0;
        if (ok) {
            added = store.append(work, &met, &error);
            ok = added >= 0;
            if (!ok)
                store.close();   // opened again on the next try; a damaged file is then set aside
        }
        if (ok) {
            const qsizetype stored = work.size();
            work.clear();
            // The pending file keeps only the rows still queued; a program
            // ended before this line finds stored rows there, which go in as
            // nothing (the key) next time.
            std::lock_guard fileLock(m_fileMutex);
            std::lock_guard lock(m_mutex);
            if (m_queue.empty()) {
                QFile::remove(m_opt.pendingPath);
            } else {
                QSaveFile f(m_opt.pendingPath);
                QByteArray text;
                for (const ChipRow &r : m_queue)
                    text += ChipRowJson(r).toUtf8() + '\n';
                if (f.open(QIODevice::WriteOnly) && f.write(text) == text.size())
                    f.commit();
            }
            m_events.met += met;
            m_events.stored += added;
            m_inWork = 0;
            m_faulty = false;
            if (faultShown)
                m_events.messages << QStringLiteral("The chip store works again: %1 waiting chip(s) stored.").arg(stored);
            faultShown = false;
        } else {
            std::lock_guard lock(m_mutex);
            m_faulty = true;
            if (!faultShown)
                m_events.messages << QStringLiteral("The chip store can't be written: %1. The burn goes on and the CSV "
                                                    "record is written; the chips not stored wait and go in when it works again.")
                                         .arg(error);
            faultShown = true;
        }
        if (stopping)
            break;
    }
}

} // namespace pyro
