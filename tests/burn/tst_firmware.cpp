#include "burnbench.h"
#include "infoblock.h"
#include "params.h"

#include <QtTest>
#ifdef Q_OS_UNIX
#include <sys/stat.h>
#endif

using namespace pyro;

namespace {

const QByteArray kRemarkGbk = QByteArray::fromHex("4b373030b2d9d7f7d4b1");   // "K700操作员"

// Remembers where the dialog was asked to start.
class DialogPrompter : public ScriptedPrompter {
public:
    QString startDir, filter;
    QString openFile(const QString &title, const QString &f, const QString &start) override
    {
        startDir = start;
        filter = f;
        return ScriptedPrompter::openFile(title, f, start);
    }
};

} // namespace

class TstFirmware : public QObject {
    Q_OBJECT
private slots:
    void infoBlockLayout();
    void prepareResults_data();
    void prepareResults();
    void stampAndRestamp();
    void currSet();
    void loadFile();
};

// Byte by byte: FF FF | FF FF | date 6 | order 30 | remark 10, texts in GBK.
void TstFirmware::infoBlockLayout()
{
    BitInfRec r;
    r.DateUpdated = "2615";
    r.OrderId = "订单A-1";
    r.RemarkStamp = "K700操作员";
    const QByteArray blk = writeBitInfRec(r);
    QCOMPARE(blk, QByteArray::fromHex("FFFFFFFF") + "2615  " + toGbk("订单A-1") + QByteArray(23, ' ') + kRemarkGbk);
    BitInfRec back;
    QVERIFY(readBitInfRec(QByteArray(1024, 'x') + blk, 1024, &back));
    QCOMPARE(back.DeviceId, int16_t(-1));
    QCOMPARE(back.DateUpdated, QString("2615  "));
    QCOMPARE(back.RemarkStamp, QString("K700操作员"));
    QVERIFY(!readBitInfRec(QByteArray(1024, 'x') + blk.left(49), 1024, &back));
    QVERIFY(!readBitInfRec(blk, -1, &back));

    // Double-byte characters that don't fit 30 bytes are cut whole, never split.
    r.OrderId = QString(16, QChar(0x8BA2));   // 订
    QCOMPARE(writeBitInfRec(r).mid(10, 30), toGbk(QString(15, QChar(0x8BA2))));
    r.OrderId = "A" + QString(15, QChar(0x8BA2));
    QCOMPARE(writeBitInfRec(r).mid(10, 30), toGbk("A" + QString(14, QChar(0x8BA2))) + ' ');
    r.DeviceId = 0x1234;
    QCOMPARE(writeBitInfRec(r).left(2), QByteArray::fromHex("3412"));
}

void TstFirmware::prepareResults_data()
{
    QTest::addColumn<int>("len");           // -1: no file, -2: a FIFO
    QTest::addColumn<QByteArray>("block");  // the first bytes of the block
    QTest::addColumn<bool>("keep");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("reason");
    const QByteArray blank = QByteArray::fromHex("FFFF");
    QTest::newRow("no file") << -1 << blank << false << 3 << " No such file：";
#ifdef Q_OS_UNIX
    QTest::newRow("a FIFO") << -2 << blank << false << 3 << " Cannot read：not a regular file";
#endif
    QTest::newRow("empty file") << 0 << blank << false << 1 << " Image too short：0(Byte), the information block needs 1074(Byte)";
    QTest::newRow("block cut short") << 1073 << blank << false << 1 << " Image too short：1073(Byte)";
    QTest::newRow("one byte too long") << 32768 << blank << false << 4 << " Image too long：32768(Byte), at most 32767(Byte)";
    QTest::newRow("stamped before") << 5000 << QByteArray::fromHex("FFFF0102") << false << 0 << "";
    QTest::newRow("not blank") << 5000 << QByteArray::fromHex("0100") << false << 1 << " Information block not blank：Device ID 1";
    QTest::newRow("half blank") << 5000 << QByteArray::fromHex("FF00") << false << 1 << " Information block not blank：Device ID 255";
    QTest::newRow("KeepInF, short") << 4095 << blank << true << 5 << " KeepInF needs an image of at least 4096(Byte)";
}

