// Opening: the guarded open, the File menu items, start-up, and files that
// are not sound databases.
#include "dbfixture.h"
#include "link.h"

#ifdef Q_OS_UNIX
#include <sys/stat.h>
#endif

using namespace pyro;

static void setLoginFlag(const QString &path, int16_t flag)
{
    DbRecord h = recordAt(path, 1);
    LoginFlag(h) = flag;
    putRecordAt(path, 1, h);
}

// Damages a database of the worked example as a word list says: "next 3 -> 2"
// sets a link of record 3, "free 3" marks it free, "header 0" marks the
// header free, "truncate N" cuts the last record to N bytes, "tail N" adds a
// cut-off record of N bytes, "unlinked 5" adds an item no link names,
// "other KIND" makes a file of another kind.
static void spoil(const QString &p, const QString &damage)
{
    const QStringList w = damage.split(' ');
    const QByteArray bytes = fileBytes(p);
    if (w[0] == "other") {
        writeBytes(p, w[1] == "pdf" ? "%PDF-1.4\n" + QByteArray(4000, 'x')
                      : w[1] == "zeros" ? QByteArray(2 * 2790, '\0')
                      : bytes.left(w[1] == "short" ? 100 : 2789));
    } else if (w[0] == "truncate") {
        writeBytes(p, bytes.left(bytes.size() - kRecordSize + w[1].toInt()));
    } else if (w[0] == "tail") {
        writeBytes(p, bytes + EncodeRecord(recordAt(p, 2)).left(w[1].toInt()));
    } else if (w[0] == "unlinked") {
        DbRecord r = recordAt(p, 3);
        r.SelfRec = w[1].toInt();
        r.NodeKey = PadFixedText(NodeKeyText(r.SelfRec));
        putRecordAt(p, r.SelfRec, r);
    } else if (w[0] == "first" || w[0] == "header") {
        DbRecord h = recordAt(p, 1);
        if (w[0] == "first")
            FirstRec(h) = w[2].toInt();
        else
            h.Used = int16_t(w[1].toInt());
        putRecordAt(p, 1, h);
    } else {
        const int n = w[1].toInt();
        DbRecord r = recordAt(p, n);
        const int32_t v = w.size() > 3 ? w[3].toInt() : 0;
        if (w[0] == "next") r.NextRec = v;
        if (w[0] == "child") r.ChildRec = v;
        if (w[0] == "prev") r.PrevRec = v;
        if (w[0] == "free") r.Used = 0;
        if (w[0] == "self") r.SelfRec = v;
        if (w[0] == "key") r.NodeKey = PadFixedText(NodeKeyText(v));
        if (w[0] == "parentkey") r.ParentKey = PadFixedText(NodeKeyText(v));
        if (w[0] == "parent") r.ParentRec = v;
        putRecordAt(p, n, r);
    }
}

class TstDbOpen : public QObject {
    Q_OBJECT
private slots:
    void guardedOpen_data()
    {
        QTest::addColumn<int>("flag");
        QTest::addColumn<bool>("refused");
        QTest::newRow("flag 0") << 0 << false;
        QTest::newRow("flag 1 guarded") << 1 << true;
        QTest::newRow("flag 2 not guarded") << 2 << false;
        QTest::newRow("flag -1 not guarded") << -1 << false;
    }

    void guardedOpen()
    {
        QFETCH(int, flag);
        QFETCH(bool, refused);
        DbFixture fx;
        View view;
        fx.db.view = &view;
        const QString first = fx.threeItems("First.MPK");
        const QString other = fx.threeItems("Other.MPK");
        fx.addTop();
        setLoginFlag(other, int16_t(flag));
        QFile::remove(TwinPath(other));
        // Back to the first database, with a note in a box.
        GuardedOpen(fx.db, first, "x", "y");
        view.NotesTxt[3] = QStringLiteral("备注");
        fx.select(4);
        fx.prompter.shown.clear();
        const QByteArray otherBytes = fileBytes(other);

        fx.prompter.files = {other};
        OpenPro(fx.db);
        QCOMPARE(fx.db.DbPath, other);
        if (!refused) {
            QCOMPARE(fx.prompter.shown, QStringList({"open|打开工程"}));
            QCOMPARE(fx.db.CurrentPath, other);
            QCOMPARE(treeLines(fx.db.tree), QStringList({"2", "  4", "3", "5"}));
            QCOMPARE(view.NotesTxt[3], QString());
            QCOMPARE(fileBytes(TwinPath(other)), fileBytes(other));
            return;
        }
        QCOMPARE(fx.prompter.shown, QStringList({"open|打开工程", "提示|登录用户名或密码错误!"}));
        QVERIFY(!QFileInfo::exists(TwinPath(other)));
        QCOMPARE(fx.db.CurrentPath, first);
        QCOMPARE(treeLines(fx.db.tree), QStringList({"2", "  4", "3"}));
        QCOMPARE(view.NotesTxt[3], QStringLiteral("备注"));
        QCOMPARE(fx.db.tree.Selected, NodeKeyText(4));
        // Edits still go to the database the tree shows.
        QCOMPARE(fx.addTop(), 0);
        QCOMPARE(recordAt(first, 3).NextRec, 5);
        // The same file through CreatNewPro, answering No to the overwrite.
        fx.prompter.shown.clear();
        fx.prompter.files = {other};
        fx.prompter.answers = {false};
        CreatNewPro(fx.db);
        QCOMPARE(fx.prompter.shown, QStringList({"save|新建工程", "提示|文件已存在，确定覆盖原文件吗？",
                                                 "Hint|Login user name or password error!"}));
        QCOMPARE(fileBytes(other), otherBytes);   // never stamped
    }

