// The line's store's schema, version 1: the embedded store's row, with the
// texts that are matched by their beginning in the "C" collation, so that a
// prefix typed in the history window is an index range. chips_version holds
// the schema's version; the (t_utc, id) index serves the window's pages, the
// others a chip's history and an order's summary.
#include "pgstore.h"

namespace pyro {

const char *const kPgSchema[] = {
    "CREATE TABLE chips_version (version integer NOT NULL)",
    "INSERT INTO chips_version (version) VALUES (1)",
    "CREATE TABLE chips ("
    " id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,"
    " key bytea NOT NULL UNIQUE,"
    " t_utc bigint NOT NULL,"
    " t_local text NOT NULL,"
    " station text COLLATE \"C\" NOT NULL,"
    " port text COLLATE \"C\" NOT NULL,"
    " chip_id text COLLATE \"C\" NOT NULL,"
    " order_text text COLLATE \"C\" NOT NULL,"
    " image text NOT NULL,"
    " length bigint NOT NULL,"
    " sha256 text NOT NULL,"
    " duration_ms bigint NOT NULL,"
    " retries integer NOT NULL,"
    " result text COLLATE \"C\" NOT NULL,"
    " app_version text NOT NULL)",
    "CREATE INDEX chips_time ON chips (t_utc, id)",
    "CREATE INDEX chips_chip ON chips (chip_id, t_utc)",
    "CREATE INDEX chips_order ON chips (order_text, t_utc)",
    nullptr,
};

} // namespace pyro
