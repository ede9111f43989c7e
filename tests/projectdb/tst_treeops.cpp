// Tree operations on file and tree: add, insert, delete, move, rename, expand.
#include "dbfixture.h"

using namespace pyro;

// Top level 2, 3; 4 and 5 under 2; 6 under 4.
static QString buildSmallTree(DbFixture &fx)
{
    const QString p = fx.fresh();
    fx.addTop();
    fx.addTop();
    fx.addChildOf(2);
    fx.addChildOf(2);
    fx.addChildOf(4);
    fx.select(0);
    return p;
}

class TstTreeOps : public QObject {
    Q_OBJECT
private slots:
    // Where each addition goes and what it leaves selected; the links are
    // checked byte by byte in the worked example, and agree at the end.
    void add()
    {
        DbFixture fx;
        const QString p = fx.fresh();
        // No selection, empty tree: a top-level item that becomes the selection.
        QCOMPARE(AddChild(fx.db), 0);
        QCOMPARE(fx.db.tree.Selected, NodeKeyText(2));
        QVERIFY(NodeExpanded(FindNode(fx.db.tree, NodeKeyText(2))));

        // A second child goes last, and the selection stays.
        QCOMPARE(fx.addChildOf(2), 0);
        QCOMPARE(fx.addChildOf(2), 0);
        QCOMPARE(fx.db.tree.Selected, NodeKeyText(2));

        // A top-level item goes last whatever is selected; AddChild without
        // a selection makes one too.
        QCOMPARE(fx.addTop(), 0);
        QCOMPARE(fx.db.tree.Selected, NodeKeyText(2));
        fx.select(0);
        QCOMPARE(AddChild(fx.db), 0);
        // Bytes 0..1024 of the image are cleared for a new top-level item.
        QCOMPARE(recordAt(p, 5).ParamImage.left(1025), QByteArray(1025, '\0'));

        // A child keeps the image bytes last read into WorkRecord, byte 0 cleared.
        fx.db.WorkRecord.ParamImage.fill('\x5A');
        QCOMPARE(fx.addChildOf(5), 0);
        const QByteArray img = recordAt(p, 7).ParamImage;
        QCOMPARE(img.at(0), '\0');
        QCOMPARE(img.mid(1), QByteArray(1025, '\x5A'));
        QVERIFY(fx.prompter.shown.isEmpty());
        expectTree(fx, p, {"2", "  3", "  4", "5", "  7", "6"});
    }

    void insertBefore_data()
    {
        // Small tree 2 [4 [6], 5], 3; the new item is record 7.
        QTest::addColumn<int>("target");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("first top-level") << 2 << QStringList({"7", "2", "  4", "    6", "  5", "3"});
        QTest::newRow("first child") << 4 << QStringList({"2", "  7", "  4", "    6", "  5", "3"});
        QTest::newRow("middle child") << 5 << QStringList({"2", "  4", "    6", "  7", "  5", "3"});
        QTest::newRow("last top-level") << 3 << QStringList({"2", "  4", "    6", "  5", "7", "3"});
    }

    void insertBefore()
    {
        QFETCH(int, target);
        QFETCH(QStringList, lines);
        DbFixture fx;
        const QString p = buildSmallTree(fx);
        fx.select(target);
        QCOMPARE(InsertBefore(fx.db), 0);
        QCOMPARE(fx.db.tree.Selected, NodeKeyText(target));
        QCOMPARE(recordAt(p, 7).ParamImage.left(1025), QByteArray(1025, '\0'));
        expectTree(fx, p, lines);
    }

    void deleteNode_data()
    {
        // Small tree 2 [4 [6], 5], 3 and a third top-level item 7.
        QTest::addColumn<int>("target");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("top, both siblings") << 3 << QStringList({"2", "  4", "    6", "  5", "7"});
        QTest::newRow("top, last") << 7 << QStringList({"2", "  4", "    6", "  5", "3"});
        QTest::newRow("top, first with subtree") << 2 << QStringList({"3", "7"});
        QTest::newRow("first child") << 4 << QStringList({"2", "  5", "3", "7"});
        QTest::newRow("last child") << 5 << QStringList({"2", "  4", "    6", "3", "7"});
        QTest::newRow("only child") << 6 << QStringList({"2", "  4", "  5", "3", "7"});
    }

