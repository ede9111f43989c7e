// The .MPK file byte by byte: record layout, field codec, keys, create, load,
// stamp and twin.
#include "dbfixture.h"
#include "frame.h"

using namespace pyro;

class TstDbFile : public QObject {
    Q_OBJECT
private slots:
    void recordOffsets();
    void workedExample();
    void packWithKey_data();
    void packWithKey();
    void packLimits();
    void imageModeIsSeparate();
    void keyToRec_data();
    void keyToRec();
    void stripPadding();
    void createAndLoad();
    void loadHeaderVariants();
    void findFreeRec();
    void touchAndTwin();
};

void TstDbFile::recordOffsets()
{
    // Distinct values in every field, then look for them at their offsets.
    DbRecord r;
    r.Used = 1;
    r.ParentRec = -1;            // ff ff ff ff at 2
    r.PrevRec = 0x01020304;      // 04 03 02 01 at 6
    r.NextRec = 0x11121314;
    r.ChildRec = 0x21222324;
    r.SelfRec = 0x31323334;
    r.ParentKey = PadFixedText(QStringLiteral("PK"));
    r.NodeKey = PadFixedText(NodeKeyText(12));
    r.Caption[0] = 'C';
    r.Reserved1 = 0x4142;
    r.Expanded = -1;
    r.NodeColor = 0x00FF8040;
    r.ParamImage[0] = 'I';
    r.ParamImage[1025] = 'J';
    r.FunctionText[0] = 'F';
    r.ProgramFile[0] = 'P';
    r.ConfigFile[0] = 'c';
    r.DisplayFile[0] = 'd';
    r.OrderNumber[0] = 'o';
    r.Remark[0] = 'r';
    r.Reserved2[13] = 'z';
    r.Reserved3 = 0x5152;
    const QByteArray b = EncodeRecord(r);
    QCOMPARE(b.size(), 2790);
    QCOMPARE(b.mid(0, 2), QByteArray("\x01\x00", 2));
    QCOMPARE(b.mid(2, 4), QByteArray("\xff\xff\xff\xff"));
    QCOMPARE(b.mid(6, 4), QByteArray("\x04\x03\x02\x01"));
    QCOMPARE(b.mid(10, 4), QByteArray("\x14\x13\x12\x11"));
    QCOMPARE(b.mid(14, 4), QByteArray("\x24\x23\x22\x21"));
    QCOMPARE(b.mid(18, 4), QByteArray("\x34\x33\x32\x31"));
    QCOMPARE(b.mid(22, 20), QByteArray("PK                  "));
    QCOMPARE(b.mid(42, 20), QByteArray(" 12key              "));
    QCOMPARE(b.at(62), 'C');
    QCOMPARE(b.mid(104, 2), QByteArray("\x42\x41"));
    QCOMPARE(b.mid(106, 2), QByteArray("\xff\xff"));
    QCOMPARE(b.mid(108, 4), QByteArray("\x40\x80\xff\x00", 4));
    QCOMPARE(b.at(112), 'I');
    QCOMPARE(b.at(112 + 1025), 'J');
    QCOMPARE(b.at(1138), 'F');
    QCOMPARE(b.at(2164), 'P');
    QCOMPARE(b.at(2366), 'c');
    QCOMPARE(b.at(2468), 'd');
    QCOMPARE(b.at(2570), 'o');
    QCOMPARE(b.at(2672), 'r');
    QCOMPARE(b.at(2774 + 13), 'z');
    QCOMPARE(b.mid(2788, 2), QByteArray("\x52\x51"));
    // And back, every field.
    QCOMPARE(EncodeRecord(DecodeRecord(b)), b);
    // A short buffer decodes without reading past its end.
    const DbRecord shortRec = DecodeRecord(b.left(20));
    QCOMPARE(shortRec.ParentRec, -1);
    QCOMPARE(shortRec.SelfRec, 0);
}

