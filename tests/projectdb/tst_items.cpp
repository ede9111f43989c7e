// Item content: load and save, note limits, copy and paste between items, the
// save button's texts; the firmware merge and SavePro.
#include "dbfixture.h"
#include "burn.h"
#include "frame.h"
#include "infoblock.h"
#include "items.h"
#include "params.h"

#include <sys/stat.h>

using namespace pyro;

namespace {

// The worked table: a 44-byte block, the rated speed a word at Addr 33.
constexpr int kBlock = 44;

QByteArray goodImage(int16_t speed)
{
    QByteArray img(kBlock + 1, '\0');
    for (int i = 0; i < 20; ++i)
        img[i] = char(0xA0 + i);
    putLe32(img, kImageLengthAt, kBlock - kImageHeaderSize);
    img[32] = char(speed & 0xFF);
    img[33] = char(speed >> 8);
    TableInfo info;
    info.BlockSize = kBlock;
    StampImage(img, info);
    return img;
}

// A database of three items (2, 3 at the top, 4 under 2) with the worked
// table loaded, the window's state and one prompter for all boxes.
struct ItemBench : DbFixture {
    Params p;
    Link l;
    QString file;

    ItemBench()
    {
        l.prompter = &prompter;
        l.now = [this] { return clock; };
        db.view = &l.view;
        QCOMPARE(LoadProtocolTable(p.MSFG[0], PYRO_TEST_DATA "/params/worked.For", p.SetRows, p.Tables[0]), 0);
        p.SetImage = QByteArray(kBlock + 1, '\0');
        file = threeItems();
    }
    // Working copy of item rec: image and notes, stored with the save button.
    void store(int32_t rec, const QByteArray &image, const QStringList &notes = {})
    {
        select(rec);
        p.SetImage = image;
        for (int i = 1; i <= 6; ++i)
            l.view.NotesTxt[i] = notes.value(i - 1);
        l.view.MenuImgEnabled[4] = true;
        prompter.answers = {true};
        MenuImg4Click(db, p, l);
    }
    int click(int32_t rec) { return TreeNodeClick(db, p, l, NodeKeyText(rec)); }
    QString speedCell() const { return p.MSFG[0].text(1, kValueCol); }
};

QByteArray fieldOf(const DbRecord &r, int box)
{
    const QByteArray *f[] = {nullptr, &r.FunctionText, &r.ProgramFile, &r.ConfigFile,
                             &r.DisplayFile, &r.OrderNumber, &r.Remark};
    return *f[box];
}

QString noteOf(const DbRecord &r, int box)
{
    return UnpackField(fieldOf(r, box), QString(), kNoteBoxes[box].limit);
}

} // namespace

