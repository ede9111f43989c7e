// The .MPK file byte by byte: record layout, field codec, keys, create, load,
// stamp and twin.
#include "dbfixture.h"
#include "frame.h"

using namespace pyro;

class TstDbFile : public QObject {
    Q_OBJECT
private slots:
    void recordOffsets()
    {
        // Every byte distinct from its neighbours: each decoded field must come
        // from its own offset, little-endian, and go back to the same bytes.
        QByteArray b(kRecordSize, '\0');
        for (int i = 0; i < b.size(); ++i)
            b[i] = char(i * 7 + 3);
        const DbRecord r = DecodeRecord(b);
        const struct { int value, offset, width; } ints[] = {
            {r.Used, 0, 2}, {r.ParentRec, 2, 4}, {r.PrevRec, 6, 4}, {r.NextRec, 10, 4},
            {r.ChildRec, 14, 4}, {r.SelfRec, 18, 4}, {r.Reserved1, 104, 2}, {r.Expanded, 106, 2},
            {r.NodeColor, 108, 4}, {r.Reserved3, 2788, 2}};
        for (const auto &f : ints)
            QCOMPARE(f.value, f.width == 2 ? int(int16_t(getLe16(b, f.offset))) : int(getLe32(b, f.offset)));
        const struct { QByteArray field; int offset; } texts[] = {
            {r.ParentKey, 22}, {r.NodeKey, 42}, {r.Caption, 62}, {r.ParamImage, 112},
            {r.FunctionText, 1138}, {r.ProgramFile, 2164}, {r.ConfigFile, 2366}, {r.DisplayFile, 2468},
            {r.OrderNumber, 2570}, {r.Remark, 2672}, {r.Reserved2, 2774}};
        for (const auto &f : texts)
            QCOMPARE(f.field, b.mid(f.offset, f.field.size()));
        QCOMPARE(r.Caption.size() + r.ParamImage.size() + r.Reserved2.size(), 42 + 1026 + 14);
        QCOMPARE(EncodeRecord(r), b);
        // A short buffer decodes without reading past its end.
        QCOMPARE(DecodeRecord(b.left(20)).SelfRec, 0);
    }

    void workedExample()
    {
        DbFixture fx;
        const QString p = fx.threeItems();
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

    void packWithKey_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QByteArray>("stored");   // the field's bytes up to the terminator; empty: not spelled out
        const QString zhong20(20, QChar(0x4E2D));   // 40 GBK bytes
        QTest::newRow("empty key") << QString() << QStringLiteral("程序 A1") << 202 << 200 << QByteArray();
        QTest::newRow("chinese key") << QStringLiteral("口令") << QStringLiteral("客户变体 K700 备注") << 202 << 200 << QByteArray();
        QTest::newRow("41-byte title") << QString() << zhong20 + 'Z' << 42 << 40 << QByteArray();
        QTest::newRow("cut inside a character") << QString() << zhong20 + QChar(0x4E2D) << 42 << 39 << QByteArray();
        QTest::newRow("exactly the limit") << QString() << QString(100, 'n') << 102 << 100 << QByteArray();
        // Key "key" = 6B 65 79: k = 2, s = 329, and 329 mod 255 = 0x4A, so
        // m(i) = (K[i mod 3] & i) ^ 0x4A ^ 2 = (K[i mod 3] & i) ^ 0x48.
        //   i  K&i  m   plain    stored      i  K&i  m   plain    stored
        //   0  00   48  'o' 6F   27          6  02   4A  'o' 6F   25
        //   1  01   49  'p' 70   39          7  05   4D  'r' 72   3F
        //   2  00   48  'e' 65   2D          8  08   40  '-' 2D   6D
        //   3  03   4B  'r' 72   39          9  09   41  'l' 6C   2D
        //   4  04   4C  'a' 61   2D         10  00   48  'o' 6F   27
        //   5  01   49  't' 74   3D         11  09   41  'n' 6E   2F
        // and the rest of "operator-longname" is past the limit of 12.
        QTest::newRow("LastUser") << QStringLiteral("key") << QStringLiteral("operator-longname") << 14 << 12
                                  << QByteArray::fromHex("27392D392D3D253F6D2D272F");
    }