void TstDbFile::workedExample()
{
    DbFixture fx;
    const QString p = fx.fresh();
    QCOMPARE(QFileInfo(p).size(), 2790);
    QCOMPARE(fx.addTop(), 0);
    fx.select(0);
    QCOMPARE(fx.addTop(), 0);
    QCOMPARE(fx.addChildOf(2), 0);
    QVERIFY(fx.prompter.shown.isEmpty());

    const QByteArray b = fileBytes(p);
    QCOMPARE(b.size(), 11160);
    auto i32 = [&](int rec, int off) { return int32_t(getLe32(b, (rec - 1) * 2790 + off)); };
    auto text = [&](int rec, int off) { return b.mid((rec - 1) * 2790 + off, 20); };
    QCOMPARE(i32(1, 2), 2);   // FirstRec
    const QByteArray blanks(20, ' ');
    struct Row { int rec, parent, prev, next, child; QByteArray parentKey, nodeKey; };
    const Row rows[] = {
        {2, -1, -1, 3, 4, blanks, " 2key               "},
        {3, -1, 2, 0, 0, blanks, " 3key               "},
        {4, 2, -1, 0, 0, " 2key               ", " 4key               "},
    };
    for (const Row &r : rows) {
        QCOMPARE(getLe16(b, (r.rec - 1) * 2790), uint16_t(1));
        QCOMPARE(i32(r.rec, 2), r.parent);
        QCOMPARE(i32(r.rec, 6), r.prev);
        QCOMPARE(i32(r.rec, 10), r.next);
        QCOMPARE(i32(r.rec, 14), r.child);
        QCOMPARE(i32(r.rec, 18), r.rec);
        QCOMPARE(text(r.rec, 22), r.parentKey);
        QCOMPARE(text(r.rec, 42), r.nodeKey);
        // New items: the default title, expanded 1, colour 0.
        QCOMPARE(UnpackField(b.mid((r.rec - 1) * 2790 + 62, 42), QString(), 40), kNewCaption);
        QCOMPARE(getLe16(b, (r.rec - 1) * 2790 + 106), uint16_t(1));
        QCOMPARE(i32(r.rec, 108), 0);
    }
    // The header.
    QCOMPARE(b.mid(22, 20), toGbk(kAuthorLine) + QByteArray(20 - toGbk(kAuthorLine).size(), ' '));
    QCOMPARE(b.mid(42, 20), QByteArray("KOLTA-V1.0          "));
    QCOMPARE(i32(1, 18), 1);
    QCOMPARE(getLe16(b, 106), uint16_t(0));   // LoginFlag

    // Reloaded, the tree is the same.
    LoadDb(fx.db, p);
    QCOMPARE(treeLines(fx.db.tree), QStringList({"2", "  4", "3"}));
    QCOMPARE(FindNode(fx.db.tree, NodeKeyText(4))->text(), kNewCaption);
    QVERIFY(NodeExpanded(FindNode(fx.db.tree, NodeKeyText(2))));
}

void TstDbFile::packWithKey_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("text");
    QTest::newRow("empty key") << QString() << QStringLiteral("程序 A1");
    QTest::newRow("one byte key") << QStringLiteral("k") << QStringLiteral("abc");
    QTest::newRow("chinese key") << QStringLiteral("口令") << QStringLiteral("客户变体 K700 备注");
    QTest::newRow("long text") << QStringLiteral("Dovrin") << QString(300, QChar('x'));
}

void TstDbFile::packWithKey()
{
    QFETCH(QString, key);
    QFETCH(QString, text);
    QByteArray field(202, '\x55');
    PackField(field, text, key, 200);
    const QByteArray t = toGbk(text).left(200);
    QCOMPARE(field.at(t.size()), '\0');
    for (int i = 0; i < t.size(); ++i)
        QVERIFY2(field.at(i) != '\0', "no stored byte is 0");
    if (key.isEmpty())
        QCOMPARE(field.left(t.size()), t);
    if (t.size() + 1 < field.size())
        QCOMPARE(field.at(t.size() + 1), '\x55');   // behind the terminator untouched
    QCOMPARE(UnpackField(field, key, 200), fromGbk(t));
}

