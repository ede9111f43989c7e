#include "sqlrows.h"

#include <QSqlQuery>
#include <QStringList>
#include <QVariant>

namespace pyro {

ChipRow ChipRowFromQuery(const QSqlQuery &q)
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

ChipWhere ChipWhereOf(const ChipQuery &q, QString (*prefixClause)(const QString &column),
                      QString (*prefixPattern)(const QString &typed), const QString &always)
{
    QStringList c;
    QVariantList b;
    auto match = [&](const char *column, const QString &v, bool prefix) {
        if (v.isEmpty())
            return;
        const QString col = QLatin1String(column);
        c << (prefix ? prefixClause(col) : col + QStringLiteral(" = ?"));
        b << (prefix ? prefixPattern(v) : v);
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
    return {c.isEmpty() ? always : c.join(QLatin1String(" AND ")), b};
}

} // namespace pyro
