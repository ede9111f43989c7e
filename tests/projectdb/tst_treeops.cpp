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

// The small tree with a third top-level item: 2 [4 [6], 5], 3, 7; then the
// items of prep deleted, to shape it for a case.
static QString buildEditTree(DbFixture &fx, const QList<int> &prep)
{
    const QString p = buildSmallTree(fx);
    fx.addTop();
    for (int n : prep) {
        fx.select(n);
        DeleteNode(fx.db);
    }
    fx.select(0);
    return p;
}

// One edit of the tables below: "insert" ahead of a, "top" an item at the
// top level, "child" an item under a (0: nothing selected), "delete" a,
// "move" a ahead of b.
static int runEdit(DbFixture &fx, const QString &op, int a, int b)
{
    fx.select(a);
    if (op == "move") {
        MarkCutNode(fx.db);
        fx.select(b);
        return PasteCutNode(fx.db);
    }
    return op == "insert" ? InsertBefore(fx.db)
        : op == "delete"  ? DeleteNode(fx.db)
        : op == "top"     ? AddTopLevel(fx.db)
                          : AddChild(fx.db);
}

// Every case of every write order, with the tree the edit gives.
static void editRows()
{
    QTest::addColumn<QString>("op");
    QTest::addColumn<int>("a");
    QTest::addColumn<int>("b");
    QTest::addColumn<QList<int>>("prep");
    QTest::addColumn<QStringList>("after");
    // The record the edit made, moved or freed: its number, then ParentRec,
    // PrevRec and NextRec as the file holds them (-1, -1, 0 once freed).
    QTest::addColumn<QList<int>>("links");
    const QList<int> none;
    const QList<int> empty{2, 3, 7};
    using L = QStringList;
    using I = QList<int>;
    QTest::newRow("insert, after a sibling") << "insert" << 3 << 0 << none << L{"2", "  4", "    6", "  5", "8", "3", "7"} << I{8, -1, 2, 3};
    QTest::newRow("insert, first child") << "insert" << 4 << 0 << none << L{"2", "  8", "  4", "    6", "  5", "3", "7"} << I{8, 2, -1, 4};
    QTest::newRow("insert, first top-level") << "insert" << 2 << 0 << none << L{"8", "2", "  4", "    6", "  5", "3", "7"} << I{8, -1, -1, 2};
    QTest::newRow("add top-level") << "top" << 0 << 0 << none << L{"2", "  4", "    6", "  5", "3", "7", "8"} << I{8, -1, 7, 0};
    QTest::newRow("add top-level, empty tree") << "top" << 0 << 0 << empty << L{"2"} << I{2, -1, -1, 0};
    QTest::newRow("add first child") << "child" << 3 << 0 << none << L{"2", "  4", "    6", "  5", "3", "  8", "7"} << I{8, 3, -1, 0};
    QTest::newRow("add last child") << "child" << 2 << 0 << none << L{"2", "  4", "    6", "  5", "  8", "3", "7"} << I{8, 2, 5, 0};
    QTest::newRow("add child, empty tree") << "child" << 0 << 0 << empty << L{"2"} << I{2, -1, -1, 0};
    QTest::newRow("delete, both siblings") << "delete" << 3 << 0 << none << L{"2", "  4", "    6", "  5", "7"} << I{3, -1, -1, 0};
    QTest::newRow("delete, last top-level") << "delete" << 7 << 0 << none << L{"2", "  4", "    6", "  5", "3"} << I{7, -1, -1, 0};
    QTest::newRow("delete, first top-level") << "delete" << 2 << 0 << none << L{"3", "7"} << I{2, -1, -1, 0};
    QTest::newRow("delete, only top-level") << "delete" << 2 << 0 << QList<int>{3, 7} << L{} << I{2, -1, -1, 0};
    QTest::newRow("delete, first child") << "delete" << 4 << 0 << none << L{"2", "  5", "3", "7"} << I{4, -1, -1, 0};
    QTest::newRow("delete, last child") << "delete" << 5 << 0 << none << L{"2", "  4", "    6", "3", "7"} << I{5, -1, -1, 0};
    QTest::newRow("delete, only child") << "delete" << 6 << 0 << none << L{"2", "  4", "  5", "3", "7"} << I{6, -1, -1, 0};
    QTest::newRow("move child ahead of top-level") << "move" << 4 << 3 << none << L{"2", "  5", "4", "  6", "3", "7"} << I{4, -1, 2, 3};
    QTest::newRow("move ahead of first top-level") << "move" << 3 << 2 << none << L{"3", "2", "  4", "    6", "  5", "7"} << I{3, -1, -1, 2};
    QTest::newRow("move last top-level to grandchild") << "move" << 7 << 6 << none << L{"2", "  4", "    7", "    6", "  5", "3"} << I{7, 4, -1, 6};
    QTest::newRow("move last child ahead of first") << "move" << 5 << 4 << none << L{"2", "  5", "  4", "    6", "3", "7"} << I{5, 2, -1, 4};
    QTest::newRow("move only child ahead of a sibling") << "move" << 6 << 5 << none << L{"2", "  4", "  6", "  5", "3", "7"} << I{6, 2, 4, 5};
    QTest::newRow("move first top-level, subtree") << "move" << 2 << 7 << none << L{"3", "2", "  4", "    6", "  5", "7"} << I{2, -1, 3, 7};
    QTest::newRow("move ahead of own next") << "move" << 4 << 5 << none << L{"2", "  4", "    6", "  5", "3", "7"} << I{4, 2, -1, 5};
}

