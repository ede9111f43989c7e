#include "recordsconfig.h"
#include "chipstore.h"

#include <QDir>
#include <QFile>
#include <QUrl>

namespace pyro {

namespace {

const QStringList kSslModes{QStringLiteral("disable"), QStringLiteral("allow"), QStringLiteral("prefer"),
                            QStringLiteral("require"), QStringLiteral("verify-ca"), QStringLiteral("verify-full")};

// One key's value into the config; the reason when it is not one.
QString take(LineStoreConfig *c, const QString &key, const QString &value)
{
    if (key == QLatin1String("password"))
        return QStringLiteral("a password is never kept here: libpq takes it from ~/.pgpass or PGPASSWORD");
    if (value.isEmpty())
        return QStringLiteral("%1 has no value").arg(key);
    if (key == QLatin1String("host")) {
        c->host = value;
    } else if (key == QLatin1String("port")) {
        bool ok = false;
        const int p = value.toInt(&ok);
        if (!ok || p < 1 || p > 65535)
            return QStringLiteral("port '%1' is not a port number (1 to 65535)").arg(value);
        c->port = p;
    } else if (key == QLatin1String("dbname")) {
        c->dbname = value;
    } else if (key == QLatin1String("user")) {
        c->user = value;
    } else if (key == QLatin1String("sslmode")) {
        if (!kSslModes.contains(value))
            return QStringLiteral("sslmode '%1' is not one of %2").arg(value, kSslModes.join(QLatin1String(", ")));
        c->sslmode = value;
    } else {
        return QStringLiteral("unknown key '%1' (host, port, dbname, user, sslmode)").arg(key);
    }
    return {};
}

} // namespace

QString LineStoreConfig::url() const
{
    const auto enc = [](const QString &s) { return QString::fromLatin1(QUrl::toPercentEncoding(s)); };
    QString u = QStringLiteral("postgresql://");
    if (!user.isEmpty())
        u += enc(user) + QLatin1Char('@');
    const bool socket = host.startsWith(QLatin1Char('/'));
    if (!socket)
        u += host.contains(QLatin1Char(':')) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
    if (port && !socket)
        u += QLatin1Char(':') + QString::number(port);
    u += QLatin1Char('/') + enc(dbname);
    QStringList query;
    if (socket)
        query << QStringLiteral("host=") + host;
    if (port && socket)
        query << QStringLiteral("port=%1").arg(port);
    if (!sslmode.isEmpty())
        query << QStringLiteral("sslmode=") + sslmode;
    if (!query.isEmpty())
        u += QLatin1Char('?') + query.join(QLatin1Char('&'));
    return u;
}

bool ParseRecordsConf(const QByteArray &text, const QString &fileName, LineStoreConfig *out, QString *error)
{
    LineStoreConfig c;
    const QList<QByteArray> lines = text.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = QString::fromUtf8(lines[i]).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        const int eq = line.indexOf(QLatin1Char('='));
        QString why;
        if (eq <= 0)
            why = QStringLiteral("'%1' is not key=value").arg(line);
        else
            why = take(&c, line.left(eq).trimmed(), line.mid(eq + 1).trimmed());
        if (!why.isEmpty()) {
            *error = QStringLiteral("%1:%2: %3").arg(QDir::toNativeSeparators(fileName)).arg(i + 1).arg(why);
            return false;
        }
    }
    if (c.dbname.isEmpty()) {
        *error = QStringLiteral("%1: names no database (dbname=)").arg(QDir::toNativeSeparators(fileName));
        return false;
    }
    c.source = QDir::toNativeSeparators(fileName);
    *out = c;
    return true;
}

