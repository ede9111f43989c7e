#pragma once
// A database in a temporary folder with a scripted prompter and a fixed clock.
#include "projectdb.h"
#include "prompter.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

struct DbFixture {
    QTemporaryDir dir;
    pyro::ScriptedPrompter prompter;
    pyro::ProjectDb db;
    QDateTime clock{QDate(2026, 3, 14), QTime(9, 26, 53)};

    DbFixture() { restart(); }
    // The program as it starts: no database open, no tree.
    void restart()
    {
        db = pyro::ProjectDb();
        db.prompter = &prompter;
        db.now = [this] { return clock; };
    }
    QString path(const QString &name = QStringLiteral("Test.MPK")) const { return dir.filePath(name); }

    // A new database, opened as the current one.
    QString fresh(const QString &name = QStringLiteral("Test.MPK"))
    {
        const QString p = path(name);
        pyro::CreateDb(db, p);
        pyro::GuardedOpen(db, p, QStringLiteral("refused"), QStringLiteral("Hint"));
        prompter.shown.clear();
        return p;
    }
    void select(int32_t rec) { db.tree.Selected = rec > 0 ? pyro::NodeKeyText(rec) : QString(); }
    int addTop() { return pyro::AddTopLevel(db); }
    int addChildOf(int32_t rec) { select(rec); return pyro::AddChild(db); }

    // The worked example: items 2, 3 at the top and 4 under 2, nothing selected.
    QString threeItems(const QString &name = QStringLiteral("Test.MPK"))
    {
        const QString p = fresh(name);
        addTop();
        addTop();
        addChildOf(2);
        select(0);
        return p;
    }
};

inline QByteArray fileBytes(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

inline void writeBytes(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(f.write(bytes), bytes.size());
}

// Record n straight from the file's bytes.
inline pyro::DbRecord recordAt(const QString &path, int32_t n)
{
    return pyro::DecodeRecord(fileBytes(path).mid((n - 1) * pyro::kRecordSize, pyro::kRecordSize));
}

inline void putRecordAt(const QString &path, int32_t n, const pyro::DbRecord &r)
{
    QByteArray b = fileBytes(path);
    const QByteArray rec = pyro::EncodeRecord(r);
    if (b.size() < n * pyro::kRecordSize)
        b.resize(n * pyro::kRecordSize, '\0');
    b.replace((n - 1) * pyro::kRecordSize, pyro::kRecordSize, rec);
    writeBytes(path, b);
}

// The tree as "key title" lines, children indented by two blanks.
inline QStringList treeLines(const pyro::DbTree &t)
{
    QStringList out;
    std::function<void(QStandardItem *, int)> walk = [&](QStandardItem *parent, int depth) {
        for (int i = 0; i < parent->rowCount(); ++i) {
            QStandardItem *n = parent->child(i);
            out << QString(depth * 2, ' ') + QString::number(pyro::KeyToRec(pyro::NodeKey(n)));
            walk(n, depth + 1);
        }
    };
    walk(t.model->invisibleRootItem(), 0);
    return out;
}

// The tree shows lines, every link and key of the file agrees (FirstRec,
// ChildRec, PrevRec, ParentKey), and a reload shows the same tree.
inline void expectTree(DbFixture &fx, const QString &path, const QStringList &lines)
{
    QCOMPARE(treeLines(fx.db.tree), lines);
    QCOMPARE(pyro::CheckDb(path), QStringList());
    pyro::LoadDb(fx.db, path);
    QCOMPARE(treeLines(fx.db.tree), lines);
}