    void menuItems()
    {
        DbFixture fx;
        // Cancelled dialogs, short names and missing files do nothing at all.
        OpenPro(fx.db);
        fx.prompter.files = {QStringLiteral("a.MP")};
        CreatNewPro(fx.db);
        fx.prompter.files = {fx.path("missing.MPK")};
        OpenPro(fx.db);
        QCOMPARE(fx.prompter.shown, QStringList({"open|打开工程", "save|新建工程", "open|打开工程"}));
        QVERIFY(fx.db.DbPath.isEmpty());
        QVERIFY(!QFileInfo::exists(QStringLiteral("a.MP")));

        // A new database opens at once, with the empty-file message.
        fx.prompter.shown.clear();
        fx.prompter.files = {fx.path("New.MPK")};
        CreatNewPro(fx.db);
        QCOMPARE(fx.prompter.shown, QStringList({"save|新建工程", "提示|空文件，无数据记录！"}));
        QCOMPARE(fx.db.CurrentPath, fx.path("New.MPK"));
        QVERIFY(QFileInfo::exists(TwinPath(fx.path("New.MPK"))));
        QCOMPARE(fx.addTop(), 0);
    }

    void startup()
    {
        DbFixture fx;
        QCOMPARE(OpenStartupDb(fx.db, fx.dir.path()), 1);
        QVERIFY(fx.prompter.shown.isEmpty());

        // Config.MPK in the folder: opened the guarded way.
        const QString p = fx.threeItems("Config.MPK");
        fx.restart();
        QCOMPARE(OpenStartupDb(fx.db, fx.dir.path()), 0);
        QCOMPARE(fx.db.CurrentPath, p);
        QCOMPARE(NodeCount(fx.db.tree), 3);

        setLoginFlag(p, 1);
        fx.restart();
        QCOMPARE(OpenStartupDb(fx.db, fx.dir.path()), 2);
        QCOMPARE(fx.prompter.shown, QStringList{"Hint|Login user name or password error!"});
        QVERIFY(!fx.db.DbOpen);
        QCOMPARE(NodeCount(fx.db.tree), 0);
    }

    void lengthZero()
    {
        // A file of length 0 is a database without its header yet: it opens
        // empty without a message and gets the header a new database has.
        DbFixture fx;
        const QString p = fx.path("Zero.MPK");
        writeBytes(p, QByteArray());
        GuardedOpen(fx.db, p, "x", "y");
        QVERIFY(fx.prompter.shown.isEmpty());
        QCOMPARE(fx.db.CurrentPath, p);
        QCOMPARE(QFileInfo(p).size(), 2790);
        QVERIFY(CheckDb(p).isEmpty());
        QCOMPARE(fx.addTop(), 0);
        QCOMPARE(FirstRec(recordAt(p, 1)), 2);
    }

