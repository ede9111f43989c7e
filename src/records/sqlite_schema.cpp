// The embedded store's schema, version 1. One row per chip burn; the key
// keeps a burn from being stored twice. Indexes serve the questions asked:
// a chip's history, a span of time, an order.
#include "sqlitestore.h"

namespace pyro {

const char *const kSqliteSchema[] = {
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
    "PRAGMA user_version = 1",
    nullptr,
};

} // namespace pyro
