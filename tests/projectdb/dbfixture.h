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

// The tree as record-number lines, children indented by two blanks; with
// full, each line also holds the title, the expanded state and the colour.
inline QStringList treeLines(const pyro::DbTree &t, bool full = false)
{
    QStringList out;
    std::function<void(QStandardItem *, int)> walk = [&](QStandardItem *parent, int depth) {
        for (int i = 0; i < parent->rowCount(); ++i) {
            QStandardItem *n = parent->child(i);
            QString line = QString(depth * 2, ' ') + QString::number(pyro::KeyToRec(pyro::NodeKey(n)));
            if (full)
                line += QStringLiteral(" %1 %2 %3").arg(n->text()).arg(pyro::NodeExpanded(n))
                            .arg(n->foreground().color().name());
            out << line;
            walk(n, depth + 1);
        }
    };
    walk(t.model->invisibleRootItem(), 0);
    return out;
}

// The tree of a file as a fresh load shows it, without touching fx.
inline QStringList loadedLines(const QString &path, bool full = false)
{
    pyro::ProjectDb db;
    pyro::LoadDb(db, path);
    return treeLines(db.tree, full);
}

// The tree shows lines, every link and key of the file agrees (FirstRec,
// ChildRec, PrevRec, ParentRec, ParentKey, nothing in use left unlinked), and
// a fresh load shows the same tree.
inline void expectTree(DbFixture &fx, const QString &path, const QStringList &lines)
{
    QCOMPARE(treeLines(fx.db.tree), lines);
    QStringList notes;
    QCOMPARE(pyro::CheckDb(path, &notes), QStringList());
    QCOMPARE(notes, QStringList());
    QCOMPARE(loadedLines(path), lines);
}

// Items 2 .. levels + 1, each the only child of the one before, written
// straight into a database that has only its header.
inline void writeChain(const QString &path, int levels)
{
    QByteArray b = fileBytes(path);
    pyro::DbRecord h = recordAt(path, 1);
    pyro::FirstRec(h) = 2;
    b.replace(0, pyro::kRecordSize, pyro::EncodeRecord(h));
    for (int n = 2; n < levels + 2; ++n) {
        pyro::DbRecord r;
        r.Used = 1;
        r.ParentRec = n == 2 ? -1 : n - 1;
        r.PrevRec = -1;
        r.ChildRec = n < levels + 1 ? n + 1 : 0;
        r.SelfRec = n;
        r.ParentKey = n == 2 ? QByteArray(20, ' ') : pyro::PadFixedText(pyro::NodeKeyText(n - 1));
        r.NodeKey = pyro::PadFixedText(pyro::NodeKeyText(n));
        b.append(pyro::EncodeRecord(r));
    }
    writeBytes(path, b);
}