    void deleteNode()
    {
        QFETCH(int, target);
        QFETCH(QStringList, lines);
        DbFixture fx;
        const QString p = buildSmallTree(fx);
        fx.addTop();
        const qint64 length = QFileInfo(p).size();
        fx.select(target);
        QCOMPARE(DeleteNode(fx.db), 0);
        QVERIFY(fx.db.tree.Selected.isEmpty());
        const DbRecord s = recordAt(p, target);
        QCOMPARE(s.Used, int16_t(0));
        QCOMPARE(s.SelfRec, 0);
        QCOMPARE(s.NodeKey, QByteArray(20, ' '));
        QCOMPARE(QFileInfo(p).size(), length);
        expectTree(fx, p, lines);
    }

    void deleteSubtree()
    {
        DbFixture fx;
        const QString p = buildSmallTree(fx);
        // A deep subtree: 7 under 6, 8 under 7.
        fx.addChildOf(6);
        fx.addChildOf(7);
        const qint64 length = QFileInfo(p).size();
        const DbRecord deep = recordAt(p, 8);
        fx.select(4);
        QCOMPARE(DeleteNode(fx.db), 0);
        for (int n : {4, 6, 7, 8})
            QCOMPARE(recordAt(p, n).Used, int16_t(0));
        // Descendants lose nothing but Used.
        DbRecord freed = recordAt(p, 8);
        freed.Used = 1;
        QCOMPARE(EncodeRecord(freed), EncodeRecord(deep));

        // Reused lowest number first, and the file keeps its length; 4 goes
        // last among 2's children, behind the higher-numbered 5.
        QCOMPARE(fx.addChildOf(2), 0);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(fx.addChildOf(3), 0);
        expectTree(fx, p, {"2", "  5", "  4", "3", "  6", "  7", "  8", "  9"});
        QCOMPARE(QFileInfo(p).size(), length + 2790);

        // Down to the only item and past it: FirstRec -1, the length kept.
        for (int n : {2, 3}) {
            fx.select(n);
            QCOMPARE(DeleteNode(fx.db), 0);
        }
        QCOMPARE(FirstRec(recordAt(p, 1)), -1);
        QCOMPARE(NodeCount(fx.db.tree), 0);
        QCOMPARE(QFileInfo(p).size(), length + 2790);
        QVERIFY(CheckDb(p).isEmpty());
        fx.prompter.shown.clear();
        QCOMPARE(LoadDb(fx.db, p), int16_t(0));
        QCOMPARE(fx.prompter.shown, QStringList{"提示|空文件，无数据记录！"});
    }

    void moveNode_data()
    {
        QTest::addColumn<int>("cut");
        QTest::addColumn<int>("target");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("child to top level") << 4 << 3 << QStringList({"2", "  5", "4", "  6", "3"});
        QTest::newRow("ahead of first top-level") << 3 << 2 << QStringList({"3", "2", "  4", "    6", "  5"});
        QTest::newRow("ahead of first child") << 5 << 4 << QStringList({"2", "  5", "  4", "    6", "3"});
        QTest::newRow("top level to grandchild") << 3 << 6 << QStringList({"2", "  4", "    3", "    6", "  5"});
        QTest::newRow("ahead of own next") << 4 << 5 << QStringList({"2", "  4", "    6", "  5", "3"});
    }

    void moveNode()
    {
        QFETCH(int, cut);
        QFETCH(int, target);
        QFETCH(QStringList, lines);
        DbFixture fx;
        const QString p = buildSmallTree(fx);
        const DbRecord moving = recordAt(p, cut);
        const QByteArray child6 = EncodeRecord(recordAt(p, 6));
        fx.select(cut);
        MarkCutNode(fx.db);
        QVERIFY(fx.db.Medite.MnodePast.enabled);
        QCOMPARE(treeLines(fx.db.tree).size(), 5);   // the tree does not change yet
        fx.select(target);
        QCOMPARE(PasteCutNode(fx.db), 0);
        QVERIFY(!fx.db.Medite.MnodePast.enabled);
        QCOMPARE(fx.db.CutIndex, cut);
        // Same number, key and children; the child's record not written at all.
        const DbRecord moved = recordAt(p, cut);
        QCOMPARE(moved.NodeKey, moving.NodeKey);
        QCOMPARE(moved.ChildRec, moving.ChildRec);
        QCOMPARE(moved.Caption, moving.Caption);
        if (cut == 4)
            QCOMPARE(EncodeRecord(recordAt(p, 6)), child6);
        QVERIFY(fx.prompter.shown.isEmpty());
        expectTree(fx, p, lines);
    }

