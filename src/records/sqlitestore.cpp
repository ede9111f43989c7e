#include "sqlitestore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <atomic>

namespace pyro {

namespace {

const char kColumns[] = "id, key, t_utc, t_local, station, port, chip_id, order_text, image, length, sha256, "
                        "duration_ms, retries, result, app_version";
const QByteArray kMagic("SQLite format 3\0", 16);

// SQLite's result codes as Qt SQL reports them (the primary code in the low byte).
enum : int { kSqliteBusy = 5, kSqliteLocked = 6, kSqliteCorrupt = 11, kSqliteNotADb = 26 };

int codeOf(const QSqlError &e)
{
    bool ok = false;
    const int c = e.nativeErrorCode().toInt(&ok);
    return ok ? (c & 0xFF) : 0;
}

bool isDamage(const QSqlError &e)
{
    const int c = codeOf(e);
    return c == kSqliteCorrupt || c == kSqliteNotADb;
}

QString textOf(const QSqlError &e)
{
    QString t = e.databaseText().isEmpty() ? e.text() : e.databaseText();
    const int c = codeOf(e);
    if (c == kSqliteBusy || c == kSqliteLocked)
        t += QStringLiteral(" (another program holds it)");
    return t;
}

ChipRow rowOf(const QSqlQuery &q)
{
    ChipRow r;
    r.id = q.value(0).toLongLong();
    r.key = q.value(1).toByteArray();
    r.utcMs = q.value(2).toLongLong();
    r.local = q.value(3).toString();
    r.station = q.value(4).toString();
    r.port = q.value(5).toString();
    r.chipId = q.value(6).toString();
    r.order = q.value(7).toString();
    r.image = q.value(8).toString();
    r.length = q.value(9).toLongLong();
    r.sha256 = q.value(10).toString();
    r.durationMs = q.value(11).toLongLong();
    r.retries = q.value(12).toInt();
    r.result = q.value(13).toString();
    r.version = q.value(14).toString();
    return r;
}

// A beginning typed by the operator, as a GLOB pattern: case-sensitive, so
// the index serves it, with its own wildcards taken literally.
QString globPrefix(const QString &s)
{
    QString g;
    for (QChar c : s) {
        if (c == QLatin1Char('*') || c == QLatin1Char('?') || c == QLatin1Char('['))
            g += QLatin1Char('[') + QString(c) + QLatin1Char(']');
        else
            g += c;
    }
    return g + QLatin1Char('*');
}

struct Where {
    QString sql;
    QVariantList binds;
};

Where whereOf(const ChipQuery &q)
{
    QStringList c;
    QVariantList b;
    auto match = [&](const char *column, const QString &v, bool prefix) {
        if (v.isEmpty())
            return;
        c << QStringLiteral("%1 %2 ?").arg(QLatin1String(column), prefix ? QStringLiteral("GLOB") : QStringLiteral("="));
        b << (prefix ? globPrefix(v) : v);
    };
    match("chip_id", q.chipId.toUpper(), q.prefix);
    match("order_text", q.order, q.prefix);
    match("station", q.station, false);
    match("port", q.port, q.prefix);
    match("result", q.result, false);
    if (q.since) {
        c << QStringLiteral("t_utc >= ?");
        b << *q.since;
    }
    if (q.until) {
        c << QStringLiteral("t_utc < ?");
        b << *q.until;
    }
    return {c.isEmpty() ? QStringLiteral("1") : c.join(QLatin1String(" AND ")), b};
}

bool run(QSqlQuery &q, const QString &sql, const QVariantList &binds, QString *error)
{
    q.setForwardOnly(true);
    if (!q.prepare(sql)) {
        if (error)
            *error = textOf(q.lastError());
        return false;
    }
    for (const QVariant &v : binds)
        q.addBindValue(v);
    if (!q.exec()) {
        if (error)
            *error = textOf(q.lastError());
        return false;
    }
    return true;
}

std::atomic<int> s_connections{0};

// An empty text, never NULL: Qt binds a null QString as NULL.
QString text(const QString &s)
{
    return s.isNull() ? QStringLiteral("") : s;
}

} // namespace

SqliteChipStore::SqliteChipStore(const QString &path, const Options &options)
    : m_path(path), m_opt(options), m_conn(QStringLiteral("pyro-chips-%1").arg(++s_connections))
{
}

SqliteChipStore::~SqliteChipStore()
{
    close();
}

void SqliteChipStore::close()
{
    if (!QSqlDatabase::contains(m_conn))
        return;
    {
        QSqlDatabase db = QSqlDatabase::database(m_conn, false);
        db.close();
    }
    QSqlDatabase::removeDatabase(m_conn);
    m_open = false;
}

bool SqliteChipStore::open(QString *error, QString *notice)
{
    close();
    m_damaged = false;
    // A file set aside leaves room for a fresh store: one more try.
    QString dummy;
    if (!error)
        error = &dummy;
    for (int attempt = 0; attempt < 2; ++attempt) {
        QString why;
        if (openOnce(error, &why))
            return true;
        close();
        if (why.isEmpty() || !setAside(why, notice, error))
            return false;
    }
    return false;
}

bool SqliteChipStore::setAside(const QString &why, QString *notice, QString *error)
{
    close();
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString aside = m_path + QStringLiteral(".damaged-") + stamp;
    if (!QFile::rename(m_path, aside)) {
        *error = QStringLiteral("the chip store %1 can't be used (%2) and can't be set aside; it is left as it is")
                     .arg(QDir::toNativeSeparators(m_path), why);
        return false;
    }
    // Its journal belongs to it, never to the fresh store.
    for (const char *tail : {"-wal", "-shm", "-journal"})
        if (QFile::exists(m_path + QLatin1String(tail)))
            QFile::rename(m_path + QLatin1String(tail), aside + QLatin1String(tail));
    const QString text = QStringLiteral("The chip store %1 could not be used (%2). It was set aside as %3 and a fresh store was started.")
                             .arg(QDir::toNativeSeparators(m_path), why, QDir::toNativeSeparators(aside));
    if (notice)
        *notice = notice->isEmpty() ? text : *notice + QLatin1Char('\n') + text;
    return true;
}

bool SqliteChipStore::openOnce(QString *error, QString *asideWhy)
{
    const QFileInfo fi(m_path);
    if (!fi.exists()) {
        if (!m_opt.create) {
            *error = QStringLiteral("no chip store at %1").arg(QDir::toNativeSeparators(m_path));
            return false;
        }
        if (!QDir().mkpath(fi.absolutePath())) {
            *error = QStringLiteral("cannot make the folder %1").arg(QDir::toNativeSeparators(fi.absolutePath()));
            return false;
        }
    } else if (!fi.isFile()) {
        *error = QStringLiteral("%1 is not a file").arg(QDir::toNativeSeparators(m_path));
        return false;
    } else if (fi.size() > 0) {
        QFile f(m_path);
        if (!f.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), f.errorString());
            return false;
        }
        if (f.read(16) != kMagic) {
            if (!m_opt.create) {
                *error = QStringLiteral("%1 is not a chip store").arg(QDir::toNativeSeparators(m_path));
                return false;
            }
            *asideWhy = QStringLiteral("not a SQLite database");
            return false;
        }
    }

    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_conn);
    db.setDatabaseName(m_path);
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(m_opt.busyMs));
    if (!db.open()) {
        *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(db.lastError()));
        return false;
    }
    m_open = true;
    QSqlQuery q(db);
    // Damage seen here is the file's, not a passing state: set it aside.
    auto failed = [&](const QString &what) {
        const QSqlError e = q.lastError();
        if (isDamage(e) && m_opt.create) {
            m_damaged = true;
            *asideWhy = QStringLiteral("%1: %2").arg(what, textOf(e));
        } else {
            *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(e));
        }
        return false;
    };
    if (!q.exec(QStringLiteral("PRAGMA user_version")) || !q.next())
        return failed(QStringLiteral("reading its version"));
    const int version = q.value(0).toInt();
    q.finish();
    if (!q.exec(QStringLiteral("SELECT count(*), total(name = 'chips') FROM sqlite_master WHERE type = 'table'")) || !q.next())
        return failed(QStringLiteral("reading its tables"));
    const int tables = q.value(0).toInt();
    const bool ours = q.value(1).toDouble() > 0;
    q.finish();
    if (tables > 0 && !ours) {
        if (!m_opt.create) {
            *error = QStringLiteral("%1 is not a chip store").arg(QDir::toNativeSeparators(m_path));
            return false;
        }
        *asideWhy = QStringLiteral("a database of another program");
        return false;
    }
    if (version > kSqliteSchemaVersion) {
        *error = QStringLiteral("%1 was made by a newer Pyrolink (schema %2, this one knows %3); it is left as it is")
                     .arg(QDir::toNativeSeparators(m_path)).arg(version).arg(kSqliteSchemaVersion);
        return false;
    }
    if (m_opt.check) {
        if (!q.exec(QStringLiteral("PRAGMA quick_check")) || !q.next())
            return failed(QStringLiteral("checking it"));
        const QString verdict = q.value(0).toString();
        q.finish();
        if (verdict != QLatin1String("ok")) {
            m_damaged = true;
            *asideWhy = QStringLiteral("damaged: %1").arg(verdict);
            return false;
        }
    }
    if (version == 0 && tables == 0) {
        if (!m_opt.create) {
            *error = QStringLiteral("%1 holds no chips yet").arg(QDir::toNativeSeparators(m_path));
            return false;
        }
        // WAL before the schema, so that even the first write is journalled so.
        q.exec(QStringLiteral("PRAGMA journal_mode = WAL"));
        q.finish();
        if (!db.transaction())
            return failed(QStringLiteral("starting its schema"));
        for (const char *const *s = kSqliteSchema; *s; ++s) {
            if (!q.exec(QString::fromLatin1(*s))) {
                const QSqlError e = q.lastError();
                db.rollback();
                *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(e));
                return false;
            }
        }
        if (!db.commit()) {
            *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(db.lastError()));
            db.rollback();
            return false;
        }
    } else {
        // Version 1 is the only one yet; upgrades would go here, in order.
        if (!q.exec(QStringLiteral("SELECT %1 FROM chips LIMIT 0").arg(QLatin1String(kColumns)))) {
            if (isDamage(q.lastError()))
                return failed(QStringLiteral("reading its chips"));
            if (!m_opt.create) {
                *error = QStringLiteral("%1 is not a chip store").arg(QDir::toNativeSeparators(m_path));
                return false;
            }
            *asideWhy = QStringLiteral("its tables are not a chip store's");
            return false;
        }
        q.finish();
        if (m_opt.create) {
            q.exec(QStringLiteral("PRAGMA journal_mode = WAL"));
            q.finish();
        }
    }
    // WAL with NORMAL: a commit survives the program's end; a power cut may
    // lose the last batches, never the file's soundness.
    q.exec(QStringLiteral("PRAGMA synchronous = NORMAL"));
    // The key index takes rows in random order: a cache that holds its
    // working set keeps a million-row store from going to the disk per row;
    // sorting (a median) stays in memory.
    q.exec(QStringLiteral("PRAGMA cache_size = -65536"));
    q.exec(QStringLiteral("PRAGMA temp_store = MEMORY"));
    return true;
}