    // Files that are not sound databases. What can hurt (a link out of the
    // file or to a cut-off or free record, a loop) refuses the file: the sound
    // part is shown, nothing is written, and the current database stays. What
    // cannot (back links, keys, SelfRec, an item or a cut-off record that no
    // link names) opens as usual and is editable.
    void damaged_data()
    {
        QTest::addColumn<QString>("damage");
        QTest::addColumn<QString>("note");   // what a check names of harmless damage; empty: refused
        const QString refused;
        QTest::addColumn<QStringList>("shown");   // what of the tree survives
        const QStringList whole{"2", "  4", "3"};
        // Files of another kind: refused whole, the tree left empty.
        for (const char *other : {"pdf", "zeros", "short", "header-cut"})
            QTest::newRow(other) << QStringLiteral("other %1").arg(other) << refused << QStringList();
        QTest::newRow("sibling loop") << "next 3 -> 2" << refused << whole;
        QTest::newRow("child loop") << "child 4 -> 2" << refused << whole;
        QTest::newRow("next beyond end") << "next 3 -> 99" << refused << whole;
        QTest::newRow("child beyond end") << "child 4 -> 2000000000" << refused << whole;
        QTest::newRow("negative next") << "next 2 -> -7" << refused << QStringList({"2", "  4"});
        QTest::newRow("first beyond end") << "first -> 40" << refused << QStringList();
        QTest::newRow("chain through free record") << "free 3" << refused << QStringList({"2", "  4"});
        QTest::newRow("header marked free") << "header 0" << refused << whole;
        QTest::newRow("truncated linked record") << "truncate 1000" << refused << QStringList({"2", "3"});
        QTest::newRow("self rec wrong") << "self 4 -> 9" << "记录 4 的 SelfRec 是 9" << whole;
        QTest::newRow("key of another record") << "key 3 -> 2" << "记录 3 的 NodeKey 不指向它自己" << whole;
        QTest::newRow("wrong parent") << "parent 4 -> 3" << "记录 4 的 ParentRec 是 3，应为 2" << whole;
        QTest::newRow("stale prev") << "prev 3 -> 77" << "记录 3 的 PrevRec 是 77，应为 2" << whole;
        QTest::newRow("parent key of another") << "parentkey 4 -> 3" << "记录 4 的 ParentKey 与父节点不符" << whole;
        QTest::newRow("item nothing links to") << "unlinked 5" << "记录 5 标为使用中，但没有链接到树上" << whole;
        QTest::newRow("cut-off record at the end") << "tail 1000" << "文件末尾有 1000 字节不完整的记录，下次写入时去掉" << whole;
    }

    void damaged()
    {
        QFETCH(QString, damage);
        QFETCH(QString, note);
        const bool refused = note.isEmpty();
        QFETCH(QStringList, shown);
        DbFixture fx;
        const QString good = fx.threeItems("Good.MPK");
        const QString p = fx.threeItems("Bad.MPK");
        GuardedOpen(fx.db, good, "x", "y");
        QFile::remove(TwinPath(p));
        spoil(p, damage);
        const bool otherKind = damage.startsWith("other");
        // A title of GBK garbage on top: shown as what it decodes to.
        if (!otherKind) {
            DbRecord r2 = recordAt(p, 2);
            r2.Caption.replace(0, 5, QByteArray("\xff\x80\xfe\x81\x00", 5));
            putRecordAt(p, 2, r2);
        }

        const QByteArray bytes = fileBytes(p);
        QStringList notes;
        QCOMPARE(CheckDb(p, &notes).isEmpty(), !refused);
        fx.prompter.shown.clear();
        GuardedOpen(fx.db, p, "x", "y");
        QCOMPARE(treeLines(fx.db.tree), shown);
        if (!refused) {
            QCOMPARE(fx.prompter.shown, QStringList());
            QCOMPARE(fx.db.CurrentPath, p);
            QCOMPARE(fileBytes(TwinPath(p)), fileBytes(p));
            QCOMPARE(QFileInfo(p).size() % kRecordSize, 0);
            QCOMPARE(notes, QStringList{note});   // named, though harmless
            QCOMPARE(fx.addChildOf(4), 0);
            fx.select(3);
            QCOMPARE(InsertBefore(fx.db), 0);
            fx.select(2);
            QCOMPARE(DeleteNode(fx.db), 0);
            QCOMPARE(CheckDb(p), QStringList());
            QCOMPARE(treeLines(fx.db.tree), loadedLines(p));
            QCOMPARE(fx.prompter.shown, QStringList());
            return;
        }
        QCOMPARE(fx.prompter.shown.size(), 1);
        const QString message = otherKind ? kMsgTypeMismatch : kMsgDamaged;
        QVERIFY2(fx.prompter.shown[0].startsWith("提示|" + message), qPrintable(fx.prompter.shown[0]));
        // Nothing written to it, no twin made from it, and it is not the current database.
        QVERIFY(!QFileInfo::exists(TwinPath(p)));
        QCOMPARE(fx.db.CurrentPath, good);
        QVERIFY(!TreeMouseUp(fx.db));
        fx.select(2);
        QCOMPARE(DeleteNode(fx.db), 1);
        QCOMPARE(AddChild(fx.db), 1);
        QCOMPARE(fileBytes(p), bytes);
    }

    // The current database damaged behind the program's back, the damage
    // found by opening it again or by an edit that reads it: from then on it
    // is not written, by the popup, by an edit or by opening it once more.
    void damagedCurrent_data()
    {
        QTest::addColumn<QString>("damage");
        QTest::addColumn<QString>("found");
        QTest::addColumn<int>("node");   // selected for the edit (moved ahead of 4)
        QTest::newRow("loop, reopened") << "next 3 -> 2" << "open" << 0;
        QTest::newRow("loop, by AddTopLevel") << "next 3 -> 2" << "top" << 0;
        QTest::newRow("subtree loop, by DeleteNode") << "child 4 -> 2" << "delete" << 2;
        QTest::newRow("free record, by InsertBefore") << "free 3" << "insert" << 3;
        QTest::newRow("header marked free, by AddChild") << "header 0" << "child" << 0;
        QTest::newRow("free target, by a move") << "free 4" << "move" << 3;
    }

