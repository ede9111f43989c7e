#include "chiplog.h"
#include "burn.h"
#include "fileguard.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

namespace pyro {

namespace {

constexpr int kStatusAt = 2;
constexpr int kIdentityReplyLen = 3 + 12 + 2;   // status, identity, CRC


QString timeText(const QDateTime &t)
{
    return t.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

QString secondsText(qint64 ms)
{
    return QString::number(double(ms) / 1000.0, 'f', 3);
}

void beginChip(Link &l, Burn &b)
{
    ChipLog &c = b.chipLog;
    c.active = true;
    ++c.begun;
    c.current = ChipRecord{};
    c.current.port = l.view.ComboSet[0].text;
    // A chip that answered without an identity is begun all the same; its
    // line must not carry the identity of the chip before it.
    c.current.chipIdKnown = c.polledId;
    if (c.polledId)
        c.current.chipId = b.ChipId;
    c.current.order = l.view.NotesTxt[5];
    c.current.imagePath = l.BinPath;
    c.current.imageLen = b.BinLen;
    c.current.sha256 = QCryptographicHash::hash(b.BinData.left(b.BinLen), QCryptographicHash::Sha256);
    c.started = l.now();
}

} // namespace

QString ChipLogFileName(const QDate &day)
{
    return QStringLiteral("%1.%2.%3(K0).csv").arg(day.year()).arg(day.month()).arg(day.day());
}

QString ChipCsvHeader()
{
    return QStringLiteral("time,port,chip_id,order,image,length,sha256,duration_s,retries,result");
}

QString ChipIdText(const ChipRecord &r)
{
    if (!r.chipIdKnown)
        return {};
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(r.chipId.data()), int(r.chipId.size())).toHex().toUpper());
}

QString ChipCsvLine(const ChipRecord &r)
{
    const QStringList f{timeText(r.when), CsvField(r.port), ChipIdText(r), CsvField(r.order),
                        CsvField(r.imagePath), QString::number(r.imageLen), QString::fromLatin1(r.sha256.toHex()),
                        secondsText(r.durationMs), QString::number(r.retries), r.result};
    return f.join(QLatin1Char(','));
}

QString ChipJson(const ChipRecord &r)
{
    QJsonObject o;
    o[QLatin1String("time")] = timeText(r.when);
    o[QLatin1String("port")] = r.port;
    o[QLatin1String("chip_id")] = ChipIdText(r);
    o[QLatin1String("order")] = r.order;
    o[QLatin1String("image")] = r.imagePath;
    o[QLatin1String("length")] = r.imageLen;
    o[QLatin1String("sha256")] = QString::fromLatin1(r.sha256.toHex());
    o[QLatin1String("duration_s")] = double(r.durationMs) / 1000.0;
    o[QLatin1String("retries")] = r.retries;
    o[QLatin1String("result")] = r.result;
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

bool AppendChipRecord(const QString &folder, const ChipRecord &r, QString *error)
{
    if (!QDir().mkpath(folder)) {
        if (error)
            *error = QStringLiteral("cannot make the folder %1").arg(QDir::toNativeSeparators(folder));
        return false;
    }
    const QString path = QDir(folder).filePath(ChipLogFileName(r.when.date()));
    // Header and line in one write, so that an interrupted run leaves whole lines.
    QString why;
    if (AppendToFile(path, (ChipCsvLine(r) + QStringLiteral("\r\n")).toUtf8(), &why,
                     (ChipCsvHeader() + QStringLiteral("\r\n")).toUtf8()))
        return true;
    if (error)
        *error = QStringLiteral("%1: %2").arg(QDir::toNativeSeparators(path), why);
    return false;
}

void ChipLogEnd(Link &l, Burn &b, const QString &result)
{
    ChipLog &c = b.chipLog;
    if (!c.active)
        return;
    c.active = false;
    c.current.when = l.now();
    c.current.durationMs = c.started.msecsTo(c.current.when);
    c.current.result = result;
    QString error;
    if (!c.folder.isEmpty() && !AppendChipRecord(c.folder, c.current, &error) && c.writeError.isEmpty())
        c.writeError = error;
    if (c.toStore)
        c.toStore(c.current);
    if (c.onRecord)
        c.onRecord(c.current);
}

void ChipLogStep(Link &l, Burn &b)
{
    ChipLog &c = b.chipLog;
    switch (l.StateWord) {
    case 0: // a burn starts afresh: nothing of a chip before it may carry over
        if (c.active)
            ChipLogEnd(l, b, QStringLiteral("cut short"));
        c.polledId = false;
        break;
    case 2: // the identity answer is judged on this step
        if (l.MBStep == 0)
            c.polledId = l.MBResult == 0 && l.MBRxBuf.size() >= kIdentityReplyLen && l.MBRxBuf[kStatusAt] != 0;
        break;
    case 3: // enter download: the first time for this chip, it begins
        if (!c.active)
            beginChip(l, b);
        break;
    case 4:
    case 6:
    case 8:
    case 10: { // an answer is judged on this step
        if (!c.active || l.MBStep != 0)
            break;
        const bool good = l.MBResult == 0 && l.MBRxBuf.size() > kStatusAt && l.MBRxBuf[kStatusAt] == 0;
        if (good)
            break;
        ++c.current.retries;
        // The burn gives up on the chip on this answer and polls for one anew.
        if (l.TryCount + 1 >= kBurnRetryLimit)
            ChipLogEnd(l, b, QStringLiteral("failed"));
        break;
    }
    case 11:
        ChipLogEnd(l, b, QStringLiteral("done"));
        break;
    default:
        break;
    }
}

} // namespace pyro
