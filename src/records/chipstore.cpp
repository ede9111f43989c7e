#include "chipstore.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSysInfo>
#include <algorithm>

namespace pyro {

namespace {

const QString kTimeFormat = QStringLiteral("yyyy-MM-dd HH:mm:ss");
constexpr int kCsvFields = 10;

QString secondsText(qint64 ms)
{
    return QString::number(double(ms) / 1000.0, 'f', 3);
}

// "12.345" to 12345 exactly: the CSV keeps milliseconds as three decimals.
bool parseSeconds(const QString &s, qint64 *ms)
{
    const int dot = s.indexOf(QLatin1Char('.'));
    const QString whole = dot < 0 ? s : s.left(dot);
    QString frac = dot < 0 ? QString() : s.mid(dot + 1);
    if (whole.isEmpty() || frac.size() > 3)
        return false;
    bool ok1 = false, ok2 = true;
    const qint64 w = whole.toLongLong(&ok1);
    qint64 f = 0;
    if (!frac.isEmpty()) {
        frac = frac.leftJustified(3, QLatin1Char('0'));
        f = frac.toLongLong(&ok2);
    }
    if (!ok1 || !ok2 || w < 0 || f < 0)
        return false;
    *ms = w * 1000 + f;
    return true;
}

bool digits(QStringView s, int from, int n, int *v)
{
    int x = 0;
    for (int i = from; i < from + n; ++i) {
        const QChar c = s[i];
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
        x = x * 10 + (c.unicode() - '0');
    }
    *v = x;
    return true;
}

// The local hour's start in UTC, cached: an import runs through thousands of
// lines of the same hour, and the zone's rules are slow to ask.
qint64 localHourToUtc(const QDate &d, int hour)
{
    thread_local QDate lastDay;
    thread_local int lastHour = -1;
    thread_local qint64 lastUtc = 0;
    if (d != lastDay || hour != lastHour) {
        lastDay = d;
        lastHour = hour;
        lastUtc = QDateTime(d, QTime(hour, 0), Qt::LocalTime).toMSecsSinceEpoch();
    }
    return lastUtc;
}

// "yyyy-MM-dd HH:mm:ss" exactly, as the burn writes it.
bool parseCsvTime(const QString &s, qint64 *utcMs)
{
    int y, mo, d, h, mi, se;
    if (s.size() != 19 || s[4] != QLatin1Char('-') || s[7] != QLatin1Char('-') || s[10] != QLatin1Char(' ')
        || s[13] != QLatin1Char(':') || s[16] != QLatin1Char(':') || !digits(s, 0, 4, &y) || !digits(s, 5, 2, &mo)
        || !digits(s, 8, 2, &d) || !digits(s, 11, 2, &h) || !digits(s, 14, 2, &mi) || !digits(s, 17, 2, &se))
        return false;
    const QDate day(y, mo, d);
    if (!day.isValid() || h > 23 || mi > 59 || se > 59)
        return false;
    *utcMs = localHourToUtc(day, h) + (mi * 60 + se) * 1000;
    return true;
}

bool isHex(const QString &s, int len, bool upper)
{
    if (s.size() != len)
        return false;
    for (QChar c : s) {
        const bool dig = c >= QLatin1Char('0') && c <= QLatin1Char('9');
        const bool hex = upper ? (c >= QLatin1Char('A') && c <= QLatin1Char('F')) : (c >= QLatin1Char('a') && c <= QLatin1Char('f'));
        if (!dig && !hex)
            return false;
    }
    return true;
}


QString isoUtc(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
}

} // namespace

double ChipSummary::chipsAnHour() const
{
    if (chips == 0)
        return 0.0;
    const qint64 span = std::max<qint64>(lastMs - firstMs, 60000);
    return double(chips) * 3600000.0 / double(span);
}

QString ChipStorePath(const QString &recordFolder)
{
    return QDir(recordFolder).filePath(QStringLiteral("chips.sqlite"));
}

QString DefaultStation()
{
    const QString h = QSysInfo::machineHostName();
    return h.isEmpty() ? QStringLiteral("bench") : h;
}

namespace {

// UTF-8 of s onto out; the common all-ASCII field byte by byte, with no
// text made for it on the way.
void addUtf8(QByteArray &out, QStringView s)
{
    for (QChar c : s) {
        if (c.unicode() >= 0x80) {
            out += s.toUtf8();
            return;
        }
    }
    const qsizetype at = out.size();
    out.resize(at + s.size());
    char *p = out.data() + at;
    for (QChar c : s)
        *p++ = char(c.unicode());
}

void addNumber(QByteArray &out, qint64 v)
{
    char buf[24];
    char *end = buf + sizeof buf, *p = end;
    const bool negative = v < 0;
    quint64 u = negative ? 0 - quint64(v) : quint64(v);
    do {
        *--p = char('0' + u % 10);
        u /= 10;
    } while (u);
    if (negative)
        *--p = '-';
    out.append(p, end - p);
}

} // namespace

QByteArray ChipRowKey(const ChipRow &r)
{
    // The fields' UTF-8 joined by the unit separator: the same bytes for a
    // chip stored live and its CSV line imported later, in any release.
    QByteArray text;
    text.reserve(320);
    addUtf8(text, r.station);
    for (const QString *s : {&r.local, &r.port, &r.chipId, &r.order, &r.image}) {
        text += '\x1F';
        addUtf8(text, *s);
    }
    text += '\x1F';
    addNumber(text, r.length);
    text += '\x1F';
    addUtf8(text, r.sha256);
    text += '\x1F';
    addNumber(text, r.durationMs);
    text += '\x1F';
    addNumber(text, r.retries);
    text += '\x1F';
    addUtf8(text, r.result);
    return QCryptographicHash::hash(text, QCryptographicHash::Sha256).left(16);
}

ChipRow ChipRowFromRecord(const ChipRecord &r, const QString &station, const QString &version)
{
    ChipRow row;
    row.utcMs = r.when.toMSecsSinceEpoch();
    row.local = r.when.toString(kTimeFormat);
    row.station = station;
    row.port = r.port;
    row.chipId = QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(r.chipId.data()), int(r.chipId.size())).toHex().toUpper());
    row.order = r.order;
    row.image = r.imagePath;
    row.length = r.imageLen;
    row.sha256 = QString::fromLatin1(r.sha256.toHex());
    row.durationMs = r.durationMs;
    row.retries = r.retries;
    row.result = r.result;
    row.version = version;
    row.key = ChipRowKey(row);
    return row;
}

