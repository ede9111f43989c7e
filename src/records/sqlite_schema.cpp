// The embedded store's schema, version by version. One row per chip burn;
// the key keeps a burn from being stored twice. Indexes serve the questions
// asked: a chip's history, a span of time, an order, and the summary.
#include "sqlitestore.h"

namespace pyro {

namespace {

const char *const kVersion1[] = {
    "CREATE TABLE chips ("
    " id INTEGER PRIMARY KEY,"
    " key BLOB NOT NULL UNIQUE,"
    " t_utc INTEGER NOT NULL,"
    " t_local TEXT NOT NULL,"
    " station TEXT NOT NULL,"
    " port TEXT NOT NULL,"
    " chip_id TEXT NOT NULL,"
    " order_text TEXT NOT NULL,"
    " image TEXT NOT NULL,"
    " length INTEGER NOT NULL,"
    " sha256 TEXT NOT NULL,"
    " duration_ms INTEGER NOT NULL,"
    " retries INTEGER NOT NULL,"
    " result TEXT NOT NULL,"
    " app_version TEXT NOT NULL)",
    "CREATE INDEX chips_time ON chips (t_utc)",
    "CREATE INDEX chips_chip ON chips (chip_id, t_utc)",
    "CREATE INDEX chips_order ON chips (order_text, t_utc)",
    nullptr,
};

// The summary without reading the table: the hour first, so that the
// chips-an-hour picture is grouped in the index's own order with no sort,
// and what the summary adds up and filters on after it. The durations in
// order give the median by skipping half of them.
const char *const kVersion2[] = {
    "CREATE INDEX chips_hour ON chips (t_utc / 3600000, t_utc, result, retries, duration_ms, port, station)",
    "CREATE INDEX chips_duration ON chips (duration_ms)",
    nullptr,
};

} // namespace

const char *const *const kSqliteSchema[kSqliteSchemaVersion] = {kVersion1, kVersion2};

} // namespace pyro
