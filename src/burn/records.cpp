#include "burn.h"
#include "fileguard.h"
#include "infoblock.h"

#include <QDir>

namespace pyro {

namespace {
constexpr int kSeparatorLen = 94;
}

QString RecordFolder()
{
#ifdef Q_OS_WIN
    return QStringLiteral("D:\\ProRecord(K0)");
#else
    // No drive letters here: the bench's record folder lives in the home folder.
    return QDir::homePath() + QStringLiteral("/ProRecord(K0)");
#endif
}

QString RecordFileName(const QDate &day)
{
    return QStringLiteral("%1.%2.%3(K0).Txt").arg(day.year()).arg(day.month()).arg(day.day());
}

bool AppendBurnRecord(const QString &folder, const QDateTime &now, const QString &logText)
{
    // Each step that fails is skipped; nobody is told.
    QDir().mkpath(folder);
    // The date and time as the bench's own system writes them, then the rule.
    const QString head = now.toString(QStringLiteral("yyyy/M/d H:mm:ss"))
        + QString(kSeparatorLen, QLatin1Char('=')) + QStringLiteral("\r\n");
    return AppendToFile(QDir(folder).filePath(RecordFileName(now.date())),
                        toGbk(head) + toGbk(logText + QStringLiteral("\r\n")));
}

bool WriteBurnRecord(const Link &l)
{
    return AppendBurnRecord(RecordFolder(), l.now(), l.view.RTB);
}

} // namespace pyro