class TstItems : public QObject {
    Q_OBJECT
private slots:
    // Stored through the save button, read back from the file by the
    // database's own reader, and shown again by a click.
    void saveAndLoad()
    {
        ItemBench b;
        // A new item clicked: blank notes, and no good block in it.
        b.l.view.NotesTxt[0] = "scratch";
        QCOMPARE(b.click(4), 1);
        QCOMPARE(b.l.view.SB[2], kStItemBad);
        QCOMPARE(b.l.view.NotesTxt, (std::array<QString, 7>{}));

        const DbRecord before = recordAt(b.file, 4);
        const QStringList notes{"电机控制 v2", "/opt/fw/电机.BIN", "Config.For", "Display.For", "订单-0042", "样机"};
        b.store(4, goodImage(1500), notes);
        QCOMPARE(b.l.view.SB[2], kStAllSaved);
        QVERIFY(!b.l.view.MenuImgEnabled[4]);

        const DbRecord r = recordAt(b.file, 4);
        QCOMPARE(r.ParamImage.left(kBlock), goodImage(1500).left(kBlock));
        for (int box = 1; box <= 6; ++box)
            QCOMPARE(noteOf(r, box), notes[box - 1]);
        // Links, keys, title, expanded state and colour as they were.
        QCOMPARE(EncodeRecord(r).left(rec::ParamImage), EncodeRecord(before).left(rec::ParamImage));
        QVERIFY(CheckDb(b.file).isEmpty());
        // A second save writes the same bytes.
        const QByteArray file = fileBytes(b.file);
        b.store(4, goodImage(1500), notes);
        QCOMPARE(fileBytes(b.file), file);

        // Another item blanks the grid's values; the stored one fills it again.
        b.l.ModeRequest = 7;
        QCOMPARE(b.click(3), 1);
        QCOMPARE(b.speedCell(), QString());
        QCOMPARE(b.l.ModeRequest, uint8_t(7));
        QCOMPARE(b.click(4), 0);
        QCOMPARE(b.l.view.SB[2], kStGotItem);
        QCOMPARE(b.speedCell(), QString("1500"));
        QCOMPARE(b.l.ModeRequest, uint8_t(0));
        QCOMPARE(b.db.tree.Selected, NodeKeyText(4));
        for (int box = 1; box <= 6; ++box)
            QCOMPARE(b.l.view.NotesTxt[box], notes[box - 1]);
        // A burn on the line is left running.
        b.l.ModeRequest = 1;
        QCOMPARE(b.click(4), 0);
        QCOMPARE(b.l.ModeRequest, uint8_t(1));
        QVERIFY(b.prompter.shown.size() == 2);   // the two questions, nothing else
    }

    void noteLimits_data()
    {
        QTest::addColumn<int>("box");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("storedBytes");
        const QString ding(550, QChar(0x8BA2));   // 订: two GBK bytes each
        QTest::newRow("box 1, 1100 bytes") << 1 << ding << 1024;
        QTest::newRow("box 1, half a character over") << 1 << "a" + ding << 1023;
        QTest::newRow("box 2, 250 bytes") << 2 << QString(250, 'p') << 200;
        QTest::newRow("box 4, 60 characters") << 4 << ding.left(60) << 100;
        // 37, 49 times B6 A9, then 丂 = 81 40 at bytes 100 and 101: 0x81 is
        // a lead byte too, so the character goes whole and 99 bytes stay.
        QTest::newRow("box 5, odd cut at lead byte 81") << 5 << "7" + ding.left(49) + QChar(0x4E02) << 99;
    }

    void noteLimits()
    {
        QFETCH(int, box);
        QFETCH(QString, text);
        QFETCH(int, storedBytes);
        ItemBench b;
        QStringList notes(6);
        notes[box - 1] = text;
        b.store(2, goodImage(1), notes);
        const QByteArray field = fieldOf(recordAt(b.file, 2), box);
        const QString stored = noteOf(recordAt(b.file, 2), box);
        // No half character before the terminator, nor in the cut itself.
        QCOMPARE(GbkCut(text, kNoteBoxes[box].limit).size(), storedBytes);
        QCOMPARE(field.indexOf('\0'), storedBytes);
        QCOMPARE(toGbk(stored).size(), storedBytes);
        QVERIFY(text.startsWith(stored));
        QCOMPARE(b.click(2), 0);
        QCOMPARE(b.l.view.NotesTxt[box], stored);
    }

