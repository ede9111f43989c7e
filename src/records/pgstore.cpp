#include "pgstore.h"
#include "sqlrows.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <atomic>

namespace pyro {

namespace {

const char kColumns[] = "id, key, t_utc, t_local, station, port, chip_id, order_text, image, length, sha256, "
                        "duration_ms, retries, result, app_version";
const char kInsertColumns[] = "key, t_utc, t_local, station, port, chip_id, order_text, image, length, sha256, "
                              "duration_ms, retries, result, app_version";
constexpr int kInsertFields = 14;
// Rows a statement inserts at once: a batch from a killed shift or a copy of
// a bench's store goes in a few hundred rows a round trip.
constexpr int kChunk = 250;
// Every append holds this lock until its commit, so ids become visible in
// their order and a window that follows "rows after id N" misses none.
constexpr qint64 kAppendLock = 0x7079726f6c6e6b31;   // "pyrolnk1"
// The same lock kind serialises the first use of an empty database by two benches.
constexpr qint64 kSchemaLock = 0x7079726f6c6e6b30;

std::atomic<int> s_connections{0};

QString textOf(const QSqlError &e)
{
    QString t = e.databaseText().trimmed();
    if (t.isEmpty())
        t = e.text().trimmed();
    return t.simplified();
}

QString text(const QString &s)
{
    return s.isNull() ? QStringLiteral("") : s;
}

// A beginning typed by the operator as a LIKE pattern, its own wildcards
// taken literally ('!' is the escape).
QString likePrefix(const QString &s)
{
    QString p;
    for (QChar c : s) {
        if (c == QLatin1Char('%') || c == QLatin1Char('_') || c == QLatin1Char('!'))
            p += QLatin1Char('!');
        p += c;
    }
    return p + QLatin1Char('%');
}

QString likeClause(const QString &column)
{
    return column + QStringLiteral(" LIKE ? ESCAPE '!'");
}

ChipWhere whereOf(const ChipQuery &q)
{
    return ChipWhereOf(q, likeClause, likePrefix, QStringLiteral("true"));
}

} // namespace

QString PgServerTrouble(int versionNum, const QString &server)
{
    if (versionNum >= kPgMinServer)
        return {};
    // 9.6 is 90600, 10 is 100000.
    const QString v = versionNum >= 100000 ? QString::number(versionNum / 10000)
                                           : QStringLiteral("%1.%2").arg(versionNum / 10000).arg(versionNum / 100 % 100);
    return QStringLiteral("the line's chip store %1 runs PostgreSQL %2; Pyrolink needs %3 or newer")
        .arg(server, versionNum > 0 ? v : QStringLiteral("of an unknown version"))
        .arg(kPgMinServer / 10000);
}

PgChipStore::PgChipStore(const LineStoreConfig &config, const Options &options)
    : m_cfg(config), m_opt(options), m_conn(QStringLiteral("pyro-line-%1").arg(++s_connections))
{
}

PgChipStore::~PgChipStore()
{
    close();
}

void PgChipStore::close()
{
    m_open = false;
    if (!QSqlDatabase::contains(m_conn))
        return;
    {
        QSqlDatabase db = QSqlDatabase::database(m_conn, false);
        db.close();
    }
    QSqlDatabase::removeDatabase(m_conn);
}

QString PgChipStore::failure(const QString &what, const QSqlError &e)
{
    const QString t = QStringLiteral("the line's chip store %1: %2: %3").arg(m_cfg.url(), what, textOf(e));
    {
        QSqlDatabase db = QSqlDatabase::database(m_conn, false);
        if (db.isOpen())
            db.rollback();
    }
    // Closed by the next open(), once no statement holds the connection.
    m_open = false;
    return t;
}

bool PgChipStore::open(QString *error, QString *)
{
    QString dummy;
    if (!error)
        error = &dummy;
    close();
    if (!openOnce(error)) {
        close();
        return false;
    }
    m_open = true;
    return true;
}

bool PgChipStore::openOnce(QString *error)
{
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QPSQL"))) {
        *error = QStringLiteral("the line's chip store %1 can't be used: Qt SQL's PostgreSQL driver (libqt6sql6-psql) "
                                "is not installed").arg(m_cfg.url());
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_conn);
    db.setHostName(m_cfg.host);
    if (m_cfg.port)
        db.setPort(m_cfg.port);
    db.setDatabaseName(m_cfg.dbname);
    db.setUserName(m_cfg.user);
    QStringList opts{QStringLiteral("connect_timeout=%1").arg(m_opt.connectTimeoutS),
                     QStringLiteral("application_name=pyrolink")};
    if (!m_cfg.sslmode.isEmpty())
        opts << QStringLiteral("sslmode=") + m_cfg.sslmode;
    // A writer finds a server gone without a word (a cable, a crash) in
    // seconds, not after the system's two hours.
    if (m_opt.writer)
        opts << QStringLiteral("keepalives_idle=5") << QStringLiteral("keepalives_interval=2")
             << QStringLiteral("keepalives_count=3") << QStringLiteral("tcp_user_timeout=10000");
    db.setConnectOptions(opts.join(QLatin1Char(';')));
    if (!db.open()) {
        *error = QStringLiteral("the line's chip store %1 can't be reached: %2").arg(m_cfg.url(), textOf(db.lastError()));
        return false;
    }
    QSqlQuery q(db);
    q.setForwardOnly(true);
    if (!q.exec(QStringLiteral("SHOW server_version_num")) || !q.next()) {
        *error = failure(QStringLiteral("asking its version"), q.lastError());
        return false;
    }
    const int server = q.value(0).toInt();
    q.finish();
    if (const QString trouble = PgServerTrouble(server, m_cfg.url()); !trouble.isEmpty()) {
        *error = trouble;
        return false;
    }
    // Each statement planned for its values: a typed beginning is then an
    // index range, not a scan of the table.
    if (server >= 120000)
        q.exec(QStringLiteral("SET plan_cache_mode = force_custom_plan"));
    if (m_opt.writer)
        q.exec(QStringLiteral("SET statement_timeout = 30000"));
    q.finish();