    void damagedCurrent()
    {
        QFETCH(QString, damage);
        QFETCH(QString, found);
        QFETCH(int, node);
        DbFixture fx;
        const QString p = fx.threeItems();
        const QByteArray twin = fileBytes(TwinPath(p));
        spoil(p, damage);
        const QByteArray bytes = fileBytes(p);
        fx.select(node);
        if (found == "open")
            GuardedOpen(fx.db, p, "x", "y");
        else if (found == "top")
            QCOMPARE(AddTopLevel(fx.db), 1);
        else if (found == "child")
            QCOMPARE(AddChild(fx.db), 1);
        else if (found == "delete")
            QCOMPARE(DeleteNode(fx.db), 1);
        else if (found == "insert")
            QCOMPARE(InsertBefore(fx.db), 1);
        else {
            MarkCutNode(fx.db);
            fx.select(4);
            QCOMPARE(PasteCutNode(fx.db), 1);
        }
        QVERIFY2(fx.prompter.shown.last().startsWith("提示|" + kMsgDamaged), qPrintable(fx.prompter.shown.join('\n')));
        for (int round = 0; round < 2; ++round) {
            QVERIFY(!TreeMouseUp(fx.db));
            fx.select(2);
            QCOMPARE(AddChild(fx.db), 1);
            QCOMPARE(SetExpanded(fx.db, NodeKeyText(2), false), 0);
            QCOMPARE(fileBytes(p), bytes);
            QCOMPARE(fileBytes(TwinPath(p)), twin);
            GuardedOpen(fx.db, p, "x", "y");
        }
    }

    void tooDeep()
    {
        // A sound-looking chain nested past what the tree shows: the load stops
        // at that depth with the damage message, and nothing is written.
        DbFixture fx;
        const QString p = fx.fresh();
        writeChain(p, kMaxTreeDepth + 5);
        const QByteArray b = fileBytes(p);
        fx.prompter.shown.clear();
        QCOMPARE(LoadDb(fx.db, p), int16_t(2));
        QCOMPARE(NodeCount(fx.db.tree), kMaxTreeDepth);
        QCOMPARE(fx.prompter.shown.size(), 1);
        QVERIFY(fx.prompter.shown[0].startsWith("提示|" + kMsgDamaged));
        QCOMPARE(fileBytes(p), b);
        QVERIFY(!CheckDb(p).isEmpty());
    }

    // Names that are no regular file of a sane size are refused before they
    // are read: nothing blocks on a FIFO, nothing reads a huge file.
    void unreadable_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("folder") << "folder";
        QTest::newRow("too large") << "large";
#ifdef Q_OS_UNIX
        QTest::newRow("fifo") << "fifo";
#endif
    }

    void unreadable()
    {
        QFETCH(QString, kind);
        DbFixture fx;
        const QString good = fx.threeItems("Good.MPK");
        const QString bad = fx.path("Bad.MPK");
        if (kind == "folder") {
            QVERIFY(QDir(fx.dir.path()).mkdir("Bad.MPK"));
        } else if (kind == "large") {
            QFile big(bad);
            QVERIFY(big.open(QIODevice::WriteOnly));
            QVERIFY(big.resize(qint64(kMaxRecords + 1) * kRecordSize + 1));   // sparse
        } else {
#ifdef Q_OS_UNIX
            QCOMPARE(::mkfifo(QFile::encodeName(bad).constData(), 0600), 0);
#endif
        }
        fx.prompter.files = {bad};
        OpenPro(fx.db);
        QCOMPARE(fx.prompter.shown.size(), 2);
        QVERIFY(fx.prompter.shown[1].startsWith("提示|" + kMsgIoFailed));
        QCOMPARE(fx.db.CurrentPath, good);
        QCOMPARE(NodeCount(fx.db.tree), 3);
        QVERIFY(!CheckDb(bad).isEmpty());

        // The current database replaced by it under the tree: the edit says so.
        QVERIFY(QFile::remove(good));
        QVERIFY(QDir(fx.dir.path()).rename("Bad.MPK", "Good.MPK"));
        fx.prompter.shown.clear();
        QCOMPARE(fx.addTop(), 1);
        QCOMPARE(fx.prompter.shown.size(), 1);
        QVERIFY(fx.prompter.shown[0].startsWith("提示|" + kMsgIoFailed));
        QCOMPARE(LoadDb(fx.db, good), int16_t(3));
        QVERIFY(fx.db.CurrentPath.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TstDbOpen)
#include "tst_dbopen.moc"
