#pragma once
// The line's store: a PostgreSQL server through Qt SQL's QPSQL driver, shared
// by every bench of a line. The same rows and questions as the embedded
// store; its own schema, versioned in the table chips_version.
#include "chipstore.h"
#include "recordsconfig.h"

class QSqlError;

namespace pyro {

constexpr int kPgSchemaVersion = 1;
// Identity columns (10) and ON CONFLICT (9.5): the oldest server taken.
constexpr int kPgMinServer = 100000;
// The statements that make version 1, in pg_schema.cpp.
extern const char *const kPgSchema[];

// What is wrong with a server of this server_version_num; empty: nothing.
QString PgServerTrouble(int versionNum, const QString &server);

class PgChipStore : public ChipStore {
public:
    struct Options {
        bool create = true;          // make the tables on first use
        bool writer = false;         // a writer's connection: keepalives and a statement limit
        int connectTimeoutS = 2;     // a dead server costs this much of the caller's thread
    };
    PgChipStore(const LineStoreConfig &config, const Options &options);
    explicit PgChipStore(const LineStoreConfig &config) : PgChipStore(config, Options{}) {}
    ~PgChipStore() override;

    bool open(QString *error, QString *notice = nullptr) override;
    void close() override;
    bool isOpen() const override { return m_open; }
    qint64 append(const QList<ChipRow> &rows, QList<ChipMet> *met, QString *error) override;
    bool select(const ChipQuery &q, const std::function<bool(const ChipRow &)> &each, QString *error) override;
    QList<ChipRow> page(const ChipQuery &q, std::optional<std::pair<qint64, qint64>> olderThan, int limit,
                        QString *error) override;
    QList<ChipRow> newerThan(const ChipQuery &q, qint64 id, QString *error) override;
    bool summary(const ChipQuery &q, ChipSummary *out, QString *error) override;
    QList<HourCount> hourly(const ChipQuery &q, QString *error) override;

    const LineStoreConfig &config() const { return m_cfg; }

private:
    bool openOnce(QString *error);
    bool createSchema(QString *error);
    // The statement's failure as a message naming the server; the connection
    // counts as closed, so that the caller connects afresh (a server restarted).
    QString failure(const QString &what, const QSqlError &e);
    LineStoreConfig m_cfg;
    Options m_opt;
    QString m_conn;
    bool m_open = false;
};

} // namespace pyro