QStringList ChipRowHeader()
{
    return {QStringLiteral("time"), QStringLiteral("time_utc"), QStringLiteral("station"), QStringLiteral("port"),
            QStringLiteral("chip_id"), QStringLiteral("order"), QStringLiteral("image"), QStringLiteral("length"),
            QStringLiteral("sha256"), QStringLiteral("duration_s"), QStringLiteral("retries"), QStringLiteral("result"),
            QStringLiteral("version")};
}

QStringList ChipRowFields(const ChipRow &r)
{
    return {r.local, isoUtc(r.utcMs), r.station, r.port, r.chipId, r.order, r.image, QString::number(r.length),
            r.sha256, secondsText(r.durationMs), QString::number(r.retries), r.result, r.version};
}

QString CsvJoin(const QStringList &fields)
{
    QStringList q;
    q.reserve(fields.size());
    for (const QString &f : fields)
        q << CsvField(f);
    return q.join(QLatin1Char(','));
}

QString ChipRowJson(const ChipRow &r)
{
    QJsonObject o;
    o[QLatin1String("time")] = r.local;
    o[QLatin1String("time_utc")] = isoUtc(r.utcMs);
    o[QLatin1String("station")] = r.station;
    o[QLatin1String("port")] = r.port;
    o[QLatin1String("chip_id")] = r.chipId;
    o[QLatin1String("order")] = r.order;
    o[QLatin1String("image")] = r.image;
    o[QLatin1String("length")] = r.length;
    o[QLatin1String("sha256")] = r.sha256;
    o[QLatin1String("duration_s")] = double(r.durationMs) / 1000.0;
    o[QLatin1String("retries")] = r.retries;
    o[QLatin1String("result")] = r.result;
    o[QLatin1String("version")] = r.version;
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

QString ChipSummaryJson(const ChipSummary &s)
{
    QJsonObject o;
    o[QLatin1String("chips")] = s.chips;
    o[QLatin1String("good")] = s.good;
    o[QLatin1String("failed")] = s.failed;
    o[QLatin1String("yield")] = s.yield();
    o[QLatin1String("chips_an_hour")] = s.chipsAnHour();
    o[QLatin1String("median_duration_s")] = double(s.medianDurationMs) / 1000.0;
    o[QLatin1String("retries")] = s.retries;
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

QStringList ChipSummaryLines(const ChipSummary &s)
{
    return {QStringLiteral("chips           %1").arg(s.chips),
            QStringLiteral("good            %1").arg(s.good),
            QStringLiteral("failed          %1").arg(s.failed),
            QStringLiteral("yield           %1%").arg(s.yield() * 100.0, 0, 'f', 1),
            QStringLiteral("chips an hour   %1").arg(s.chipsAnHour(), 0, 'f', 1),
            QStringLiteral("median duration %1 s").arg(secondsText(s.medianDurationMs)),
            QStringLiteral("retries         %1").arg(s.retries)};
}

QString ChipMetText(const ChipMet &m)
{
    return QStringLiteral("chip %1 was burned before: %2 time(s), last on %3 at %4 port %5 with %6 (order %7)")
        .arg(m.now.chipId)
        .arg(m.times)
        .arg(m.before.local, m.before.station, m.before.port, m.before.image,
             m.before.order.isEmpty() ? QStringLiteral("none") : m.before.order);
}

QString ChipKnownText(const ChipMet &m)
{
    if (m.times <= 0)
        return {};
    return QStringLiteral("in the chip store: burned %1 time(s), last on %2 at %3 port %4")
        .arg(m.times)
        .arg(m.before.local, m.before.station, m.before.port);
}

bool IsChipIdText(const QString &text)
{
    return isHex(text.toUpper(), 24, true);
}

bool ParseLocalTime(const QString &text, bool endOfDay, qint64 *utcMs)
{
    const QString t = text.trimmed();
    const QDate day = QDate::fromString(t, QStringLiteral("yyyy-MM-dd"));
    if (day.isValid()) {
        *utcMs = QDateTime(endOfDay ? day.addDays(1) : day, QTime(0, 0), Qt::LocalTime).toMSecsSinceEpoch();
        return true;
    }
    QString s = t;
    if (s.size() > 10 && s[10] == QLatin1Char('T'))
        s[10] = QLatin1Char(' ');
    for (const char *f : {"yyyy-MM-dd HH:mm:ss", "yyyy-MM-dd HH:mm"}) {
        const QDateTime dt = QDateTime::fromString(s, QLatin1String(f));
        if (dt.isValid()) {
            *utcMs = dt.toMSecsSinceEpoch();
            return true;
        }
    }
    return false;
}

void ParseChipCsv(const QByteArray &bytes, const QString &station, QList<ChipRow> *rows, QList<CsvRefusal> *refused)
{
    const QString text = QString::fromUtf8(bytes);
    const QString header = ChipCsvHeader();
    // A chip's line is about a hundred bytes: room for them all at once.
    rows->reserve(rows->size() + bytes.size() / 96);
    qsizetype pos = 0;
    int line = 1;
    QStringList fields;
    for (;;) {
        const int at = line;
        const CsvRead read = ReadCsvRecord(text, &pos, &line, &fields);
        if (read == CsvRead::End)
            break;
        const bool broken = read == CsvRead::Unclosed;
        auto refuse = [&](const QString &why) { refused->append({at, why}); };
        if (broken) {
            refuse(QStringLiteral("a quote that is never closed"));
            break;
        }
        if (fields.size() == 1 && fields[0].isEmpty())
            continue;   // a blank line
        if (fields.size() != kCsvFields) {
            refuse(QStringLiteral("%1 fields, a chip record has %2").arg(fields.size()).arg(kCsvFields));
            continue;
        }
        if (fields[0] == QLatin1String("time") && fields.join(QLatin1Char(',')) == header)
            continue;
        ChipRow r;
        r.station = station;
        r.local = fields[0];
        r.port = fields[1];
        r.chipId = fields[2];
        r.order = fields[3];
        r.image = fields[4];
        r.sha256 = fields[6];
        r.result = fields[9];
        bool ok = false;
        if (!parseCsvTime(r.local, &r.utcMs)) {
            refuse(QStringLiteral("time '%1' is not yyyy-MM-dd HH:mm:ss").arg(r.local));
            continue;
        }
        if (!isHex(r.chipId, 24, true)) {
            refuse(QStringLiteral("chip_id '%1' is not 24 upper-case hex digits").arg(r.chipId));
            continue;
        }
        r.length = fields[5].toLongLong(&ok);
        if (!ok || r.length < 0) {
            refuse(QStringLiteral("length '%1' is not a number").arg(fields[5]));
            continue;
        }
        if (!isHex(r.sha256, 64, false)) {
            refuse(QStringLiteral("sha256 '%1' is not 64 hex digits").arg(r.sha256));
            continue;
        }
        if (!parseSeconds(fields[7], &r.durationMs)) {
            refuse(QStringLiteral("duration_s '%1' is not seconds with up to 3 decimals").arg(fields[7]));
            continue;
        }
        r.retries = fields[8].toInt(&ok);
        if (!ok || r.retries < 0) {
            refuse(QStringLiteral("retries '%1' is not a number").arg(fields[8]));
            continue;
        }
        if (r.result.isEmpty()) {
            refuse(QStringLiteral("the result is empty"));
            continue;
        }
        r.key = ChipRowKey(r);
        rows->append(std::move(r));
    }
}

} // namespace pyro