    void packWithKey()
    {
        QFETCH(QString, key);
        QFETCH(QString, text);
        QFETCH(int, width);
        QFETCH(int, limit);
        QFETCH(QByteArray, stored);
        QByteArray field(width, '\x55');
        PackField(field, text, key, limit);
        const QByteArray t = toGbk(text).left(limit);
        if (!stored.isEmpty())
            QCOMPARE(field.left(stored.size()), stored);
        QCOMPARE(field.at(t.size()), '\0');   // inside the field even at the limit
        for (int i = 0; i < t.size(); ++i)
            QVERIFY2(field.at(i) != '\0', "no stored byte is 0");
        if (key.isEmpty())
            QCOMPARE(field.left(t.size()), t);
        if (t.size() + 1 < field.size())
            QCOMPARE(field.at(t.size() + 1), '\x55');   // behind the terminator untouched
        QCOMPARE(UnpackField(field, key, limit), fromGbk(t));
        QVERIFY(!UnpackField(field, key, limit).contains('Z'));
    }

    void packLimits()
    {
        // Key "k": K = 0x6B, k = 0, s = 0x6B, so m(i) = (0x6B & i) ^ 0x6B.
        // At i = 0 the mask is 0x6B: a plain 'k' equals it and is stored as it stands.
        QByteArray field(42, '\0');
        PackField(field, QStringLiteral("kk"), QStringLiteral("k"), 40);
        QCOMPARE(uint8_t(field.at(0)), uint8_t(0x6B));                     // equal to its mask
        QCOMPARE(uint8_t(field.at(1)), uint8_t(0x6B ^ ((0x6B & 1) ^ 0x6B)));   // 'k' ^ m(1) = 0x6B ^ 0x6A
        QCOMPARE(field.at(2), '\0');
        QCOMPARE(UnpackField(field, QStringLiteral("k"), 40), QStringLiteral("kk"));

        // Reading stops at the limit even without a terminator, and at the field's end.
        QCOMPARE(UnpackField(QByteArray(10, 'a'), QString(), 100), QString(10, 'a'));
        QCOMPARE(UnpackField(QByteArray(10, 'a'), QString(), 4), QString(4, 'a'));
        QCOMPARE(UnpackField(QByteArray(), QString(), 40), QString());
        // GBK garbage decodes to something, never fails.
        QVERIFY(!UnpackField(QByteArray("\xff\xfe\x81\x00", 4), QString(), 40).isEmpty());
    }

    void packImage()
    {
        QByteArray setImage(65, '\0');
        for (int i = 0; i < 65; ++i)
            setImage[i] = char(i + 1);
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

    void keyToRec_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("rec");
        QTest::newRow("node key") << NodeKeyText(12) << 12;
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

    void keyToRec()
    {
        QFETCH(QString, key);
        QFETCH(int, rec);
        QCOMPARE(KeyToRec(key), rec);
    }

    void overwrite()
    {
        // No to the overwrite changes nothing; Yes starts afresh.
        DbFixture fx;
        const QString p = fx.threeItems();
        fx.prompter.answers = {false};
        CreateDb(fx.db, p);
        QCOMPARE(fx.prompter.shown, QStringList{"提示|文件已存在，确定覆盖原文件吗？"});
        QCOMPARE(QFileInfo(p).size(), 4 * 2790);
        fx.prompter.answers = {true};
        CreateDb(fx.db, p);
        QCOMPARE(QFileInfo(p).size(), 2790);
        QCOMPARE(NodeCount(fx.db.tree), 0);
        QCOMPARE(FirstRec(recordAt(p, 1)), -1);
    }

    void loadHeaderVariants()
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
    }

    void touchAndTwin()
    {
        DbFixture fx;
        const QString p = fx.fresh();
        const QString twin = p + ".Copy.MPK";
        QVERIFY(QFileInfo::exists(twin));
        QVERIFY(!QFile::permissions(twin).testFlag(QFileDevice::WriteOwner));

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
    }
};

QTEST_GUILESS_MAIN(TstDbFile)
#include "tst_dbfile.moc"