    if (!q.exec(QStringLiteral("SELECT to_regclass('chips_version') IS NOT NULL, to_regclass('chips') IS NOT NULL")) || !q.next()) {
        *error = failure(QStringLiteral("reading its tables"), q.lastError());
        return false;
    }
    const bool hasVersion = q.value(0).toBool(), hasChips = q.value(1).toBool();
    q.finish();
    if (!hasVersion && !hasChips) {
        if (!m_opt.create) {
            *error = QStringLiteral("the line's chip store %1 holds no chips yet").arg(m_cfg.url());
            return false;
        }
        return createSchema(error);
    }
    if (!hasVersion) {
        *error = QStringLiteral("the line's chip store %1 has a table chips that is not a chip store's; it is left as it is")
                     .arg(m_cfg.url());
        return false;
    }
    if (!q.exec(QStringLiteral("SELECT max(version) FROM chips_version")) || !q.next()) {
        *error = failure(QStringLiteral("reading its schema version"), q.lastError());
        return false;
    }
    const int version = q.value(0).toInt();
    q.finish();
    if (version > kPgSchemaVersion) {
        *error = QStringLiteral("the line's chip store %1 was made by a newer Pyrolink (schema %2, this one knows %3); "
                                "it is left as it is").arg(m_cfg.url()).arg(version).arg(kPgSchemaVersion);
        return false;
    }
    // Version 1 is the only one yet; upgrades would go here, in order, under kSchemaLock.
    if (!q.exec(QStringLiteral("SELECT %1 FROM chips LIMIT 0").arg(QLatin1String(kColumns)))) {
        *error = QStringLiteral("the line's chip store %1: its table chips is not a chip store's: %2")
                     .arg(m_cfg.url(), textOf(q.lastError()));
        return false;
    }
    return true;
}

bool PgChipStore::createSchema(QString *error)
{
    QSqlDatabase db = QSqlDatabase::database(m_conn, false);
    QSqlQuery q(db);
    if (!db.transaction()) {
        *error = failure(QStringLiteral("starting its schema"), db.lastError());
        return false;
    }
    // Another bench may be making it at this moment: the lock, then look again.
    if (!q.exec(QStringLiteral("SELECT pg_advisory_xact_lock(%1)").arg(kSchemaLock))
        || !q.exec(QStringLiteral("SELECT to_regclass('chips_version') IS NOT NULL")) || !q.next()) {
        *error = failure(QStringLiteral("starting its schema"), q.lastError());
        return false;
    }
    const bool made = q.value(0).toBool();
    q.finish();
    if (!made) {
        for (const char *const *s = kPgSchema; *s; ++s) {
            if (!q.exec(QString::fromLatin1(*s))) {
                *error = failure(QStringLiteral("making its tables (the first use needs a role that may create "
                                                "tables in the database's schema)"), q.lastError());
                return false;
            }
        }
    }
    if (!db.commit()) {
        *error = failure(QStringLiteral("making its tables"), db.lastError());
        return false;
    }
    return true;
}

