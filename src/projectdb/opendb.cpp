// Choosing, guarding and opening a database: the File menu items and start-up.
#include "dbinternal.h"

#include "link.h"
#include "prompter.h"

#include <QDir>
#include <QFileInfo>

namespace pyro {

namespace {
const QString kFilterOpen = QStringLiteral("文件(*.MPK)|*.MPK");
const QString kFilterNew = QStringLiteral("File(*.MPK)|*.MPK");
const QString kRefusedEn = QStringLiteral("Login user name or password error!");
const QString kRefusedZh = QStringLiteral("登录用户名或密码错误!");
const QString kHintEn = QStringLiteral("Hint");
} // namespace

void GuardedOpen(ProjectDb &db, const QString &path, const QString &text, const QString &title)
{
    db.DbPath = path;
    db.LoginPassed = false;
    // Every open of the current database decides afresh whether it may be
    // written: one that is refused or found damaged is not written again.
    if (SameFile(path, db.CurrentPath))
        db.CurrentPath.clear();
    {
        DbFile f;
        if (!OpenDbFile(f, path, DbMode::Read)) {
            Report(db, kMsgIoFailed + f.error);
            return;
        }
        // A header that is not there (an empty or a cut-off file) guards
        // nothing; the last file's header must not stand in for it.
        if (!GetRec(f, 1, db.HeaderRecord))
            db.HeaderRecord = DbRecord();
        CloseDbFile(f);
    }
    if (LoginFlag(db.HeaderRecord) == 1 && !db.LoginPassed) {
        if (db.prompter)
            db.prompter->message(text, title);
        return;
    }
    // Only a sound load makes the file the current database; anything else
    // leaves it untouched: no stamp, and the twin stays the last good copy.
    if (LoadDb(db, path) == 0 && TouchDb(db, path) == 0) {
        RefreshTwin(db, path);
        db.DbOpen = true;
        db.CurrentPath = path;
    }
    if (db.view)
        for (QString &t : db.view->NotesTxt)
            t.clear();
}

void OpenPro(ProjectDb &db)
{
    if (!db.prompter)
        return;
    const QString name = db.prompter->openFile(QStringLiteral("打开工程"), kFilterOpen, QString());
    if (name.isEmpty() || !QFileInfo::exists(name))
        return;
    GuardedOpen(db, name, kRefusedZh, kHintTitle);
}

void CreatNewPro(ProjectDb &db)
{
    if (!db.prompter)
        return;
    const QString name = db.prompter->saveFile(QStringLiteral("新建工程"), kFilterNew, QString());
    if (name.size() < 5)
        return;
    CreateDb(db, name);
    if (name.isEmpty() || !QFileInfo::exists(name))
        return;
    GuardedOpen(db, name, kRefusedEn, kHintEn);
}

int OpenStartupDb(ProjectDb &db, const QString &appDir)
{
    const QString path = QDir(appDir).filePath(QStringLiteral("Config.MPK"));
    if (!QFileInfo::exists(path))
        return 1;
    GuardedOpen(db, path, kRefusedEn, kHintEn);
    return db.DbOpen && db.CurrentPath == path ? 0 : 2;
}

} // namespace pyro