    // Copy in one item, paste into another: the working copy changes, the
    // file only at the save; one paste per copy.
    void copyAndPaste()
    {
        ItemBench b;
        b.store(2, goodImage(1200), {"first"});
        b.store(3, goodImage(3000), {"second"});
        QCOMPARE(b.click(2), 0);
        QVERIFY(!b.db.Medite.MPaseteData.enabled);
        Mcopydata(b.db, b.p);
        QVERIFY(b.db.Medite.MPaseteData.enabled);
        QCOMPARE(b.click(3), 0);
        QCOMPARE(b.speedCell(), QString("3000"));

        const QByteArray file = fileBytes(b.file);
        QCOMPARE(MPaseteData(b.db, b.p, b.l), 0);
        QCOMPARE(b.speedCell(), QString("1200"));
        QCOMPARE(b.l.view.SB[2], kStGotItem);
        QVERIFY(b.l.view.MenuImgEnabled[4]);
        QVERIFY(!b.db.Medite.MPaseteData.enabled);
        QCOMPARE(fileBytes(b.file), file);
        QCOMPARE(MPaseteData(b.db, b.p, b.l), 1);
        QCOMPARE(b.l.view.SB[2], kStNothingToPaste);

        b.prompter.answers = {true};
        QVERIFY(MenuImg4Click(b.db, b.p, b.l));
        QCOMPARE(recordAt(b.file, 3).ParamImage.left(kBlock), goodImage(1200).left(kBlock));
        QCOMPARE(noteOf(recordAt(b.file, 3), 1), QString("second"));

        // A bad block pastes in but shows nothing and leaves the button off.
        QCOMPARE(b.click(4), 1);
        Mcopydata(b.db, b.p);
        QCOMPARE(b.click(2), 0);
        QCOMPARE(MPaseteData(b.db, b.p, b.l), 1);
        QCOMPARE(b.l.view.SB[2], kStItemBad);
        QVERIFY(!b.l.view.MenuImgEnabled[4]);
        QCOMPARE(b.p.SetImage.left(4), QByteArray(4, '\0'));
    }

    void saveButton_data()
    {
        QTest::addColumn<bool>("yes");
        QTest::addColumn<bool>("goodImage");
        QTest::addColumn<int>("selected");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QStringList>("shown");
        QTest::addColumn<bool>("written");
        const QString ask = kHintTitle + '|' + kMsgSaveQuestion;
        QTest::newRow("no") << false << true << 3 << kStSaveDeclined << QStringList{ask} << false;
        QTest::newRow("good image") << true << true << 3 << kStAllSaved << QStringList{ask} << true;
        // The item is written with the notes all the same.
        QTest::newRow("bad image") << true << false << 3 << kStNotesSaved << QStringList{ask} << true;
        QTest::newRow("nothing selected") << true << true << 0 << kStNothingSaved
                                          << QStringList{ask, kHintTitle + '|' + kMsgNoObject} << false;
    }

    void saveButton()
    {
        QFETCH(bool, yes);
        QFETCH(bool, goodImage);
        QFETCH(int, selected);
        QFETCH(QString, status);
        QFETCH(QStringList, shown);
        QFETCH(bool, written);
        ItemBench b;
        const QByteArray file = fileBytes(b.file);
        b.select(selected);
        b.p.SetImage = goodImage ? ::goodImage(700) : QByteArray(kBlock + 1, '\x11');
        NotesTxtKeyUp(b.l.view, 1, "edited");
        QVERIFY(b.l.view.MenuImgEnabled[4]);
        b.prompter.answers = {yes};
        QCOMPARE(MenuImg4Click(b.db, b.p, b.l), yes);
        QCOMPARE(b.l.view.SB[2], status);
        QCOMPARE(b.prompter.shown, shown);
        QVERIFY(!b.l.view.MenuImgEnabled[4]);
        QCOMPARE(fileBytes(b.file) != file, written);
        if (written) {
            QCOMPARE(noteOf(recordAt(b.file, 3), 1), QString("edited"));
            QCOMPARE(recordAt(b.file, 3).ParamImage.left(kBlock), b.p.SetImage.left(kBlock));
        }
        // A disabled button does nothing.
        QVERIFY(!MenuImg4Click(b.db, b.p, b.l));
        QCOMPARE(b.prompter.shown, shown);
    }