qint64 PgChipStore::append(const QList<ChipRow> &rows, QList<ChipMet> *met, QString *error)
{
    QString dummy;
    if (!error)
        error = &dummy;
    if (!m_open) {
        *error = QStringLiteral("the line's chip store %1 is not open").arg(m_cfg.url());
        return -1;
    }
    QSqlDatabase db = QSqlDatabase::database(m_conn, false);
    auto fail = [&](const QSqlError &e) {
        *error = failure(QStringLiteral("storing chips"), e);
        return qint64(-1);
    };
    if (rows.isEmpty())
        return 0;
    if (!db.transaction())
        return fail(db.lastError());
    QSqlQuery q(db);
    q.setForwardOnly(true);
    if (!q.exec(QStringLiteral("SELECT pg_advisory_xact_lock(%1)").arg(kAppendLock)))
        return fail(q.lastError());
    q.finish();
    QHash<QByteArray, qint64> added;   // key to id, of the rows this call stored
    QHash<int, QString> statements;
    for (qsizetype from = 0; from < rows.size(); from += kChunk) {
        const int n = int(std::min<qsizetype>(kChunk, rows.size() - from));
        QString &sql = statements[n];
        if (sql.isEmpty()) {
            QStringList tuples;
            const QString one = QLatin1Char('(') + QStringList(kInsertFields, QStringLiteral("?")).join(QLatin1Char(',')) + QLatin1Char(')');
            for (int i = 0; i < n; ++i)
                tuples << one;
            sql = QStringLiteral("INSERT INTO chips (%1) VALUES %2 ON CONFLICT (key) DO NOTHING RETURNING id, key")
                      .arg(QLatin1String(kInsertColumns), tuples.join(QLatin1Char(',')));
        }
        QSqlQuery ins(db);
        ins.setForwardOnly(true);
        if (!ins.prepare(sql))
            return fail(ins.lastError());
        for (int i = 0; i < n; ++i) {
            const ChipRow &r = rows[from + i];
            const QVariantList v{r.key.isEmpty() ? ChipRowKey(r) : r.key, r.utcMs, text(r.local), text(r.station),
                                 text(r.port), text(r.chipId), text(r.order), text(r.image), r.length, text(r.sha256),
                                 r.durationMs, r.retries, text(r.result), text(r.version)};
            for (const QVariant &x : v)
                ins.addBindValue(x);
        }
        if (!ins.exec())
            return fail(ins.lastError());
        while (ins.next())
            added.insert(ins.value(1).toByteArray(), ins.value(0).toLongLong());
    }
    if (met && !added.isEmpty()) {
        QSqlQuery prev(db), count(db);
        prev.setForwardOnly(true);
        count.setForwardOnly(true);
        if (!prev.prepare(QStringLiteral("SELECT %1 FROM chips WHERE chip_id = ? AND result = 'done' AND t_utc < ? "
                                         "ORDER BY t_utc DESC, id DESC LIMIT 1").arg(QLatin1String(kColumns))))
            return fail(prev.lastError());
        if (!count.prepare(QStringLiteral("SELECT count(*) FROM chips WHERE chip_id = ? AND result = 'done' AND t_utc < ?")))
            return fail(count.lastError());
        for (const ChipRow &r : rows) {
            const QByteArray key = r.key.isEmpty() ? ChipRowKey(r) : r.key;
            const auto it = added.constFind(key);
            if (it == added.cend())
                continue;
            prev.addBindValue(text(r.chipId));
            prev.addBindValue(r.utcMs);
            if (!prev.exec())
                return fail(prev.lastError());
            if (prev.next()) {
                ChipMet m;
                m.now = r;
                m.now.id = *it;
                m.before = ChipRowFromQuery(prev);
                count.addBindValue(text(r.chipId));
                count.addBindValue(r.utcMs);
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
    return added.size();
}

namespace {

bool run(QSqlQuery &q, const QString &sql, const QVariantList &binds)
{
    q.setForwardOnly(true);
    if (!q.prepare(sql))
        return false;
    for (const QVariant &v : binds)
        q.addBindValue(v);
    return q.exec();
}

} // namespace

bool PgChipStore::select(const ChipQuery &query, const std::function<bool(const ChipRow &)> &each, QString *error)
{
    if (!m_open) {
        if (error)
            *error = QStringLiteral("the line's chip store %1 is not open").arg(m_cfg.url());
        return false;
    }
    // A million rows come a few thousand at a time, each part after the last
    // row of the one before, never all in this program's memory at once.
    constexpr int kPart = 2000;
    std::optional<std::pair<qint64, qint64>> after;
    for (;;) {
        ChipWhere w = whereOf(query);
        if (after) {
            w.sql += QStringLiteral(" AND (t_utc, id) > (?, ?)");
            w.binds << after->first << after->second;
        }
        w.binds << kPart;
        QSqlQuery q(QSqlDatabase::database(m_conn, false));
        if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc, id LIMIT ?").arg(QLatin1String(kColumns), w.sql),
                 w.binds)) {
            const QString e = failure(QStringLiteral("reading chips"), q.lastError());
            if (error)
                *error = e;
            return false;
        }
        int n = 0;
        while (q.next()) {
            const ChipRow r = ChipRowFromQuery(q);
            ++n;
            if (!each(r))
                return true;
            after = std::make_pair(r.utcMs, r.id);
        }
        if (n < kPart)
            return true;
    }
}

QList<ChipRow> PgChipStore::page(const ChipQuery &query, std::optional<std::pair<qint64, qint64>> olderThan, int limit,
                                 QString *error)
{
    QList<ChipRow> rows;
    if (!m_open)
        return rows;
    ChipWhere w = whereOf(query);
    if (olderThan) {
        w.sql += QStringLiteral(" AND (t_utc, id) < (?, ?)");
        w.binds << olderThan->first << olderThan->second;
    }
    w.binds << limit;
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc DESC, id DESC LIMIT ?").arg(QLatin1String(kColumns), w.sql),
             w.binds)) {
        const QString e = failure(QStringLiteral("reading chips"), q.lastError());
        if (error)
            *error = e;
        return rows;
    }
    while (q.next())
        rows << ChipRowFromQuery(q);
    return rows;
}