void TstDbFile::packLimits()
{
    // Key "k": K = 0x6B, k = 0, s = 0x6B, so m(i) = (0x6B & i) ^ 0x6B.
    // At i = 0 the mask is 0x6B: a plain 'k' equals it and is stored as it stands.
    QByteArray field(42, '\0');
    PackField(field, QStringLiteral("kk"), QStringLiteral("k"), 40);
    QCOMPARE(uint8_t(field.at(0)), uint8_t(0x6B));                     // equal to its mask
    QCOMPARE(uint8_t(field.at(1)), uint8_t(0x6B ^ ((0x6B & 1) ^ 0x6B)));   // 'k' ^ m(1) = 0x6B ^ 0x6A
    QCOMPARE(field.at(2), '\0');
    QCOMPARE(UnpackField(field, QStringLiteral("k"), 40), QStringLiteral("kk"));

    // A 41-byte title comes back with 40; the 41st is gone from the file.
    QByteArray caption(42, '\x77');
    const QString title41 = QString(20, QChar(0x4E2D)) + 'Z';   // 20 x 2 GBK bytes + 1
    QCOMPARE(toGbk(title41).size(), 41);
    PackField(caption, title41, QString(), 40);
    QCOMPARE(caption.at(40), '\0');
    QVERIFY(!caption.contains('Z'));
    QCOMPARE(UnpackField(caption, QString(), 40), QString(20, QChar(0x4E2D)));

    // A cut through a double-byte character leaves half a character, not a crash.
    PackField(caption, QString(21, QChar(0x4E2D)), QString(), 39);
    QCOMPARE(caption.at(39), '\0');
    QCOMPARE(UnpackField(caption, QString(), 40).left(19), QString(19, QChar(0x4E2D)));

    // Exactly limit bytes: the terminator at offset limit, still inside the field.
    QByteArray note(102, '\x01');
    PackField(note, QString(100, 'n'), QString(), 100);
    QCOMPARE(note.at(100), '\0');
    QCOMPARE(note.at(101), '\x01');

    // LastUser's 14 bytes with limit 12.
    QByteArray user(14, '\x02');
    PackField(user, QStringLiteral("operator-longname"), QStringLiteral("key"), 12);
    QCOMPARE(user.at(12), '\0');
    QCOMPARE(UnpackField(user, QStringLiteral("key"), 12), QStringLiteral("operator-lon"));

    // Reading stops at the limit even without a terminator, and at the field's end.
    QCOMPARE(UnpackField(QByteArray(10, 'a'), QString(), 100), QString(10, 'a'));
    QCOMPARE(UnpackField(QByteArray(10, 'a'), QString(), 4), QString(4, 'a'));
    QCOMPARE(UnpackField(QByteArray(), QString(), 40), QString());
    // GBK garbage decodes to something, never fails.
    QVERIFY(!UnpackField(QByteArray("\xff\xfe\x81\x00", 4), QString(), 40).isEmpty());
}

void TstDbFile::imageModeIsSeparate()
{
    QByteArray setImage(65, '\0');
    for (int i = 0; i < 65; ++i)
        setImage[i] = char(i + 1);
    QByteArray field(42, '\0');
    PackField(field, QStringLiteral("BinArray"), QString(), 40);
    QCOMPARE(UnpackField(field, QString(), 40), QStringLiteral("BinArray"));
    QCOMPARE(field.at(8), '\0');

    QByteArray image(1026, '\x33');
    PackImage(image, setImage, 64);
    QCOMPARE(image.left(64), setImage.left(64));
    QCOMPARE(image.at(64), '\x33');   // no terminator, nothing behind the block
    QByteArray back(3, '\0');
    UnpackImage(image, back, 64);
    QCOMPARE(back.size(), 65);
    QCOMPARE(back.left(64), setImage.left(64));
    // A block larger than the field takes what the field holds, nothing more.
    QByteArray big(2000, '\0');
    UnpackImage(image, big, 2000);
    QCOMPARE(big.left(1026), image);
    PackImage(image, QByteArray(10, 'x'), 500);
    QCOMPARE(image.left(11), QByteArray(10, 'x') + char(11));   // byte 10 from the earlier block
}

void TstDbFile::keyToRec_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<int>("rec");
    QTest::newRow("node key") << NodeKeyText(12) << 12;
    QTest::newRow("big") << NodeKeyText(123456) << 123456;
    QTest::newRow("upper case") << QStringLiteral(" 7KEY") << 7;
    QTest::newRow("blanks inside") << QStringLiteral(" 1 2 key") << 12;
    QTest::newRow("no key") << QStringLiteral(" 12") << 0;
    QTest::newRow("empty") << QString() << 0;
    QTest::newRow("not a number") << QStringLiteral("abckey") << 0;
    QTest::newRow("rounded half even") << QStringLiteral("2.5key") << 2;
    QTest::newRow("rounded up") << QStringLiteral("2.7key") << 3;
    QTest::newRow("first key wins") << QStringLiteral("5key6key") << 5;
    QTest::newRow("huge") << QStringLiteral("99999999999999key") << 2147483647;
}