    // A file damaged since it opened, or an item that is no longer there:
    // the save is refused with its reason and the file stays as it is.
    void damagedFileNotWritten()
    {
        ItemBench b;
        b.store(3, goodImage(5), {"kept"});
        DbRecord r = recordAt(b.file, 2);
        r.Used = 0;
        putRecordAt(b.file, 2, r);
        const QByteArray whole = fileBytes(b.file);
        for (const auto &[rec, bytes] : {std::pair{3, whole + "tail"}, std::pair{2, whole}}) {
            writeBytes(b.file, bytes);
            b.store(rec, goodImage(6), {"lost"});
            QCOMPARE(b.l.view.SB[2], kStNothingSaved);
            QVERIFY(b.prompter.shown.last().startsWith(kHintTitle + '|' + kMsgOpStopped));
            QCOMPARE(fileBytes(b.file), bytes);
        }
        // Clicked, the freed item loads nothing: bytes 0..43 stay blank as
        // 0xFF, the byte behind the block as it was, and the grid empty.
        b.p.SetImage = goodImage(7);
        QCOMPARE(b.click(2), 1);
        QCOMPARE(b.p.SetImage, QByteArray(kBlock, '\xFF') + '\0');
        QCOMPARE(b.l.view.SB[2], kStItemBad);
        QCOMPARE(b.speedCell(), QString());
        QVERIFY(b.prompter.shown.last().startsWith(kHintTitle + '|' + kMsgOpStopped));
    }

    // A double click in box 2 picks the program file; the other boxes ignore it.
    void programFileBox()
    {
        Link l;
        ScriptedPrompter prompter;
        l.prompter = &prompter;
        prompter.files = {"/tmp/a.BIN"};
        NotesTxtDblClick(l, 1);
        NotesTxtDblClick(l, 2);
        NotesTxtDblClick(l, 2);   // cancelled
        QCOMPARE(prompter.shown, QStringList({"open|Open", "open|Open"}));
        QCOMPARE(l.view.NotesTxt[2], QString("/tmp/a.BIN"));
        QVERIFY(l.view.MenuImgEnabled[4]);
    }

    void merge_data()
    {
        QTest::addColumn<int>("firstLen");
        QTest::addColumn<int>("secondLen");
        QTest::addColumn<int>("outLen");   // 0: refused, nothing written
        QTest::newRow("short first") << 100 << 3000 << 8192 + 3000;
        QTest::newRow("long first") << 20000 << 3000 << 8192 + 3000;
        QTest::newRow("exact first, largest second") << 8192 << 24575 << 32767;
        QTest::newRow("empty second") << 100 << 0 << 0;
        QTest::newRow("empty first") << 0 << 3000 << 0;
        QTest::newRow("second too large to burn") << 8192 << 24576 << 0;
        QTest::newRow("first too large to burn") << 32768 << 3000 << 0;
    }

    void merge()
    {
        QFETCH(int, firstLen);
        QFETCH(int, secondLen);
        QFETCH(int, outLen);
        DbFixture fx;
        Link l;
        l.prompter = &fx.prompter;
        QByteArray first(firstLen, 'B'), second(secondLen, 'M');
        for (int i = 0; i < firstLen; ++i)
            first[i] = char(i * 7);
        writeBytes(fx.path("boot.BIN"), first);
        writeBytes(fx.path("main.BIN"), second);
        writeBytes(fx.path("out.BIN"), "old contents");
        fx.prompter.files = {fx.path("boot.BIN"), fx.path("main.BIN"), fx.path("out.BIN")};
        QCOMPARE(MCompFile(l), outLen ? 0 : 1);
        const QByteArray out = fileBytes(fx.path("out.BIN"));
        if (!outLen) {
            QCOMPARE(out, QByteArray("old contents"));
            QCOMPARE(fx.prompter.shown.last().left(3), QString("提示|"));
            return;
        }
        QCOMPARE(out.size(), outLen);
        const int kept = std::min(firstLen, kMergeSplit);
        QCOMPARE(out.left(kept), first.left(kept));
        QCOMPARE(out.mid(kept, kMergeSplit - kept), QByteArray(kMergeSplit - kept, '\0'));
        QCOMPARE(out.mid(kMergeSplit), second);
        QVERIFY(QDir(fx.dir.path()).entryList(QDir::Files).size() == 3);   // no temporary left behind
    }

