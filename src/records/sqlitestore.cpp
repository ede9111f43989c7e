#include "sqlitestore.h"
#include "sqlrows.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <algorithm>
#include <atomic>
#include <sqlite3.h>
#include <string>

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

QString globClause(const QString &column)
{
    return column + QStringLiteral(" GLOB ?");
}

ChipWhere whereOf(const ChipQuery &q)
{
    return ChipWhereOf(q, globClause, globPrefix, QStringLiteral("1"));
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

} // namespace

SqliteChipStore::SqliteChipStore(const QString &path, const Options &options)
    : m_path(path), m_opt(options), m_conn(QStringLiteral("pyro-chips-%1").arg(++s_connections))
{
}

SqliteChipStore::~SqliteChipStore()
{
    close();
}

// The statements a writer runs for each chip, prepared once: preparing
// costs more than the insert itself. The insert goes through SQLite's own
// calls on Qt's connection: Qt's binding of fourteen values costs more than
// SQLite's work of storing them.
struct SqliteChipStore::Statements {
    explicit Statements(const QSqlDatabase &db) : prev(db), count(db) {}
    ~Statements()
    {
        for (sqlite3_stmt *st : {begin, commit, rollback, insert})
            sqlite3_finalize(st);
    }
    sqlite3 *handle = nullptr;
    sqlite3_stmt *begin = nullptr, *commit = nullptr, *rollback = nullptr, *insert = nullptr;
    std::string text[15];        // the insert's texts, by column
    QSqlQuery prev, count;
};

namespace {

// Runs a statement without rows to its end; SQLite's code.
int step(sqlite3_stmt *st)
{
    const int rc = sqlite3_step(st);
    sqlite3_reset(st);
    return rc;
}

// A text bound as UTF-8, the store's own encoding, made in a buffer kept for
// the column so that a million rows make no text of their own; never NULL.
void bindText(sqlite3_stmt *st, int i, const QString &s, std::string &buf)
{
    buf.resize(size_t(s.size()));
    char *p = buf.data();
    for (QChar c : s) {
        if (c.unicode() >= 0x80) {
            const QByteArray utf8 = s.toUtf8();
            buf.assign(utf8.constData(), size_t(utf8.size()));
            break;
        }
        *p++ = char(c.unicode());
    }
    sqlite3_bind_text(st, i, buf.data(), int(buf.size()), SQLITE_STATIC);
}

} // namespace

void SqliteChipStore::close()
{
    if (m_batch && m_st)
        step(m_st->rollback);
    m_batch = false;
    m_st.reset();
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
        if (!upgrade(0, error))
            return false;
        m_version = kSqliteSchemaVersion;
    } else {
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
        m_version = std::max(version, 1);
        if (m_opt.create) {
            q.exec(QStringLiteral("PRAGMA journal_mode = WAL"));
            q.finish();
            // Only a store opened to write is upgraded; a reader of an older
            // one asks the same questions, answered more slowly.
            if (m_version < kSqliteSchemaVersion) {
                if (!upgrade(m_version, error))
                    return false;
                m_version = kSqliteSchemaVersion;
            }
        }
    }
    // WAL with NORMAL: a commit survives the program's end; a power cut may
    // lose the last batches, never the file's soundness.
    q.exec(QStringLiteral("PRAGMA synchronous = NORMAL"));
    // The key index takes rows in random order: a cache that holds its
    // working set keeps a million-row store from going to the disk per row;
    // sorting (a median) stays in memory.
    q.exec(QStringLiteral("PRAGMA cache_size = %1").arg(-1024 * qint64(m_opt.cacheMb)));
    q.exec(QStringLiteral("PRAGMA temp_store = MEMORY"));
    return true;
}