bool ParseRecordsUrl(const QString &url, LineStoreConfig *out, QString *error)
{
    const auto fail = [&](const QString &why) {
        *error = QStringLiteral("'%1': %2").arg(url, why);
        return false;
    };
    QString rest;
    for (const char *scheme : {"postgresql://", "postgres://"})
        if (url.startsWith(QLatin1String(scheme)))
            rest = url.mid(int(qstrlen(scheme)));
    if (rest.isNull())
        return fail(QStringLiteral("not a postgresql:// address"));
    LineStoreConfig c;
    QString query;
    const int q = rest.indexOf(QLatin1Char('?'));
    if (q >= 0) {
        query = rest.mid(q + 1);
        rest.truncate(q);
    }
    const int slash = rest.indexOf(QLatin1Char('/'));
    if (slash < 0)
        return fail(QStringLiteral("names no database (postgresql://user@host:port/DATABASE)"));
    QString authority = rest.left(slash);
    const auto dec = [](const QString &s) { return QUrl::fromPercentEncoding(s.toUtf8()); };
    c.dbname = dec(rest.mid(slash + 1));
    const int at = authority.lastIndexOf(QLatin1Char('@'));
    if (at >= 0) {
        const QString userInfo = authority.left(at);
        if (userInfo.contains(QLatin1Char(':')))
            return fail(QStringLiteral("a password is never given here: libpq takes it from ~/.pgpass or PGPASSWORD"));
        c.user = dec(userInfo);
        authority = authority.mid(at + 1);
    }
    QString portText;
    if (authority.startsWith(QLatin1Char('['))) {
        const int close = authority.indexOf(QLatin1Char(']'));
        if (close < 0)
            return fail(QStringLiteral("an address in [ ] is not closed"));
        c.host = authority.mid(1, close - 1);
        if (authority.mid(close + 1).startsWith(QLatin1Char(':')))
            portText = authority.mid(close + 2);
    } else {
        const int colon = authority.indexOf(QLatin1Char(':'));
        c.host = dec(colon < 0 ? authority : authority.left(colon));
        if (colon >= 0)
            portText = authority.mid(colon + 1);
    }
    QString why;
    if (!portText.isEmpty() && !(why = take(&c, QStringLiteral("port"), portText)).isEmpty())
        return fail(why);
    for (const QString &item : query.split(QLatin1Char('&'), Qt::SkipEmptyParts)) {
        const int eq = item.indexOf(QLatin1Char('='));
        const QString key = eq < 0 ? item : item.left(eq);
        if (key == QLatin1String("user") || key == QLatin1String("dbname") || key == QLatin1String("host")
            || key == QLatin1String("port") || key == QLatin1String("sslmode") || key == QLatin1String("password"))
            why = take(&c, key, eq < 0 ? QString() : dec(item.mid(eq + 1)));
        else
            why = QStringLiteral("unknown parameter '%1' (host, port, sslmode)").arg(key);
        if (!why.isEmpty())
            return fail(why);
    }
    if (c.dbname.isEmpty())
        return fail(QStringLiteral("names no database (postgresql://user@host:port/DATABASE)"));
    c.source = QStringLiteral("--records");
    *out = c;
    return true;
}

RecordsChoice ChooseRecords(const QString &recordFolder, const QString &appDir, const QString &url)
{
    RecordsChoice c;
    c.storePath = ChipStorePath(recordFolder);
    QString error;
    if (!url.isEmpty()) {
        if (!ParseRecordsUrl(url, &c.line, &error))
            c.notice = QStringLiteral("--records %1; the chips go to this bench's own store only").arg(error);
        return c;
    }
    if (appDir.isEmpty())
        return c;
    const QString path = QDir(appDir).filePath(QLatin1String(kRecordsConfName));
    QFile f(path);
    if (!f.exists())
        return c;
    if (!f.open(QIODevice::ReadOnly))
        error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(path), f.errorString());
    else if (f.size() > 65536)
        error = QStringLiteral("%1: too large for a connection file").arg(QDir::toNativeSeparators(path));
    else
        ParseRecordsConf(f.readAll(), path, &c.line, &error);
    if (!error.isEmpty()) {
        c.line = {};
        c.notice = QStringLiteral("The line's chip store is not used: %1. The chips go to this bench's own store.").arg(error);
    }
    return c;
}

} // namespace pyro