    // A cancel at any of the three dialogs writes nothing.
    void mergeCancelled()
    {
        for (int answered = 0; answered < 3; ++answered) {
            DbFixture fx;
            Link l;
            l.prompter = &fx.prompter;
            writeBytes(fx.path("part.BIN"), QByteArray(5000, 'x'));
            for (int i = 0; i < answered; ++i)
                fx.prompter.files << fx.path("part.BIN");
            QCOMPARE(MCompFile(l), 1);
            QCOMPARE(fx.prompter.shown.size(), answered + 1);
            QCOMPARE(QDir(fx.dir.path()).entryList(QDir::Files), QStringList{"part.BIN"});
        }
    }

    void savePro_data()
    {
        QTest::addColumn<int>("imageLen");
        QTest::addColumn<bool>("good");
        QTest::addColumn<QString>("target");   // the name saved to, when not saved.BIN
        QTest::addColumn<QString>("why");      // the reason a refused target is given
        QTest::newRow("blank image") << 2000 << true << "" << "";
        QTest::newRow("too short for its block") << 1000 << false << "" << "";
        QTest::newRow("device as the target") << 2000 << false << "/dev/full" << "not a regular file (a device)";
        QTest::newRow("FIFO as the target") << 2000 << false << "fifo" << "not a regular file (a FIFO)";
    }

    void savePro()
    {
        QFETCH(int, imageLen);
        QFETCH(bool, good);
        DbFixture fx;
        Link l;
        Burn burn;
        l.prompter = &fx.prompter;
        l.now = [&] { return fx.clock; };
        const QByteArray image(imageLen, '\xFF');
        writeBytes(fx.path("fw.BIN"), image);
        // An older, longer file of that name loses its tail.
        writeBytes(fx.path("saved.BIN"), QByteArray(5000, 'o'));
        l.BinPath = fx.path("fw.BIN");
        l.view.NotesTxt[5] = "ORDER-7";
        burn.BinData = "running";
        QFETCH(QString, target);
        if (target == "fifo") {
            target = fx.path("fifo");
            QVERIFY(::mkfifo(QFile::encodeName(target).constData(), 0600) == 0);
        }
        fx.prompter.files = {target.isEmpty() ? fx.path("saved.BIN") : target};
        QCOMPARE(SavePro(l, burn), good ? 0 : 1);
        QCOMPARE(burn.BinData, QByteArray("running"));
        const QByteArray out = fileBytes(fx.path("saved.BIN"));
        QFETCH(QString, why);
        if (!why.isEmpty()) {
            // Refused with the reason; the device or FIFO stays what it was.
            QCOMPARE(fx.prompter.shown.last(), QString("提示|保存程序：无法写入 %1（%2），原文件没有改动。").arg(target, why));
            QVERIFY(!QFileInfo(target).isFile() && QFileInfo(target).exists());
            return;
        }
        if (!good) {
            QVERIFY(fx.prompter.shown.isEmpty());
            QVERIFY(l.view.RTB.startsWith("2026-03-14 09:26:53Data error!\r\n"));
            QCOMPARE(out, QByteArray(5000, 'o'));
            return;
        }
        QCOMPARE(fx.prompter.shown, QStringList{"save|保存程序"});
        QCOMPARE(out.size(), imageLen);
        QCOMPARE(out.left(kInfoOffset), image.left(kInfoOffset));
        QCOMPARE(out.mid(kInfoOffset + kInfoSize), image.mid(kInfoOffset + kInfoSize));
        BitInfRec rec;
        QVERIFY(readBitInfRec(out, kInfoOffset, &rec));
        QCOMPARE(rec.OrderId.trimmed(), QString("ORDER-7"));
        QCOMPARE(rec.DateUpdated.trimmed(), QString("26314"));
    }
};

QTEST_GUILESS_MAIN(TstItems)
#include "tst_items.moc"
