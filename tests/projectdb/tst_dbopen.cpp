// Opening: the guarded open, the File menu items, start-up, and files that
// are not sound databases.
#include "dbfixture.h"
#include "link.h"

using namespace pyro;

static void setLoginFlag(const QString &path, int16_t flag)
{
    DbRecord h = recordAt(path, 1);
    LoginFlag(h) = flag;
    putRecordAt(path, 1, h);
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

    void damaged_data()
    {
        QTest::addColumn<QString>("damage");
        QTest::addColumn<QStringList>("shown");   // what of the tree survives
        // Files of another kind: refused whole, the tree left empty.
        for (const char *other : {"pdf", "zeros", "short", "header-cut"})
            QTest::newRow(other) << QStringLiteral("other %1").arg(other) << QStringList();
        QTest::newRow("sibling loop") << "next 3 -> 2" << QStringList({"2", "  4", "3"});
        QTest::newRow("child loop") << "child 4 -> 2" << QStringList({"2", "  4", "3"});
        QTest::newRow("next beyond end") << "next 3 -> 99" << QStringList({"2", "  4", "3"});
        QTest::newRow("child beyond end") << "child 4 -> 2000000000" << QStringList({"2", "  4", "3"});
        QTest::newRow("negative next") << "next 2 -> -7" << QStringList({"2", "  4"});
        QTest::newRow("first beyond end") << "first -> 40" << QStringList();
        QTest::newRow("chain through free record") << "free 3" << QStringList({"2", "  4"});
        QTest::newRow("self rec wrong") << "self 4 -> 9" << QStringList({"2", "3"});
        QTest::newRow("key of another record") << "key 3 -> 2" << QStringList({"2", "  4"});
        QTest::newRow("truncated last record") << "truncate" << QStringList({"2", "3"});
        QTest::newRow("wrong parent") << "parent 4 -> 3" << QStringList({"2", "  4", "3"});
    }

    void damaged()
    {
        QFETCH(QString, damage);
        QFETCH(QStringList, shown);
        DbFixture fx;
        const QString good = fx.threeItems("Good.MPK");
        const QString p = fx.threeItems("Bad.MPK");
        GuardedOpen(fx.db, good, "x", "y");
        QFile::remove(TwinPath(p));

        const QStringList w = damage.split(' ');
        const bool otherKind = w[0] == "other";
        if (otherKind) {
            const QByteArray good = fileBytes(p);
            writeBytes(p, w[1] == "pdf" ? "%PDF-1.4\n" + QByteArray(4000, 'x')
                          : w[1] == "zeros" ? QByteArray(2 * 2790, '\0')
                          : good.left(w[1] == "short" ? 100 : 2789));
        } else if (w[0] == "truncate") {
            writeBytes(p, fileBytes(p).left(3 * 2790 + 1000));
        } else if (w[0] == "first") {
            DbRecord h = recordAt(p, 1);
            FirstRec(h) = w[2].toInt();
            putRecordAt(p, 1, h);
        } else {
            const int n = w[1].toInt();
            DbRecord r = recordAt(p, n);
            const int32_t v = w.size() > 3 ? w[3].toInt() : 0;
            if (w[0] == "next") r.NextRec = v;
            if (w[0] == "child") r.ChildRec = v;
            if (w[0] == "free") r.Used = 0;
            if (w[0] == "self") r.SelfRec = v;
            if (w[0] == "key") r.NodeKey = PadFixedText(NodeKeyText(v));
            if (w[0] == "parent") r.ParentRec = v;
            putRecordAt(p, n, r);
        }
        // A title of GBK garbage on top: shown as what it decodes to.
        if (!otherKind) {
            DbRecord r2 = recordAt(p, 2);
            r2.Caption.replace(0, 5, QByteArray("\xff\x80\xfe\x81\x00", 5));
            putRecordAt(p, 2, r2);
        }

        const QByteArray bytes = fileBytes(p);
        fx.prompter.shown.clear();
        GuardedOpen(fx.db, p, "x", "y");
        QCOMPARE(fx.prompter.shown.size(), 1);
        const QString message = otherKind ? kMsgTypeMismatch : kMsgDamaged;
        QVERIFY2(fx.prompter.shown[0].startsWith("提示|" + message), qPrintable(fx.prompter.shown[0]));
        QCOMPARE(treeLines(fx.db.tree), shown);
        // Nothing written to it, no twin made from it, and it is not the current database.
        QVERIFY(!QFileInfo::exists(TwinPath(p)));
        QCOMPARE(fx.db.CurrentPath, good);
        QVERIFY(!TreeMouseUp(fx.db));
        fx.select(2);
        QCOMPARE(DeleteNode(fx.db), 1);
        QCOMPARE(AddChild(fx.db), 1);
        QCOMPARE(fileBytes(p), bytes);
        // The check names the problem and fails.
        QVERIFY(!CheckDb(p).isEmpty());
    }

    // The current database damaged behind the program's back: every edit
    // reads what it needs before its first write and stops unwritten.
    void damageFoundByAnEdit()
    {
        DbFixture fx;
        const QString p = fx.threeItems();
        const auto stops = [&](int select, const std::function<int()> &edit, const QString &says) {
            const QByteArray bytes = fileBytes(p);
            fx.select(select);
            fx.prompter.shown.clear();
            QCOMPARE(edit(), 1);
            QCOMPARE(fx.prompter.shown.size(), 1);
            QVERIFY2(fx.prompter.shown[0].contains(says), qPrintable(fx.prompter.shown[0]));
            QCOMPARE(fileBytes(p), bytes);
        };
        DbRecord r3 = recordAt(p, 3);
        r3.NextRec = 2;   // a loop in the top-level chain
        putRecordAt(p, 3, r3);
        DbRecord r4 = recordAt(p, 4);
        r4.ChildRec = 4;  // a subtree that contains itself
        putRecordAt(p, 4, r4);
        stops(0, [&] { return AddTopLevel(fx.db); }, kMsgOpStopped);
        stops(0, [&] { return AddChild(fx.db); }, kMsgOpStopped);
        stops(2, [&] { return DeleteNode(fx.db); }, kMsgOpStopped);

        // Moving 3 ahead of 4, whose record now points at itself: refused
        // before 3 is unlinked.
        r4.ChildRec = 0;
        r4.ParentRec = 77;
        putRecordAt(p, 4, r4);
        fx.select(3);
        MarkCutNode(fx.db);
        stops(4, [&] { return PasteCutNode(fx.db); }, QString());

        // A header marked free would be the first free record: never handed out.
        DbRecord h = recordAt(p, 1);
        h.Used = 0;
        putRecordAt(p, 1, h);
        stops(0, [&] { return AddTopLevel(fx.db); }, QStringLiteral("记录 1"));
    }

    void tooDeep()
    {
        // A sound-looking chain nested past what the tree shows: the load stops
        // at that depth with the damage message, and nothing is written.
        DbFixture fx;
        const QString p = fx.fresh();
        QByteArray b = fileBytes(p);
        DbRecord h = recordAt(p, 1);
        FirstRec(h) = 2;
        b.replace(0, kRecordSize, EncodeRecord(h));
        const int levels = kMaxTreeDepth + 5;
        for (int n = 2; n < levels + 2; ++n) {
            DbRecord r;
            r.Used = 1;
            r.ParentRec = n == 2 ? -1 : n - 1;
            r.PrevRec = -1;
            r.ChildRec = n < levels + 1 ? n + 1 : 0;
            r.SelfRec = n;
            r.ParentKey = n == 2 ? QByteArray(20, ' ') : PadFixedText(NodeKeyText(n - 1));
            r.NodeKey = PadFixedText(NodeKeyText(n));
            b.append(EncodeRecord(r));
        }
        writeBytes(p, b);
        fx.prompter.shown.clear();
        QCOMPARE(LoadDb(fx.db, p), int16_t(2));
        QCOMPARE(NodeCount(fx.db.tree), kMaxTreeDepth);
        QCOMPARE(fx.prompter.shown.size(), 1);
        QVERIFY(fx.prompter.shown[0].startsWith("提示|" + kMsgDamaged));
        QCOMPARE(fileBytes(p), b);
        QVERIFY(!CheckDb(p).isEmpty());
    }

    void unreadable()
    {
        DbFixture fx;
        const QString good = fx.threeItems("Good.MPK");
        // A folder where a file should be: it cannot be opened at all.
        QDir(fx.dir.path()).mkdir("Folder.MPK");
        GuardedOpen(fx.db, fx.path("Folder.MPK"), "x", "y");
        QCOMPARE(fx.prompter.shown.size(), 1);
        QVERIFY(fx.prompter.shown[0].startsWith("提示|" + kMsgIoFailed));
        QCOMPARE(fx.db.CurrentPath, good);
        QCOMPARE(NodeCount(fx.db.tree), 3);
        // The current database gone from under the tree: the edit says so.
        QFile::remove(good);
        QDir(fx.dir.path()).mkdir("Good.MPK");
        fx.prompter.shown.clear();
        QCOMPARE(fx.addTop(), 1);
        QCOMPARE(fx.prompter.shown.size(), 1);
        QVERIFY(fx.prompter.shown[0].startsWith("提示|" + kMsgIoFailed));
    }
};

QTEST_GUILESS_MAIN(TstDbOpen)
#include "tst_dbopen.moc"