bool SqliteChipStore::upgrade(int from, QString *error)
{
    QSqlDatabase db = QSqlDatabase::database(m_conn, false);
    QSqlQuery q(db);
    auto fail = [&](const QSqlError &e) {
        m_damaged = isDamage(e);
        *error = QStringLiteral("%1: upgrading its schema: %2").arg(QDir::toNativeSeparators(m_path), textOf(e));
        q.exec(QStringLiteral("ROLLBACK"));
        return false;
    };
    if (!q.exec(QStringLiteral("BEGIN IMMEDIATE")))
        return fail(q.lastError());
    for (int v = from + 1; v <= kSqliteSchemaVersion; ++v) {
        for (const char *const *s = kSqliteSchema[v - 1]; *s; ++s)
            if (!q.exec(QString::fromLatin1(*s)))
                return fail(q.lastError());
    }
    if (!q.exec(QStringLiteral("PRAGMA user_version = %1").arg(kSqliteSchemaVersion)) || !q.exec(QStringLiteral("COMMIT")))
        return fail(q.lastError());
    return true;
}

bool SqliteChipStore::prepareStatements(QString *error)
{
    if (m_st)
        return true;
    const QSqlDatabase db = QSqlDatabase::database(m_conn, false);
    auto st = std::make_unique<Statements>(db);
    const QVariant h = db.driver()->handle();
    if (h.isValid() && qstrcmp(h.typeName(), "sqlite3*") == 0)
        st->handle = *static_cast<sqlite3 *const *>(h.constData());
    if (!st->handle) {
        *error = QStringLiteral("%1: the SQLite driver gives no handle").arg(QDir::toNativeSeparators(m_path));
        return false;
    }
    const QByteArray insert = "INSERT INTO chips (key, t_utc, t_local, station, port, chip_id, order_text, image, length, "
                              "sha256, duration_ms, retries, result, app_version) "
                              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (key) DO NOTHING";
    // IMMEDIATE: the write lock at the start, so that a store another
    // program holds fails here, before any work.
    const std::pair<sqlite3_stmt **, QByteArray> sql[] = {
        {&st->begin, "BEGIN IMMEDIATE"}, {&st->commit, "COMMIT"}, {&st->rollback, "ROLLBACK"}, {&st->insert, insert}};
    for (const auto &[target, text] : sql) {
        if (sqlite3_prepare_v2(st->handle, text.constData(), int(text.size()), target, nullptr) != SQLITE_OK) {
            m_st = std::move(st);
            *error = nativeError(&m_damaged);
            m_st.reset();
            return false;
        }
    }
    st->prev.setForwardOnly(true);
    st->count.setForwardOnly(true);
    if (!st->prev.prepare(QStringLiteral("SELECT %1 FROM chips WHERE chip_id = ? AND result = 'done' AND t_utc < ? "
                                         "ORDER BY t_utc DESC, id DESC LIMIT 1").arg(QLatin1String(kColumns)))
        || !st->count.prepare(QStringLiteral("SELECT count(*) FROM chips WHERE chip_id = ? AND result = 'done' AND t_utc < ?"))) {
        const QSqlError e = st->prev.lastError().isValid() ? st->prev.lastError() : st->count.lastError();
        m_damaged = isDamage(e);
        *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(e));
        return false;
    }
    m_st = std::move(st);
    return true;
}

QString SqliteChipStore::nativeError(bool *damaged) const
{
    const int code = sqlite3_extended_errcode(m_st->handle) & 0xFF;
    *damaged = code == kSqliteCorrupt || code == kSqliteNotADb;
    QString why = QString::fromUtf8(sqlite3_errmsg(m_st->handle));
    if (code == kSqliteBusy || code == kSqliteLocked)
        why += QStringLiteral(" (another program holds it)");
    return QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), why);
}

bool SqliteChipStore::beginBatch(QString *error)
{
    QString dummy;
    if (!error)
        error = &dummy;
    if (!m_open) {
        *error = QStringLiteral("the chip store is not open");
        return false;
    }
    if (m_batch)
        return true;
    if (!prepareStatements(error))
        return false;
    if (step(m_st->begin) != SQLITE_DONE) {
        *error = nativeError(&m_damaged);
        return false;
    }
    m_batch = true;
    return true;
}