qint64 SqliteChipStore::append(const QList<ChipRow> &rows, QList<ChipMet> *met, QString *error)
{
    QString dummy;
    if (!error)
        error = &dummy;
    m_damaged = false;
    if (!m_open) {
        *error = QStringLiteral("the chip store is not open");
        return -1;
    }
    QSqlDatabase db = QSqlDatabase::database(m_conn, false);
    auto fail = [&](const QSqlError &e) {
        m_damaged = isDamage(e);
        *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(e));
        db.rollback();
        return qint64(-1);
    };
    if (!db.transaction())
        return fail(db.lastError());
    qint64 added = 0;
    {
        QSqlQuery ins(db), prev(db), count(db);
        if (!ins.prepare(QStringLiteral("INSERT INTO chips (key, t_utc, t_local, station, port, chip_id, order_text, "
                                        "image, length, sha256, duration_ms, retries, result, app_version) "
                                        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (key) DO NOTHING")))
            return fail(ins.lastError());
        if (met) {
            prev.setForwardOnly(true);
            count.setForwardOnly(true);
            if (!prev.prepare(QStringLiteral("SELECT %1 FROM chips WHERE chip_id = ? AND result = 'done' AND t_utc < ? "
                                             "ORDER BY t_utc DESC, id DESC LIMIT 1").arg(QLatin1String(kColumns)))
                || !count.prepare(QStringLiteral("SELECT count(*) FROM chips WHERE chip_id = ? AND result = 'done' AND t_utc < ?")))
                return fail(prev.lastError().isValid() ? prev.lastError() : count.lastError());
        }
        for (const ChipRow &r : rows) {
            const QVariantList v{r.key.isEmpty() ? ChipRowKey(r) : r.key, r.utcMs, text(r.local), text(r.station), text(r.port),
                                 text(r.chipId), text(r.order), text(r.image), r.length, text(r.sha256), r.durationMs,
                                 r.retries, text(r.result), text(r.version)};
            for (int i = 0; i < v.size(); ++i)
                ins.bindValue(i, v[i]);
            if (!ins.exec())
                return fail(ins.lastError());
            if (ins.numRowsAffected() != 1)
                continue;
            ++added;
            if (!met)
                continue;
            prev.bindValue(0, r.chipId);
            prev.bindValue(1, r.utcMs);
            if (!prev.exec())
                return fail(prev.lastError());
            if (prev.next()) {
                ChipMet m;
                m.now = r;
                m.now.id = ins.lastInsertId().toLongLong();
                m.before = rowOf(prev);
                count.bindValue(0, r.chipId);
                count.bindValue(1, r.utcMs);
                if (!count.exec() || !count.next())
                    return fail(count.lastError());
                m.times = count.value(0).toLongLong();
                count.finish();
                met->append(m);
            }
            prev.finish();
        }
    }
    if (!db.commit())
        return fail(db.lastError());
    return added;
}

bool SqliteChipStore::select(const ChipQuery &query, const std::function<bool(const ChipRow &)> &each, QString *error)
{
    if (!m_open) {
        if (error)
            *error = QStringLiteral("the chip store is not open");
        return false;
    }
    const Where w = whereOf(query);
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc, id").arg(QLatin1String(kColumns), w.sql), w.binds, error))
        return false;
    while (q.next())
        if (!each(rowOf(q)))
            break;
    return true;
}

QList<ChipRow> SqliteChipStore::page(const ChipQuery &query, std::optional<std::pair<qint64, qint64>> olderThan, int limit,
                                     QString *error)
{
    QList<ChipRow> rows;
    if (!m_open)
        return rows;
    Where w = whereOf(query);
    if (olderThan) {
        w.sql += QStringLiteral(" AND (t_utc < ? OR (t_utc = ? AND id < ?))");
        w.binds << olderThan->first << olderThan->first << olderThan->second;
    }
    w.binds << limit;
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc DESC, id DESC LIMIT ?").arg(QLatin1String(kColumns), w.sql),
             w.binds, error))
        return rows;
    while (q.next())
        rows << rowOf(q);
    return rows;
}

