#pragma once
// Which store a bench's chips go to: always its own embedded store, and the
// line's PostgreSQL server when records.conf in the application folder (or
// pyrolink-cli --records URL) names one.
#include <QString>

namespace pyro {

// A server as libpq is given it. The password is never here: libpq takes it
// from ~/.pgpass (PGPASSFILE) or PGPASSWORD.
struct LineStoreConfig {
    QString host;        // a name or address, or a socket folder (begins with '/'); empty: libpq's default
    int port = 0;        // 0: libpq's default (5432)
    QString dbname;
    QString user;        // empty: libpq's default (the login name)
    QString sslmode;     // empty: libpq's default
    QString source;      // the file or the command-line option it came from, for messages
    bool isSet() const { return !dbname.isEmpty(); }
    // "postgresql://bench@db1:5432/line", the server as messages name it.
    QString url() const;
};

// The connection file's name in the application folder.
inline constexpr char kRecordsConfName[] = "records.conf";

// key=value lines (host, port, dbname, user, sslmode), '#' comments, blank
// lines. False with error naming the file and the line when it doesn't parse.
bool ParseRecordsConf(const QByteArray &text, const QString &fileName, LineStoreConfig *out, QString *error);
// postgresql://[user@][host][:port]/dbname[?host=/socket/dir&port=N&sslmode=M]
bool ParseRecordsUrl(const QString &url, LineStoreConfig *out, QString *error);

struct RecordsChoice {
    QString storePath;       // the bench's embedded store, always written
    LineStoreConfig line;    // the line's store; not set: the embedded one is the store
    QString notice;          // why a line's store that was named is not used
};
// The choice at start: url when given (the command line's), else
// records.conf in appDir when there is one, else the embedded store alone.
RecordsChoice ChooseRecords(const QString &recordFolder, const QString &appDir, const QString &url = {});

} // namespace pyro