// PrepareImage's result and reason, then the same file through Program: a
// burn, or the refusal in the log and none. The smallest and largest images,
// and KeepInF on exactly 4096 bytes, are burned whole in the state machine tests.
void TstFirmware::prepareResults()
{
    QFETCH(int, len);
    QFETCH(QByteArray, block);
    QFETCH(bool, keep);
    QFETCH(int, result);
    QFETCH(QString, reason);
    BurnBench b;
    QByteArray img = testImage(std::max(len, 0));
    if (len >= 1024 + block.size())
        img.replace(1024, block.size(), block);
    const QString path = len < 0 ? b.dir.filePath("missing.BIN") : b.file(img);
#ifdef Q_OS_UNIX
    if (len == -2)
        QCOMPARE(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
#endif
    b.link.view.Check1[1] = keep;
    QString why;
    QCOMPARE(int(PrepareImage(b.link, b.burn, path, &why)), result);
    QVERIFY2(reason.isEmpty() ? why.isEmpty() : why.startsWith(reason), qPrintable(why));
    if (result == 0) {
        QCOMPARE(b.burn.BinData.size(), len + 1);
        QCOMPARE(b.burn.BinData.back(), '\0');
        QCOMPARE(b.burn.BinData.mid(1024, 4), QByteArray::fromHex("FFFFFFFF"));   // DeviceId2 too
    }

    b.responder = [](const QByteArray &r) { return obligingDevice(r, QByteArray(12, '\x5A')); };
    b.open();
    b.program(path);
    QCOMPARE(b.burning(), result == 0);
    // The pane says only that the file failed; the reason is kept for the user.
    if (result != 0) {
        QVERIFY(b.link.view.RTB.endsWith("09:30:00 File open error \r\n"));
        QVERIFY(!b.link.view.RTB.contains(reason));
        // Load File has refused what isn't there or isn't a file: no path is left.
        QVERIFY2(b.burn.Refusal.startsWith(len < 0 ? " No such file：" : reason), qPrintable(b.burn.Refusal));
    }
}

// The stamp: only the 50 bytes at 1024 change; a stamped file prepares again
// with the new day's date (no leading zeros) and order text.
void TstFirmware::stampAndRestamp()
{
    BurnBench b;
    const QByteArray img = testImage(3000);
    b.link.view.NotesTxt[5] = "ORDER-2026-0042";
    QCOMPARE(PrepareImage(b.link, b.burn, b.file(img)), int16_t(0));
    QByteArray expect = img;
    expect.replace(1024, 50, QByteArray::fromHex("FFFFFFFF") + "261123"
                   + QByteArray("ORDER-2026-0042").leftJustified(30, ' ') + kRemarkGbk);
    QCOMPARE(b.stamped(), expect);

    const QString again = b.file(b.stamped(), "stamped.BIN");
    b.link.now = [] { return QDateTime(QDate(2027, 2, 3), QTime(7, 0)); };
    b.link.view.NotesTxt[5] = QString(40, 'x');
    QCOMPARE(PrepareImage(b.link, b.burn, again), int16_t(0));
    QCOMPARE(b.burn.BinData.mid(1028, 36), "2723  " + QByteArray(30, 'x'));
}

// CurrSet: the stamped settings block goes to 2048 and 3072, or the image is refused.
void TstFirmware::currSet()
{
    BurnBench b;
    const QByteArray img = testImage(5000);
    const QString path = b.file(img);
    b.link.view.Check1[2] = true;
    QCOMPARE(PrepareImage(b.link, b.burn, path), int16_t(2));   // no parameter engine

    Params p;
    p.Tables[0].BlockSize = 100;
    p.SetImage = QByteArray(101, '\x33');
    putLe32(p.SetImage, kImageLengthAt, 100 - 32);
    b.burn.params = &p;
    QCOMPARE(PrepareImage(b.link, b.burn, path), int16_t(0));
    QCOMPARE(b.burn.BinData.mid(2048, 100), p.SetImage.left(100));
    QCOMPARE(b.burn.BinData.mid(3072, 100), p.SetImage.left(100));
    QCOMPARE(b.burn.BinData.mid(3172), img.mid(3172) + '\0');

    putLe32(p.SetImage, kImageLengthAt, 5);     // a length that doesn't fit the table
    QCOMPARE(PrepareImage(b.link, b.burn, path), int16_t(2));
    putLe32(p.SetImage, kImageLengthAt, 100 - 32);
    QCOMPARE(PrepareImage(b.link, b.burn, b.file(testImage(3100), "short.BIN")), int16_t(2));
}

// Load File: the dialog, its start folder, the log lines, Program enabled or not.
void TstFirmware::loadFile()
{
    BurnBench b;
    const QString path = b.file(testImage(2500));
    DialogPrompter dp;
    b.link.prompter = &dp;
    b.link.view.NotesTxt[2] = path;
    dp.files << path;
    Command3Click(b.link, b.burn);
    QCOMPARE(dp.startDir, b.dir.path());
    QCOMPARE(dp.filter, QString("File(*.BIN)|*.BIN"));
    QCOMPARE(b.link.BinPath, path);
    QVERIFY(b.link.view.Command4Enabled);
    QVERIFY(!b.link.view.Command3Enabled);   // the tick gives it back while the port is open
    QCOMPARE(b.link.view.RTB, "2026-11-23 09:30:00 File path：" + path + "\r\n"
                                  "2026-11-23 09:30:00 File size：2500(Byte)\r\n");

    // Program with the port closed resets the strip only; the tick keeps both buttons off.
    b.link.view.PersLabVisible = true;
    Command4Click(b.link, b.burn);
    QVERIFY(!b.burning() && !b.link.view.PersLabVisible);
    QCOMPARE(b.logged("\r\n"), 2);
    b.tick();
    QVERIFY(!b.link.view.Command3Enabled && !b.link.view.Command4Enabled);
    b.link.view.Command4Enabled = true;

    // A file that can't be read (here a FIFO, which would block an open) ends
    // the click: path and Program stay.
    const QString fifo = b.dir.filePath("fifo.BIN");
#ifdef Q_OS_UNIX
    QCOMPARE(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
#endif
    dp.files << fifo;
    Command3Click(b.link, b.burn);
    QCOMPARE(b.link.BinPath, path);
    QCOMPARE(b.burn.BinLen, 0);
    QVERIFY(b.link.view.Command4Enabled);
    QVERIFY(b.link.view.Command3Enabled);

    // A cancelled dialog forgets the good choice; so does a name of 5 characters.
    b.link.view.NotesTxt[2] = b.dir.filePath("nothing-here.BIN");
    Command3Click(b.link, b.burn);
    QCOMPARE(dp.startDir, QString());
    QVERIFY(b.link.BinPath.isEmpty());
    QVERIFY(!b.link.view.Command4Enabled);
    dp.files << path << "a.BIN";
    Command3Click(b.link, b.burn);
    Command3Click(b.link, b.burn);
    QVERIFY(b.link.BinPath.isEmpty());
    QVERIFY(!b.link.view.Command4Enabled);
    QCOMPARE(b.logged("File path"), 2);
}

QTEST_GUILESS_MAIN(TstFirmware)
#include "tst_firmware.moc"