QList<ChipRow> PgChipStore::newerThan(const ChipQuery &query, qint64 id, QString *error)
{
    QList<ChipRow> rows;
    if (!m_open)
        return rows;
    ChipWhere w = whereOf(query);
    w.sql += QStringLiteral(" AND id > ?");
    w.binds << id;
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT %1 FROM chips WHERE %2 ORDER BY t_utc DESC, id DESC").arg(QLatin1String(kColumns), w.sql),
             w.binds)) {
        const QString e = failure(QStringLiteral("reading chips"), q.lastError());
        if (error)
            *error = e;
        return rows;
    }
    while (q.next())
        rows << ChipRowFromQuery(q);
    return rows;
}

bool PgChipStore::summary(const ChipQuery &query, ChipSummary *out, QString *error)
{
    *out = ChipSummary{};
    if (!m_open)
        return false;
    const ChipWhere w = whereOf(query);
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    // The lower median, as the embedded store gives it.
    if (!run(q, QStringLiteral("SELECT count(*), count(*) FILTER (WHERE result = 'done'), coalesce(sum(retries), 0), "
                               "min(t_utc - duration_ms), max(t_utc), "
                               "percentile_disc(0.5) WITHIN GROUP (ORDER BY duration_ms) FROM chips WHERE %1").arg(w.sql),
             w.binds) || !q.next()) {
        const QString e = failure(QStringLiteral("summing chips"), q.lastError());
        if (error)
            *error = e;
        return false;
    }
    out->chips = q.value(0).toLongLong();
    out->good = q.value(1).toLongLong();
    out->failed = out->chips - out->good;
    out->retries = q.value(2).toLongLong();
    out->firstMs = q.value(3).toLongLong();
    out->lastMs = q.value(4).toLongLong();
    out->medianDurationMs = q.value(5).toLongLong();
    return true;
}

QList<HourCount> PgChipStore::hourly(const ChipQuery &query, QString *error)
{
    QList<HourCount> hours;
    if (!m_open)
        return hours;
    const ChipWhere w = whereOf(query);
    QSqlQuery q(QSqlDatabase::database(m_conn, false));
    if (!run(q, QStringLiteral("SELECT t_utc / 3600000, count(*) FILTER (WHERE result = 'done'), "
                               "count(*) FILTER (WHERE result <> 'done') FROM chips WHERE %1 GROUP BY 1 ORDER BY 1").arg(w.sql),
             w.binds)) {
        const QString e = failure(QStringLiteral("counting chips an hour"), q.lastError());
        if (error)
            *error = e;
        return hours;
    }
    while (q.next())
        hours.append({q.value(0).toLongLong() * 3600000, q.value(1).toLongLong(), q.value(2).toLongLong()});
    return hours;
}

} // namespace pyro
