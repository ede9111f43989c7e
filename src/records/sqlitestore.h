#pragma once
// The embedded store: one SQLite file through Qt SQL, in WAL mode.
#include "chipstore.h"

#include <QSqlDatabase>
#include <memory>

namespace pyro {

// The schema's version in PRAGMA user_version; stores of a newer version
// are left alone.
constexpr int kSqliteSchemaVersion = 2;
// The statements of each version, in sqlite_schema.cpp, each list ended by a
// null: kSqliteSchema[v - 1] takes a store from version v - 1 to v. A fresh
// store runs them all; an older one those after its own, when it opens to write.
extern const char *const *const kSqliteSchema[kSqliteSchemaVersion];

class SqliteChipStore : public ChipStore {
public:
    struct Options {
        bool create = true;          // make the file and its schema when absent
        bool check = false;          // a whole-file check at open (the writer's)
        int busyMs = 250;            // how long a statement waits on another's lock
        int cacheMb = 64;            // pages kept in memory
    };
    SqliteChipStore(const QString &path, const Options &options);
    explicit SqliteChipStore(const QString &path) : SqliteChipStore(path, Options{}) {}
    ~SqliteChipStore() override;

    bool open(QString *error, QString *notice = nullptr) override;
    void close() override;
    bool isOpen() const override { return m_open; }
    qint64 append(const QList<ChipRow> &rows, QList<ChipMet> *met, QString *error) override;
    bool beginBatch(QString *error) override;
    bool endBatch(QString *error) override;
    bool select(const ChipQuery &q, const std::function<bool(const ChipRow &)> &each, QString *error) override;
    QList<ChipRow> page(const ChipQuery &q, std::optional<std::pair<qint64, qint64>> olderThan, int limit,
                        QString *error) override;
    QList<ChipRow> newerThan(const ChipQuery &q, qint64 id, QString *error) override;
    bool summary(const ChipQuery &q, ChipSummary *out, QString *error) override;
    QList<HourCount> hourly(const ChipQuery &q, QString *error) override;
    bool summaryAndHours(const ChipQuery &q, ChipSummary *out, QList<HourCount> *hours, QString *error) override;

    QString path() const { return m_path; }
    // The last failure was damage to the file (not a lock, a full disk or a
    // read-only file): the caller may close and open again, which sets it aside.
    bool damaged() const { return m_damaged; }
    // The schema version of the open store.
    int version() const { return m_version; }

private:
    // False with asideWhy set: the file is not a store to keep.
    bool openOnce(QString *error, QString *asideWhy);
    bool setAside(const QString &why, QString *notice, QString *error);
    bool upgrade(int from, QString *error);
    bool stats(const ChipQuery &q, ChipSummary *out, QList<HourCount> *hours, QString *error);
    // The writer's statements, prepared once for the life of the connection.
    struct Statements;
    bool prepareStatements(QString *error);
    QString nativeError(bool *damaged) const;
    std::unique_ptr<Statements> m_st;
    bool m_batch = false;
    int m_version = 0;
    QString m_path;
    Options m_opt;
    QString m_conn;
    bool m_open = false;
    bool m_damaged = false;
};

} // namespace pyro