    // Edits that need a node and have none, and moves into the node's own
    // subtree: told, and nothing written.
    void refusals()
    {
        DbFixture fx;
        const QString p = buildSmallTree(fx);
        const QByteArray before = fileBytes(p);
        // Onto itself, and ahead of its own child and grandchild.
        for (int target : {2, 4, 6}) {
            fx.select(2);
            MarkCutNode(fx.db);
            fx.select(target);
            fx.prompter.shown.clear();
            QCOMPARE(PasteCutNode(fx.db), 1);
            QCOMPARE(fx.prompter.shown, QStringList{"提示|" + kMsgMoveIntoSelf});
            QCOMPARE(fileBytes(p), before);
        }
        // Nothing selected, then nothing marked.
        fx.select(0);
        fx.prompter.shown.clear();
        QCOMPARE(InsertBefore(fx.db), 1);
        QCOMPARE(DeleteNode(fx.db), 1);
        QCOMPARE(MoveCutNode(fx.db), 1);
        MarkCutNode(fx.db);
        QCOMPARE(fx.prompter.shown, QStringList(4, "提示|没有选择节点！"));
        fx.db.CutIndex = -1;
        fx.select(3);
        QCOMPARE(MoveCutNode(fx.db), 1);
        QCOMPARE(fileBytes(p), before);
        QCOMPARE(treeLines(fx.db.tree).size(), 5);
    }

    void renameAndExpand()
    {
        DbFixture fx;
        const QString p = buildSmallTree(fx);
        fx.select(4);
        BeginRename(fx.db);
        fx.select(5);   // the edit goes to the node it began on
        const QString longTitle = QString(25, QChar(0x4EA7));   // 50 GBK bytes
        QCOMPARE(RenameNode(fx.db, longTitle), 0);
        QCOMPARE(UnpackField(recordAt(p, 4).Caption, QString(), 40), QString(20, QChar(0x4EA7)));
        QCOMPARE(FindNode(fx.db.tree, NodeKeyText(4))->text(), longTitle);
        // The word of the binary mode is a title like any other.
        fx.select(5);
        QCOMPARE(RenameNode(fx.db, QStringLiteral("BinArray")), 0);
        QCOMPARE(UnpackField(recordAt(p, 5).Caption, QString(), 40), QStringLiteral("BinArray"));
        QCOMPARE(recordAt(p, 5).ParamImage.left(8), QByteArray(8, '\0'));
        QCOMPARE(RenameNode(fx.db, QString()), 0);
        QCOMPARE(recordAt(p, 5).Caption.at(0), '\0');

        // Expanding changes only that record's Expanded.
        QByteArray before = fileBytes(p);
        QCOMPARE(SetExpanded(fx.db, NodeKeyText(4), false), 0);
        QByteArray after = fileBytes(p);
        const int at = 3 * 2790 + 106;
        QCOMPARE(after.mid(at, 2), QByteArray("\0\0", 2));
        after.replace(at, 2, before.mid(at, 2));
        QCOMPARE(after, before);
        QCOMPARE(SetExpanded(fx.db, NodeKeyText(4), true), 0);
        QCOMPARE(recordAt(p, 4).Expanded, int16_t(-1));
        // While an operation runs the events write nothing.
        before = fileBytes(p);
        fx.db.TreeBusy = true;
        SetExpanded(fx.db, NodeKeyText(4), false);
        fx.db.TreeBusy = false;
        QCOMPARE(fileBytes(p), before);
        LoadDb(fx.db, p);
        QVERIFY(NodeExpanded(FindNode(fx.db.tree, NodeKeyText(4))));
        QVERIFY(fx.prompter.shown.isEmpty());
    }

    void menuStates()
    {
        DbFixture fx;
        QVERIFY(!TreeMouseUp(fx.db));   // no database, no popup
        fx.fresh();
        QVERIFY(TreeMouseUp(fx.db));
        QVERIFY(!fx.db.Medite.Minsertback.enabled);
        QVERIFY(!fx.db.Medite.Mdelect.enabled);
        fx.addTop();
        QVERIFY(TreeMouseUp(fx.db));
        QVERIFY(fx.db.Medite.Minsertback.enabled);
        QVERIFY(fx.db.Medite.Mdelect.enabled);
        // An editing item forgets a mark.
        fx.select(2);
        MarkCutNode(fx.db);
        QVERIFY(fx.db.Medite.MnodePast.enabled);
        fx.addChildOf(2);
        QVERIFY(!fx.db.Medite.MnodePast.enabled);
        QCOMPARE(fx.db.CutIndex, -1);
    }
};

QTEST_GUILESS_MAIN(TstTreeOps)
#include "tst_treeops.moc"
