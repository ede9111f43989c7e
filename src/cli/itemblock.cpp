#include "itemblock.h"
#include "projectdb.h"

#include <QStringList>

using namespace pyro;

bool ReadItemBlock(const QString &dbPath, const QString &itemPath, const QString &key, QByteArray *block,
                   QString *error)
{
    DbFile f;
    if (!OpenDbFile(f, dbPath, DbMode::Read)) {
        *error = f.error;
        return false;
    }
    DbRecord h;
    if (f.length == 0 || !GetRec(f, 1, h) || !AuthorLineMatches(h)) {
        *error = QStringLiteral("%1: %2").arg(dbPath, f.length == 0 ? kMsgEmptyDb : kMsgTypeMismatch);
        return false;
    }
    const QStringList want = itemPath.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    QStringList path;   // captions from the top down to the record visited
    int found = 0;
    QStringList problems;
    if (FirstRec(h) > 0)
        WalkChains(f, FirstRec(h), [&](const DbRecord &r, int32_t, int depth) {
            path = path.mid(0, depth);
            path << UnpackField(r.Caption, key, kCaptionLimit).trimmed();
            if (path == want) {
                if (found++ == 0)
                    *block = r.ParamImage;
            }
        }, problems);
    if (found == 1)
        return true;
    *error = found > 1 ? QStringLiteral("%1 items are called '%2'").arg(found).arg(itemPath)
                       : QStringLiteral("no item '%1' in %2").arg(itemPath, dbPath);
    if (!problems.isEmpty())
        *error += QStringLiteral(" (%1%2)").arg(kMsgDamaged, problems.first());
    return false;
}