bool SqliteChipStore::endBatch(QString *error)
{
    if (!m_batch)
        return true;
    m_batch = false;
    if (step(m_st->commit) == SQLITE_DONE)
        return true;
    QString dummy;
    *(error ? error : &dummy) = nativeError(&m_damaged);
    step(m_st->rollback);
    return false;
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
    if (!prepareStatements(error))
        return -1;
    Statements &st = *m_st;
    // In a batch, a failure ends the batch's transaction as well.
    bool inTransaction = m_batch;
    auto end = [&] {
        st.prev.finish();
        st.count.finish();
        if (inTransaction)
            step(st.rollback);
        m_batch = false;
        return qint64(-1);
    };
    auto failNative = [&] {
        *error = nativeError(&m_damaged);
        return end();
    };
    auto failQt = [&](const QSqlError &e) {
        m_damaged = isDamage(e);
        *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(m_path), textOf(e));
        return end();
    };
    if (!inTransaction) {
        if (step(st.begin) != SQLITE_DONE)
            return failNative();
        inTransaction = true;
    }
    qint64 added = 0;
    sqlite3_stmt *ins = st.insert;
    QByteArray key;
    for (const ChipRow &r : rows) {
        key = r.key.isEmpty() ? ChipRowKey(r) : r.key;
        sqlite3_bind_blob(ins, 1, key.constData(), int(key.size()), SQLITE_STATIC);
        sqlite3_bind_int64(ins, 2, r.utcMs);
        bindText(ins, 3, r.local, st.text[3]);
        bindText(ins, 4, r.station, st.text[4]);
        bindText(ins, 5, r.port, st.text[5]);
        bindText(ins, 6, r.chipId, st.text[6]);
        bindText(ins, 7, r.order, st.text[7]);
        bindText(ins, 8, r.image, st.text[8]);
        sqlite3_bind_int64(ins, 9, r.length);
        bindText(ins, 10, r.sha256, st.text[10]);
        sqlite3_bind_int64(ins, 11, r.durationMs);
        sqlite3_bind_int64(ins, 12, r.retries);
        bindText(ins, 13, r.result, st.text[13]);
        bindText(ins, 14, r.version, st.text[14]);
        const int rc = sqlite3_step(ins);
        if (rc != SQLITE_DONE) {
            // The reason is read before the reset, which would keep only the code.
            const qint64 failed = failNative();
            sqlite3_reset(ins);
            return failed;
        }
        const bool stored = sqlite3_changes(st.handle) == 1;
        const qint64 id = sqlite3_last_insert_rowid(st.handle);
        sqlite3_reset(ins);
        if (!stored)
            continue;
        ++added;
        if (!met)
            continue;
        st.prev.bindValue(0, r.chipId);
        st.prev.bindValue(1, r.utcMs);
        if (!st.prev.exec())
            return failQt(st.prev.lastError());
        if (st.prev.next()) {
            ChipMet m;
            m.now = r;
            m.now.id = id;
            m.before = ChipRowFromQuery(st.prev);
            st.count.bindValue(0, r.chipId);
            st.count.bindValue(1, r.utcMs);
            if (!st.count.exec() || !st.count.next())
                return failQt(st.count.lastError());
            m.times = st.count.value(0).toLongLong();
            st.count.finish();
            met->append(m);
        }
        // A statement left open would hold its read of the file.
        st.prev.finish();
    }
    sqlite3_clear_bindings(ins);
    if (!m_batch && step(st.commit) != SQLITE_DONE)
        return failNative();
    return added;
}

bool SqliteChipStore::select(const ChipQuery &query, const std::function<bool(const ChipRow &)> &each, QString *error)
{
    if (!m_open) {
        if (error)
            *error = QStringLiteral("the chip store is not open");
        return false;
    }
    const ChipWhere w = whereOf(query);
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc, id").arg(QLatin1String(kColumns), w.sql), w.binds, error))
        return false;
    while (q.next())
        if (!each(ChipRowFromQuery(q)))
            break;
    return true;
}