void TstDbFile::keyToRec()
{
    QFETCH(QString, key);
    QFETCH(int, rec);
    QCOMPARE(KeyToRec(key), rec);
}

void TstDbFile::stripPadding()
{
    QCOMPARE(StripPadding(QStringLiteral(" a b") + QChar(0) + QStringLiteral("c  ")), QStringLiteral("abc"));
    QCOMPARE(NodeKeyText(12), QStringLiteral(" 12key              "));
    QCOMPARE(ReadFixedText(QByteArray("ab\0cd", 5)), QStringLiteral("ab"));
    QCOMPARE(PadFixedText(QString(30, 'x')).size(), 20);
}

void TstDbFile::createAndLoad()
{
    DbFixture fx;
    const QString p = fx.path();
    CreateDb(fx.db, p);
    QVERIFY(fx.prompter.shown.isEmpty());
    DbRecord h = recordAt(p, 1);
    QCOMPARE(h.Used, int16_t(1));
    QCOMPARE(FirstRec(h), -1);
    QCOMPARE(h.SelfRec, 1);
    const QString stamp = StampText(fx.clock);
    QCOMPARE(UnpackField(CreatedText(h), QString(), 1024), stamp);
    QCOMPARE(UnpackField(OpenedText(h), QString(), 200), stamp);
    QCOMPARE(h.Reserved2.at(0), '\0');

    // A new database loads empty, with its message.
    QCOMPARE(LoadDb(fx.db, p), int16_t(0));
    QCOMPARE(fx.prompter.shown, QStringList{"提示|空文件，无数据记录！"});
    QCOMPARE(NodeCount(fx.db.tree), 0);

    // Overwrite: No changes nothing, Yes starts afresh.
    fx.prompter.shown.clear();
    fx.db.CurrentPath = fx.db.TreePath = p;
    QCOMPARE(AddTopLevel(fx.db), 0);
    fx.prompter.answers = {false};
    CreateDb(fx.db, p);
    QCOMPARE(fx.prompter.shown, QStringList{"提示|文件已存在，确定覆盖原文件吗？"});
    QCOMPARE(QFileInfo(p).size(), 2 * 2790);
    fx.prompter.answers = {true};
    CreateDb(fx.db, p);
    QCOMPARE(QFileInfo(p).size(), 2790);
    QCOMPARE(NodeCount(fx.db.tree), 0);

    // Deleting every item leaves a longer file that loads as empty.
    fx.fresh(QStringLiteral("All.MPK"));
    fx.addTop();
    fx.addTop();
    fx.select(2);
    QCOMPARE(DeleteNode(fx.db), 0);
    fx.select(3);
    QCOMPARE(DeleteNode(fx.db), 0);
    QCOMPARE(QFileInfo(fx.path("All.MPK")).size(), 3 * 2790);
    QCOMPARE(FirstRec(recordAt(fx.path("All.MPK"), 1)), -1);
    fx.prompter.shown.clear();
    QCOMPARE(LoadDb(fx.db, fx.path("All.MPK")), int16_t(0));
    QCOMPARE(fx.prompter.shown, QStringList{"提示|空文件，无数据记录！"});
}