// rec and the records of its subtree, from tree lines.
static QList<int> subtreeOf(const QStringList &lines, int rec)
{
    const auto indent = [](const QString &l) { return l.size() - l.trimmed().size(); };
    QList<int> out;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines[i].trimmed().toInt() != rec)
            continue;
        out << rec;
        for (int j = i + 1; j < lines.size() && indent(lines[j]) > indent(lines[i]); ++j)
            out << lines[j].trimmed().toInt();
    }
    return out;
}

static QStringList withoutSubtree(const QStringList &lines, int rec)
{
    const QList<int> gone = subtreeOf(lines, rec);
    QStringList out;
    for (const QString &l : lines)
        if (!gone.contains(l.trimmed().toInt()))
            out << l;
    return out;
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

    // A power cut after any write of any edit leaves a file that opens as a
    // sound database (stamped, twinned, editable) with the tree its chains
    // give: the one before the edit, the one after, or for a move the one
    // without the moved subtree. Edits next to the links it left stale work.
    void interrupted_data() { editRows(); }
    void interrupted()
    {
        QFETCH(QString, op);
        QFETCH(int, a);
        QFETCH(int, b);
        QFETCH(QList<int>, prep);
        DbFixture fx;
        const QString p = buildEditTree(fx, prep);
        const QStringList before = treeLines(fx.db.tree);
        QList<QByteArray> cuts;
        fx.db.faults.afterPut = [&] { cuts << fileBytes(p); };
        QCOMPARE(runEdit(fx, op, a, b), 0);
        fx.db.faults = DbFaults();
        const QList<QStringList> allowed{before, withoutSubtree(before, op == "move" ? a : 0),
                                         loadedLines(p)};
        QCOMPARE(cuts.last(), fileBytes(p));
        QStringList shown;
        for (int k = 0; k < cuts.size(); ++k) {
            const QString q = fx.path(QStringLiteral("Cut%1.MPK").arg(k));
            writeBytes(q, cuts[k]);
            fx.restart();
            fx.clock = fx.clock.addSecs(60);
            GuardedOpen(fx.db, q, "x", "y");
            shown = treeLines(fx.db.tree);
            QVERIFY2(allowed.contains(shown), qPrintable(QStringLiteral("after write %1: ").arg(k + 1) + shown.join('|')));
            QVERIFY(TreeMouseUp(fx.db));
            QCOMPARE(UnpackField(OpenedText(recordAt(q, 1)), QString(), 200), StampText(fx.clock));
            QCOMPARE(fileBytes(TwinPath(q)), fileBytes(q));
            QCOMPARE(CheckDb(q), QStringList());

            for (const QString &line : shown) {
                fx.select(line.trimmed().toInt());
                QCOMPARE(InsertBefore(fx.db), 0);
            }
            QCOMPARE(runEdit(fx, "child", 0, 0), 0);
            for (const QString &line : shown) {
                if (FindNode(fx.db.tree, NodeKeyText(line.trimmed().toInt()))) {
                    fx.select(line.trimmed().toInt());
                    QCOMPARE(DeleteNode(fx.db), 0);
                }
            }
            QCOMPARE(CheckDb(q), QStringList());
            QCOMPARE(treeLines(fx.db.tree), loadedLines(q));
            fx.prompter.shown.removeAll("提示|" + kMsgEmptyDb);
            QCOMPARE(fx.prompter.shown, QStringList());
        }
        QCOMPARE(shown, allowed.last());
    }

    // Each edit whole, after a write that fails at each record in turn (and,
    // for one that grows the file, a full disk part way through the new
    // record) was undone each time: the file and the tree as they were, a
    // message, and the database still editable.
    void edit_data() { editRows(); }
    void edit()
    {
        QFETCH(QString, op);
        QFETCH(int, a);
        QFETCH(int, b);
        QFETCH(QList<int>, prep);
        QFETCH(QStringList, after);
        DbFixture fx;
        const QString p = buildEditTree(fx, prep);
        // What the tree shows but the file does not hold, for the rebuild
        // after a move: a title past 40 bytes, a state changed while an
        // operation ran. The file's bytes stay the same each time.
        const auto treeAhead = [&] {
            fx.select(5);
            RenameNode(fx.db, QString(25, QChar(0x4EA7)));
            fx.db.TreeBusy = true;
            SetExpanded(fx.db, NodeKeyText(6), false);
            fx.db.TreeBusy = false;
            SetExpanded(fx.db, NodeKeyText(2), false);
        };
        if (op == "move")
            treeAhead();
        const QByteArray bytes = fileBytes(p);
        const QStringList before = treeLines(fx.db.tree);
        const bool grows = op != "delete" && op != "move" && prep.isEmpty();
        for (int k = grows ? 0 : 1;; ++k) {
            if (op == "move")
                treeAhead();
            fx.db.faults = DbFaults();
            if (k == 0)
                fx.db.faults.spaceLimit = bytes.size() + 1000;
            fx.db.faults.failPut = k;
            fx.prompter.shown.clear();
            if (runEdit(fx, op, a, b) == 0)
                break;
            QCOMPARE(fx.prompter.shown.size(), 1);
            QVERIFY2(fx.prompter.shown[0].startsWith("提示|" + kMsgWriteUndone), qPrintable(fx.prompter.shown[0]));
            QVERIFY(fx.prompter.shown[0].contains(k == 0 ? "磁盘已满" : "写入中断"));
            QCOMPARE(fileBytes(p), bytes);
            QCOMPARE(treeLines(fx.db.tree), before);
            QVERIFY(TreeMouseUp(fx.db));
        }
        QVERIFY(fx.prompter.shown.isEmpty());
        expectTree(fx, p, after);
        QFETCH(QList<int>, links);
        const DbRecord r = recordAt(p, links[0]);
        QCOMPARE((QList<int>{links[0], r.ParentRec, r.PrevRec, r.NextRec}), links);
        QCOMPARE(QFileInfo(p).size(), bytes.size() + (grows ? kRecordSize : 0));
        if (op == "insert" || op == "top")
            QCOMPARE(recordAt(p, fx.db.WorkRecord.SelfRec).ParamImage.left(1025), QByteArray(1025, '\0'));
        if (op == "insert")
            QCOMPARE(fx.db.tree.Selected, NodeKeyText(a));
        if (op == "delete") {
            const DbRecord s = recordAt(p, a);
            QCOMPARE(s.Used, int16_t(0));
            QCOMPARE(s.SelfRec, 0);
            QCOMPARE(s.NodeKey, QByteArray(20, ' '));
            QVERIFY(fx.db.tree.Selected.isEmpty());
        }
        if (op == "move") {
            // Same number, key, title and children, and nothing below it written.
            const DbRecord was = DecodeRecord(bytes.mid((a - 1) * kRecordSize, kRecordSize));
            const DbRecord moved = recordAt(p, a);
            QCOMPARE(moved.NodeKey, was.NodeKey);
            QCOMPARE(moved.ChildRec, was.ChildRec);
            QCOMPARE(moved.Caption, was.Caption);
            for (int n : subtreeOf(before, a).mid(1))
                QCOMPARE(fileBytes(p).mid((n - 1) * kRecordSize, kRecordSize), bytes.mid((n - 1) * kRecordSize, kRecordSize));
            // The tree is rebuilt from the file: titles, expanded states and
            // colours as stored, and nothing selected.
            QCOMPARE(treeLines(fx.db.tree, true), loadedLines(p, true));
            QVERIFY(fx.db.tree.Selected.isEmpty());
            QCOMPARE(fx.db.CutIndex, a);
            QVERIFY(!fx.db.Medite.MnodePast.enabled);
        }
    }

    // The level the loader stops at: nothing may go below it. The edit is
    // refused with a message, and the file stays sound.
    void depthLimit()
    {
        DbFixture fx;
        const QString p = fx.fresh();
        writeChain(p, kMaxTreeDepth);
        GuardedOpen(fx.db, p, "x", "y");
        QVERIFY(TreeMouseUp(fx.db));
        QCOMPARE(NodeCount(fx.db.tree), kMaxTreeDepth);
        const int deepest = kMaxTreeDepth + 1;
        const QByteArray bytes = fileBytes(p);
        const QString tooDeep = "提示|" + kMsgTooDeep.arg(kMaxTreeDepth);
        QCOMPARE(fx.addChildOf(deepest), 1);
        QCOMPARE(fx.prompter.shown, QStringList{tooDeep});
        QCOMPARE(fileBytes(p), bytes);
        QCOMPARE(fx.addChildOf(deepest - 1), 0);   // 1002, as deep as the deepest
        // A top-level item with a child does not fit ahead of the deepest; the child alone does.
        QCOMPARE(fx.addTop(), 0);
        QCOMPARE(fx.addChildOf(1003), 0);
        QCOMPARE(runEdit(fx, "move", 1003, deepest), 1);
        QCOMPARE(fx.prompter.shown, QStringList(2, tooDeep));
        QCOMPARE(runEdit(fx, "move", 1004, deepest), 0);
        QCOMPARE(fx.prompter.shown.size(), 2);
        QCOMPARE(CheckDb(p), QStringList());
        QCOMPARE(NodeCount(fx.db.tree), kMaxTreeDepth + 3);
    }

    // A key spelled another way by another program still leads to its record:
    // the file opens sound, and what is written under it carries the key in
    // the one form this program writes.
    void keySpelling_data()
    {
        QTest::addColumn<QString>("spelling");
        for (const char *s : {" 2KEY", "2key", "2 Key", " 02key", " 2.0key"})
            QTest::newRow(s) << QString::fromLatin1(s);
    }
    void keySpelling()
    {
        QFETCH(QString, spelling);
        DbFixture fx;
        const QString p = buildEditTree(fx, {});
        DbRecord r = recordAt(p, 2);
        r.NodeKey = PadFixedText(spelling);
        putRecordAt(p, 2, r);
        for (int n : {4, 5}) {
            r = recordAt(p, n);
            r.ParentKey = PadFixedText(spelling);
            putRecordAt(p, n, r);
        }
        GuardedOpen(fx.db, p, "x", "y");
        QVERIFY(TreeMouseUp(fx.db));
        QStringList notes;
        QCOMPARE(CheckDb(p, &notes), QStringList());
        QCOMPARE(notes, QStringList());

        QCOMPARE(fx.addChildOf(2), 0);                // 8, behind 5
        QCOMPARE(runEdit(fx, "insert", 4, 0), 0);     // 9
        QCOMPARE(runEdit(fx, "move", 3, 5), 0);
        for (int n : {8, 9, 3})
            QCOMPARE(recordAt(p, n).ParentKey, PadFixedText(NodeKeyText(2)));
        QVERIFY(fx.prompter.shown.isEmpty());
        GuardedOpen(fx.db, p, "x", "y");
        QVERIFY(TreeMouseUp(fx.db));
        expectTree(fx, p, {"2", "  9", "  4", "    6", "  3", "  5", "  8", "7"});
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
