#pragma once
// What both SQL stores share: a chip row read back from a query that
// selects the columns in the order of ChipRow (id, key, utc, local, station,
// port, chip, order, image, length, sha256, duration, retries, result,
// version).
#include "chipstore.h"

#include <QVariantList>

class QSqlQuery;

namespace pyro {

ChipRow ChipRowFromQuery(const QSqlQuery &q);

// A query's WHERE clause and its values. The engines differ only in how a
// typed beginning is matched: prefixClause gives the clause for a column
// ("chip_id GLOB ?"), prefixPattern the value bound to it.
struct ChipWhere {
    QString sql;
    QVariantList binds;
};
ChipWhere ChipWhereOf(const ChipQuery &q, QString (*prefixClause)(const QString &column),
                      QString (*prefixPattern)(const QString &typed), const QString &always);

} // namespace pyro