void TstDbFile::loadHeaderVariants()
{
    DbFixture fx;
    const QString p = fx.fresh();
    fx.addTop();

    // MagicLine is never read; blanks and NULs are padding wherever they stand.
    DbRecord h = recordAt(p, 1);
    MagicLine(h) = PadFixedText(QStringLiteral("anything at all"));
    const QByteArray author = toGbk(kAuthorLine);
    for (const QByteArray &line : {author + QByteArray(20 - author.size(), '\0'),
                                   QByteArray("\0 ", 2) + author + QByteArray(18 - author.size(), '\0'),
                                   author.left(4) + QByteArray(" \0", 2) + author.mid(4) + QByteArray(18 - author.size(), ' ')}) {
        AuthorLine(h) = line;
        putRecordAt(p, 1, h);
        fx.prompter.shown.clear();
        QCOMPARE(LoadDb(fx.db, p), int16_t(0));
        QVERIFY2(fx.prompter.shown.isEmpty(), qPrintable(fx.prompter.shown.join(';')));
        QCOMPARE(NodeCount(fx.db.tree), 1);
    }

    // Another AuthorLine: a file of another kind, the tree emptied.
    AuthorLine(h) = PadFixedText(QStringLiteral("作者：Someone"));
    putRecordAt(p, 1, h);
    QCOMPARE(LoadDb(fx.db, p), int16_t(1));
    QCOMPARE(fx.prompter.shown, QStringList{"提示|文件类型不匹配！"});
    QCOMPARE(NodeCount(fx.db.tree), 0);

    // Length 0: empty tree, no message, result 0.
    fx.prompter.shown.clear();
    writeBytes(fx.path("Zero.MPK"), QByteArray());
    QCOMPARE(LoadDb(fx.db, fx.path("Zero.MPK")), int16_t(0));
    QVERIFY(fx.prompter.shown.isEmpty());
}

void TstDbFile::findFreeRec()
{
    DbFixture fx;
    const QString p = fx.fresh();
    DbFile f;
    QVERIFY(OpenDbFile(f, p, DbMode::Read));
    QCOMPARE(FindFreeRec(f), 2);
    CloseDbFile(f);
    for (int i = 0; i < 8; ++i)
        fx.addTop();
    QCOMPARE(QFileInfo(p).size(), 9 * 2790);
    fx.select(5);
    QCOMPARE(DeleteNode(fx.db), 0);
    QVERIFY(OpenDbFile(f, p, DbMode::Read));
    QCOMPARE(FindFreeRec(f), 5);
    QCOMPARE(LastSibling(f, 2), 9);
    CloseDbFile(f);
    fx.select(0);
    fx.addTop();
    QCOMPARE(QFileInfo(p).size(), 9 * 2790);
    QCOMPARE(recordAt(p, 5).PrevRec, 9);
    QCOMPARE(recordAt(p, 9).NextRec, 5);

    // An empty file gives 1; a file of length 0 has no records to scan.
    writeBytes(fx.path("Zero.MPK"), QByteArray());
    QVERIFY(OpenDbFile(f, fx.path("Zero.MPK"), DbMode::Read));
    QCOMPARE(FindFreeRec(f), 1);
    CloseDbFile(f);
}

void TstDbFile::touchAndTwin()
{
    DbFixture fx;
    const QString p = fx.fresh();
    const QString twin = p + ".Copy.MPK";
    QVERIFY(QFileInfo::exists(twin));
    QVERIFY(!QFileInfo(twin).isWritable() || QFile::permissions(twin).testFlag(QFileDevice::WriteOwner) == false);
    QCOMPARE(fileBytes(twin), fileBytes(p));

    // A second open a minute later: a new stamp, and the read-only twin
    // replaced without a question.
    fx.clock = fx.clock.addSecs(61);
    fx.addTop();
    GuardedOpen(fx.db, p, "x", "y");
    QCOMPARE(UnpackField(OpenedText(recordAt(p, 1)), QString(), 200), StampText(fx.clock));
    QCOMPARE(UnpackField(CreatedText(recordAt(p, 1)), QString(), 1024), StampText(fx.clock.addSecs(-61)));
    QCOMPARE(fileBytes(twin), fileBytes(p));
    QCOMPARE(fx.prompter.shown, QStringList());

    // LastUser takes LoginUser with LoginKey.
    fx.db.LoginUser = QStringLiteral("张工");
    fx.db.LoginKey = QStringLiteral("Dovrin");
    QCOMPARE(TouchDb(fx.db, p), 0);
    QCOMPARE(UnpackField(LastUser(recordAt(p, 1)), QStringLiteral("Dovrin"), 12), QStringLiteral("张工"));
    QCOMPARE(TwinPath(QStringLiteral("/a/b.MPK")), QStringLiteral("/a/b.MPK.Copy.MPK"));
}

QTEST_GUILESS_MAIN(TstDbFile)
#include "tst_dbfile.moc"
