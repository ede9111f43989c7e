#pragma once
// What both SQL stores share: a chip row read back from a query that
// selects the columns in the order of ChipRow (id, key, utc, local, station,
// port, chip, order, image, length, sha256, duration, retries, result,
// version).
#include "chipstore.h"

class QSqlQuery;

namespace pyro {

ChipRow ChipRowFromQuery(const QSqlQuery &q);

} // namespace pyro
