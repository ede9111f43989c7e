#include "itemstore.h"
#include "projectdb.h"

#include <QStringList>

namespace pyro {

namespace {

bool openHeader(DbFile &f, const QString &dbPath, DbMode mode, QString *error)
{
    if (!OpenDbFile(f, dbPath, mode)) {
        *error = f.error;
        return false;
    }
    DbRecord h;
    if (f.length == 0 || !GetRec(f, 1, h) || !AuthorLineMatches(h)) {
        *error = QStringLiteral("%1: %2").arg(dbPath, f.length == 0 ? kMsgEmptyDb : kMsgTypeMismatch);
        CloseDbFile(f);
        return false;
    }
    return true;
}

int32_t findIn(DbFile &f, const QString &dbPath, const QString &itemPath, const QString &key, QString *error)
{
    DbRecord h;
    GetRec(f, 1, h);
    const QStringList want = itemPath.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    QStringList path;
    int found = 0;
    int32_t rec = 0;
    QStringList problems;
    if (FirstRec(h) > 0)
        WalkChains(f, FirstRec(h), [&](const DbRecord &r, int32_t, int depth) {
            path = path.mid(0, depth);
            path << UnpackField(r.Caption, key, kCaptionLimit).trimmed();
            if (path == want && found++ == 0)
                rec = r.SelfRec;
        }, problems);
    if (found == 1)
        return rec;
    *error = found > 1 ? QStringLiteral("%1 items are called '%2'").arg(found).arg(itemPath)
                       : QStringLiteral("no item '%1' in %2").arg(itemPath, dbPath);
    if (!problems.isEmpty())
        *error += QStringLiteral(" (%1%2)").arg(kMsgDamaged, problems.first());
    return 0;
}

bool readRecord(DbFile &f, int32_t rec, int blockSize, QByteArray *block, QString *error)
{
    DbRecord r;
    if (!GetItem(f, rec, r)) {
        *error = f.error;
        return false;
    }
    QByteArray image;
    UnpackImage(r.ParamImage, image, blockSize);
    *block = image.left(blockSize);
    return true;
}

} // namespace

int32_t FindItemRecord(const QString &dbPath, const QString &itemPath, const QString &key, QString *error)
{
    DbFile f;
    if (!openHeader(f, dbPath, DbMode::Read, error))
        return 0;
    const int32_t rec = findIn(f, dbPath, itemPath, key, error);
    CloseDbFile(f);
    return rec;
}

bool ReadItemSettings(const QString &dbPath, const QString &itemPath, const QString &key, int blockSize,
                      QByteArray *block, QString *error)
{
    DbFile f;
    if (!openHeader(f, dbPath, DbMode::Read, error))
        return false;
    const int32_t rec = findIn(f, dbPath, itemPath, key, error);
    const bool ok = rec > 0 && readRecord(f, rec, blockSize, block, error);
    CloseDbFile(f);
    return ok;
}

bool ReadItemSettingsByKey(const QString &dbPath, const QString &treeKey, int blockSize, QByteArray *block,
                           QString *error)
{
    DbFile f;
    if (!openHeader(f, dbPath, DbMode::Read, error))
        return false;
    const bool ok = readRecord(f, KeyToRec(treeKey), blockSize, block, error);
    CloseDbFile(f);
    return ok;
}

bool WriteItemSettings(const QString &dbPath, const QString &itemPath, const QString &key, const QByteArray &block,
                       QString *error)
{
    // A damaged file is never written, as in the window.
    const QStringList problems = CheckDb(dbPath);
    if (!problems.isEmpty()) {
        *error = kMsgDamaged + problems.first();
        return false;
    }
    DbFile f;
    if (!openHeader(f, dbPath, DbMode::ReadWrite, error))
        return false;
    bool ok = false;
    DbRecord r;
    if (!WholeRecords(f)) {
        *error = QStringLiteral("%1: its length is not a whole number of records").arg(dbPath);
    } else if (const int32_t rec = findIn(f, dbPath, itemPath, key, error); rec > 0) {
        if (!GetItem(f, rec, r)) {
            *error = f.error;
        } else {
            PackImage(r.ParamImage, block, int(block.size()));
            ok = PutRec(f, rec, r);
            if (!ok) {
                *error = kMsgWriteBroken + f.error;
                RollBack(f);
            }
        }
    }
    CloseDbFile(f);
    return ok;
}

} // namespace pyro