QList<ChipRow> SqliteChipStore::newerThan(const ChipQuery &query, qint64 id, QString *error)
{
    QList<ChipRow> rows;
    if (!m_open)
        return rows;
    Where w = whereOf(query);
    w.sql += QStringLiteral(" AND id > ?");
    w.binds << id;
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc DESC, id DESC").arg(QLatin1String(kColumns), w.sql),
             w.binds, error))
        return rows;
    while (q.next())
        rows << rowOf(q);
    return rows;
}

bool SqliteChipStore::summary(const ChipQuery &query, ChipSummary *out, QString *error)
{
    *out = ChipSummary{};
    if (!m_open)
        return false;
    const Where w = whereOf(query);
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT count(*), total(result = 'done'), total(retries), min(t_utc - duration_ms), max(t_utc) "
                               "FROM chips WHERE %1").arg(w.sql), w.binds, error) || !q.next())
        return false;
    out->chips = q.value(0).toLongLong();
    out->good = qint64(q.value(1).toDouble());
    out->failed = out->chips - out->good;
    out->retries = qint64(q.value(2).toDouble());
    out->firstMs = q.value(3).toLongLong();
    out->lastMs = q.value(4).toLongLong();
    q.finish();
    if (out->chips == 0)
        return true;
    QVariantList binds = w.binds;
    binds << (out->chips - 1) / 2;
    if (!run(q, QStringLiteral("SELECT duration_ms FROM chips WHERE %1 ORDER BY duration_ms LIMIT 1 OFFSET ?").arg(w.sql), binds, error)
        || !q.next())
        return false;
    out->medianDurationMs = q.value(0).toLongLong();
    return true;
}

QList<HourCount> SqliteChipStore::hourly(const ChipQuery &query, QString *error)
{
    QList<HourCount> hours;
    if (!m_open)
        return hours;
    const Where w = whereOf(query);
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT t_utc / 3600000, total(result = 'done'), total(result <> 'done') FROM chips WHERE %1 "
                               "GROUP BY 1 ORDER BY 1").arg(w.sql), w.binds, error))
        return hours;
    while (q.next())
        hours.append({q.value(0).toLongLong() * 3600000, qint64(q.value(1).toDouble()), qint64(q.value(2).toDouble())});
    return hours;
}

} // namespace pyro