QList<ChipRow> SqliteChipStore::page(const ChipQuery &query, std::optional<std::pair<qint64, qint64>> olderThan, int limit,
                                     QString *error)
{
    QList<ChipRow> rows;
    if (!m_open)
        return rows;
    ChipWhere w = whereOf(query);
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
        rows << ChipRowFromQuery(q);
    return rows;
}

QList<ChipRow> SqliteChipStore::newerThan(const ChipQuery &query, qint64 id, QString *error)
{
    QList<ChipRow> rows;
    if (!m_open)
        return rows;
    ChipWhere w = whereOf(query);
    w.sql += QStringLiteral(" AND id > ?");
    w.binds << id;
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc DESC, id DESC").arg(QLatin1String(kColumns), w.sql),
             w.binds, error))
        return rows;
    while (q.next())
        rows << ChipRowFromQuery(q);
    return rows;
}

bool SqliteChipStore::summary(const ChipQuery &query, ChipSummary *out, QString *error)
{
    return stats(query, out, nullptr, error);
}

QList<HourCount> SqliteChipStore::hourly(const ChipQuery &query, QString *error)
{
    QList<HourCount> hours;
    stats(query, nullptr, &hours, error);
    return hours;
}

bool SqliteChipStore::summaryAndHours(const ChipQuery &query, ChipSummary *out, QList<HourCount> *hours, QString *error)
{
    return stats(query, out, hours, error);
}

// One pass by the hour gives the picture and the summary's sums; the median
// is one more step, along the durations' index.
bool SqliteChipStore::stats(const ChipQuery &query, ChipSummary *out, QList<HourCount> *hours, QString *error)
{
    ChipSummary s;
    if (out)
        *out = s;
    if (hours)
        hours->clear();
    if (!m_open) {
        if (error)
            *error = QStringLiteral("the chip store is not open");
        return false;
    }
    const ChipWhere w = whereOf(query);
    // The span again as hours, which lets the hour index seek to it.
    ChipWhere byHour = w;
    if (query.since) {
        byHour.sql += QStringLiteral(" AND t_utc / 3600000 >= ?");
        byHour.binds << *query.since / 3600000;
    }
    if (query.until) {
        byHour.sql += QStringLiteral(" AND t_utc / 3600000 <= ?");
        byHour.binds << (*query.until - 1) / 3600000;
    }
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT t_utc / 3600000, count(*), total(result = 'done'), total(retries), "
                               "min(t_utc - duration_ms), max(t_utc) FROM chips WHERE %1 GROUP BY 1 ORDER BY 1").arg(byHour.sql),
             byHour.binds, error))
        return false;
    while (q.next()) {
        const qint64 n = q.value(1).toLongLong(), good = qint64(q.value(2).toDouble());
        const qint64 first = q.value(4).toLongLong(), last = q.value(5).toLongLong();
        s.firstMs = s.chips ? std::min(s.firstMs, first) : first;
        s.lastMs = s.chips ? std::max(s.lastMs, last) : last;
        s.chips += n;
        s.good += good;
        s.retries += qint64(q.value(3).toDouble());
        if (hours)
            hours->append({q.value(0).toLongLong() * 3600000, good, n - good});
    }
    if (q.lastError().isValid()) {
        if (error)
            *error = textOf(q.lastError());
        return false;
    }
    q.finish();
    s.failed = s.chips - s.good;
    if (out && s.chips > 0) {
        QVariantList binds = w.binds;
        binds << (s.chips - 1) / 2;
        if (!run(q, QStringLiteral("SELECT duration_ms FROM chips WHERE %1 ORDER BY duration_ms LIMIT 1 OFFSET ?").arg(w.sql),
                 binds, error) || !q.next())
            return false;
        s.medianDurationMs = q.value(0).toLongLong();
    }
    if (out)
        *out = s;
    return true;
}

} // namespace pyro
