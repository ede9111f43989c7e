#include "stationbench.h"
#include "burn.h"
#include "chipwriter.h"
#include "gbk.h"
#include "portcontrol.h"

#include <QDir>
#include <QFile>
#include <QtTest>

using namespace pyro;

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Three rows COM1..COM3, each with its board; options for each.
void threeBoards(StationBench &t, const SimOptions &o = {})
{
    for (int i = 1; i <= 3; ++i) {
        t.board(QStringLiteral("COM%1").arg(i), i, o);
        QVERIFY(t.add(QStringLiteral("COM%1").arg(i)));
    }
}

} // namespace

class TstStation : public QObject {
    Q_OBJECT
private slots:
    void threeBoardsOneFaulty_data();
    void threeBoardsOneFaulty();
    void boardRemovedMidBurn();
    void givesUpAfterRetryLimit_data();
    void givesUpAfterRetryLimit();
    void stopOneRowOthersBurn();
    void refusals();
    void imageRefusedSendsNothing();
    void chipsTargetAcrossPorts();
    void chipPutBackIsFlagged();
    void chipInStoreIsFlagged();
    void everyRequestAskedAgain_data();
    void everyRequestAskedAgain();
};

// Three boards burned at once with AutoLoad, one of them dropping and
// corrupting replies: every chip closed on a board holds the stamped image,
// every record names its port once per chip, and the faulty row costs only itself.
void TstStation::threeBoardsOneFaulty_data()
{
    QTest::addColumn<bool>("fast");
    QTest::newRow("normal line") << false;
    QTest::newRow("fast line") << true;
}

void TstStation::threeBoardsOneFaulty()
{
    QFETCH(bool, fast);
    StationBench t;
    t.station.fastLine = fast;
    SimOptions o;
    o.swapAfterBurn = true;
    threeBoards(t, o);
    SimBoard &bad = *t.boards["COM2"];
    int n = 0;
    t.everyTick = [&] {
        // Now and then a reply of the faulty board to a write is lost or
        // spoiled (every other request: everyRequestAskedAgain).
        if (++n % 7 == 0 && bad.faults.isEmpty())
            simArmFault(bad, n % 14 == 0 ? SimFault::DropReply : SimFault::CorruptCrc, 1, 0x07);
    };
    Station &s = t.station;
    s.autoLoad = true;
    s.chipsTarget = 6;
    s.order = QStringLiteral("ORDER-42");
    QList<ChipRecord> stored;   // what the chip store is handed
    s.toStore = [&](const ChipRecord &r) { stored << r; };
    QVERIFY(StationLoadFile(s, t.image(5000), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));

    QCOMPARE(s.good, 6);
    int closed = 0;
    for (auto &[name, b] : t.boards)
        for (const SimFinishedImage &f : b->finished) {
            ++closed;
            QCOMPARE(f.flash.left(int(f.bytesDone)), t.stamped());
        }
    QCOMPARE(closed, 6);
    QVERIFY(bad.finished.size() >= 1);
    // Each chip once, with its port; the good ones are exactly the closed images.
    int good = 0;
    QSet<QByteArray> ids;
    for (const auto &r : t.records) {
        QCOMPARE(r.second.port, r.first);
        QCOMPARE(r.second.order, QStringLiteral("ORDER-42"));
        if (r.second.result == QLatin1String("done")) {
            ++good;
            const QByteArray id(reinterpret_cast<const char *>(r.second.chipId.data()), 12);
            QVERIFY2(!ids.contains(id), "a chip recorded good twice");
            ids.insert(id);
        }
    }
    QCOMPARE(good, 6);
    int retried = 0;
    for (const auto &r : t.records)
        retried += r.first == QLatin1String("COM2") ? r.second.retries : 0;
    QVERIFY(retried > 0);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(t.row(i).verdict, Verdict::Pass);

    // The chip record file has a line per record, the port column filled.
    const QString csv = QString::fromUtf8(readAll(QDir(s.recordFolder).filePath(ChipLogFileName(QDate(2026, 11, 23)))));
    const QStringList lines = csv.split(QStringLiteral("\r\n"), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), t.records.size() + 1);
    // The store gets the same chips, in the order of their lines.
    QCOMPARE(stored.size(), int(t.records.size()));
    for (int i = 0; i < stored.size(); ++i)
        QCOMPARE(ChipCsvLine(stored[i]), ChipCsvLine(t.records[i].second));
    for (const QString &line : lines.mid(1))
        QVERIFY2(line.section(QLatin1Char(','), 1, 1).startsWith(QLatin1String("COM")), qPrintable(line));
    // The text record tells which port each line is about.
    QVERIFY(StationWriteRecord(s));
    const QString txt = fromGbk(readAll(QDir(s.recordFolder).filePath(RecordFileName(QDate(2026, 11, 23)))));
    for (int i = 1; i <= 3; ++i)
        QVERIFY(txt.contains(QStringLiteral("09:30:00 [COM%1] Has been successfully burning").arg(i)));
}

// A board gone mid-burn: FAIL "board removed" on its row, the chip recorded as
// cut short, and the other two finish their chips.
void TstStation::boardRemovedMidBurn()
{
    StationBench t;
    threeBoards(t);
    Station &s = t.station;
    QVERIFY(StationLoadFile(s, t.image(8000), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return t.row(0).percent >= 40; }));
    t.ports["COM1"]->vanish();
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));

    QCOMPARE(t.row(0).verdict, Verdict::Fail);
    QCOMPARE(t.row(0).reason, QStringLiteral("board removed"));
    QCOMPARE(t.row(0).state, QStringLiteral("board removed"));
    QCOMPARE(t.recordsOf("COM1", "port lost"), 1);
    QCOMPARE(t.recordsOf("COM1", "done"), 0);
    for (int i = 1; i < 3; ++i) {
        QCOMPARE(t.row(i).verdict, Verdict::Pass);
        QCOMPARE(t.row(i).good, 1);
        QCOMPARE(t.boards[t.row(i).name]->finished.size(), 1);
    }
    QCOMPARE(s.good, 2);
    QCOMPARE(s.failed, 1);
}

void TstStation::givesUpAfterRetryLimit_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("function");
    QTest::addColumn<QString>("reason");
    QTest::newRow("silent on erase") << int(SimFault::DropReply) << 0x05 << "no answer after 10 tries";
    QTest::newRow("refused closes") << int(SimFault::Refuse) << 0x09 << "refused by the chip (status ee) after 10 tries";
    QTest::newRow("bad CRC on close") << int(SimFault::CorruptCrc) << 0x09 << "bad answers after 10 tries";
    // A refused write has its page erased again, which answers well: the
    // retry limit never comes, and the row's own watch gives the chip up.
    QTest::newRow("refused writes, no progress") << int(SimFault::Refuse) << 0x07 << "no progress: the chip refuses (status ee)";
}

// The row gives the chip up after the retry limit and says why; without
// AutoLoad the row ends there, and the healthy row beside it is unharmed.
void TstStation::givesUpAfterRetryLimit()
{
    QFETCH(int, fault);
    QFETCH(int, function);
    QFETCH(QString, reason);
    StationBench t;
    simArmFault(t.board("COM1", 1), SimFault(fault), -1, function);
    t.board("COM2", 2);
    QVERIFY(t.add("COM1"));
    QVERIFY(t.add("COM2"));
    Station &s = t.station;
    s.stallTicks = 300;
    QVERIFY(StationLoadFile(s, t.image(3000), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));
    QCOMPARE(t.row(0).verdict, Verdict::Fail);
    QCOMPARE(t.row(0).reason, reason);
    QCOMPARE(t.row(0).failed, 1);
    QCOMPARE(t.records.size(), 2);
    QCOMPARE(t.recordsOf("COM1", "done"), 0);
    QCOMPARE(t.row(1).verdict, Verdict::Pass);
    QCOMPARE(s.good, 1);
}

// Stop on one row ends that row's chip as stopped; the others burn on, and
// the stopped chip is not counted good.
void TstStation::stopOneRowOthersBurn()
{
    StationBench t;
    threeBoards(t);
    Station &s = t.station;
    QVERIFY(StationLoadFile(s, t.image(6000), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return t.row(1).percent >= 30; }));
    StationStopRow(s, 1);
    QVERIFY(!t.row(1).running);
    QVERIFY(t.row(0).running && t.row(2).running);
    // Load File while others run is refused, and changes nothing.
    QString why;
    QVERIFY(!StationLoadFile(s, t.image(4000, "other.BIN"), &why));
    QVERIFY(why.contains("Stop"));
    QVERIFY(s.binPath.endsWith("image.BIN"));
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));
    QCOMPARE(t.recordsOf("COM2", "stopped"), 1);
    QCOMPARE(t.row(1).verdict, Verdict::Fail);
    QCOMPARE(t.row(1).state, QStringLiteral("stopped"));
    QCOMPARE(t.row(0).verdict, Verdict::Pass);
    QCOMPARE(t.row(2).verdict, Verdict::Pass);
    QCOMPARE(s.good, 2);
    QCOMPARE(t.boards["COM2"]->finished.size(), 0);
}

// The same port twice, the main window's open port, a port that can't be
// opened, rows changed while running: each refused with its reason, the
// rest of the station unharmed.
void TstStation::refusals()
{
    StationBench t;
    t.station.portsInUse = [] { return QStringList{QStringLiteral("COM9")}; };
    t.board("COM1", 1);
    t.board("COM2", 2);
    QString why;
    QVERIFY(t.add("COM1"));
    QVERIFY(!t.add("COM1", &why));
    QCOMPARE(why, QStringLiteral("COM1 is already on the station"));
    QVERIFY(!t.add(" COM1 ", &why));
    QVERIFY(!t.add("COM9", &why));
    QCOMPARE(why, QStringLiteral("COM9 is open in the main window"));
    QVERIFY(!t.add("", &why));
    QVERIFY(t.add("COM2"));
    QVERIFY(t.add("COM3"));   // no board behind it, and it won't open
    t.ports["COM3"]->refusedNames << ResolvePortName("COM3", QString());
    QCOMPARE(t.station.ports.size(), size_t(3));

    Station &s = t.station;
    QVERIFY(!StationStart(s));
    QCOMPARE(s.message, QStringLiteral("Load a file first"));
    QVERIFY(!StationLoadFile(s, t.dir.filePath("missing.BIN"), &why));
    QVERIFY(why.startsWith("no such file"));
    QVERIFY(StationLoadFile(s, t.image(3000), nullptr));
    QVERIFY(StationStart(s));
    QCOMPARE(t.row(2).verdict, Verdict::Fail);
    QCOMPARE(t.row(2).reason, QStringLiteral("port cannot be opened"));
    QVERIFY(!t.row(2).running);
    QVERIFY(!t.add("COM4", &why));
    QVERIFY(why.contains("Stop"));
    QVERIFY(!StationRemovePort(s, 0, &why));
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));
    QCOMPARE(t.row(0).verdict, Verdict::Pass);
    QCOMPARE(t.row(1).verdict, Verdict::Pass);
    QVERIFY(StationRemovePort(s, 2, &why));
    QCOMPARE(s.ports.size(), size_t(2));
}

// A refused image says why on every row and nothing goes on any line.
void TstStation::imageRefusedSendsNothing()
{
    StationBench t;
    threeBoards(t);
    Station &s = t.station;
    QVERIFY(StationLoadFile(s, t.image(40000), nullptr));
    QVERIFY(!StationStart(s));
    QVERIFY(s.message.startsWith("image refused: too long"));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(t.row(i).reason, QStringLiteral("image refused: too long"));
        QVERIFY(!t.row(i).running);
    }
    for (int i = 0; i < 50; ++i)
        t.tick();
    for (auto &[name, p] : t.ports)
        QVERIFY(p->written.isEmpty());
    // KeepInF on a short image, then a good image: the station starts.
    s.keepInF = true;
    QVERIFY(StationLoadFile(s, t.image(3000), nullptr));
    QVERIFY(!StationStart(s));
    QCOMPARE(t.row(0).reason, QStringLiteral("image refused: too short for KeepInF"));
    s.keepInF = false;
    QVERIFY(StationStart(s));
}

// An order of five good chips over three rows with AutoLoad: the station
// stops after the fifth, with no chip left half-burned.
void TstStation::chipsTargetAcrossPorts()
{
    StationBench t;
    SimOptions o;
    o.swapAfterBurn = true;
    threeBoards(t, o);
    Station &s = t.station;
    s.autoLoad = true;
    s.chipsTarget = 5;
    QVERIFY(StationLoadFile(s, t.image(2500), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));
    QCOMPARE(s.good, 5);
    QCOMPARE(s.failed, 0);
    int closed = 0;
    for (auto &[name, b] : t.boards)
        closed += int(b->finished.size());
    QCOMPARE(closed, 5);
    QCOMPARE(t.records.size(), 5);
}

// A chip burned, taken off and put back: its row warns before the second
// burn, and the chip store's hook is asked about every chip.
void TstStation::chipPutBackIsFlagged()
{
    StationBench t;
    SimBoard &b = t.board("COM1", 1);
    QVERIFY(t.add("COM1"));
    Station &s = t.station;
    s.autoLoad = true;
    QList<QString> asked;
    s.askStore = [&](const ChipIdent &id) { asked << ChipIdText(id); };
    QVERIFY(StationLoadFile(s, t.image(2500), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return t.row(0).good == 1; }));
    QVERIFY(t.row(0).warning.isEmpty());
    const QByteArray first = b.chip.identity;
    // Off the bench, then back with a blank flash.
    simSetSilent(b, true);
    QVERIFY(t.runUntil([&] { return t.row(0).state == QLatin1String("waiting for the next chip"); }, 500));
    simSetSilent(b, false);
    simSwapChip(b, first);
    QVERIFY(t.runUntil([&] { return t.row(0).state == QLatin1String("burning"); }, 500));
    QVERIFY2(t.row(0).warning.startsWith("chip met before: on COM1 at 09:30:00, PASS"), qPrintable(t.row(0).warning));
    QCOMPARE(t.row(0).percent < 50, true);
    // The store's answer comes later, on the row that holds the chip.
    QVERIFY(t.runUntil([&] { return t.row(0).good == 2; }));
    simSwapChip(b, QByteArray::fromHex("000000000000000000000077"));
    QVERIFY(t.runUntil([&] { return t.row(0).state == QLatin1String("burning"); }, 500));
    QVERIFY(t.row(0).warning.isEmpty());
    QCOMPARE(asked.size(), 3);
    QCOMPARE(asked.last(), QStringLiteral("000000000000000000000077"));
    StationStoreKnows(s, QStringLiteral("000000000000000000000066"), QStringLiteral("in the store"));
    QVERIFY(t.row(0).warning.isEmpty());
    StationStoreKnows(s, asked.last(), QStringLiteral("in the store"));
    QCOMPARE(t.row(0).warning, QStringLiteral("chip met before: in the store"));
    StationStop(s);
    QCOMPARE(t.recordsOf("COM1", "stopped"), 1);
}

// A chip burned in an earlier run, found in a real chip store: a new run
// asks the store's writer thread as the chip begins, goes on ticking, and
// shows the answer on the row while the chip is still being burned.
void TstStation::chipInStoreIsFlagged()
{
    QTemporaryDir storeDir;
    const QString storePath = ChipStorePath(storeDir.path());
    const QByteArray id = QByteArray::fromHex("5A5A5A5A0000111122223333");
    auto wire = [&](Station &s, ChipWriter &w) {
        s.toStore = [&w](const ChipRecord &r) { w.append(ChipRowFromRecord(r, "BENCH-1", "test")); };
        s.askStore = [&w](const ChipIdent &c) { w.lookup(ChipIdText(c)); };
    };
    {
        StationBench first;
        SimBoard &b = first.board("COM1", 1);
        b.chip.identity = id;
        QVERIFY(first.add("COM1"));
        ChipWriter w(storePath);
        w.start();
        wire(first.station, w);
        QVERIFY(StationLoadFile(first.station, first.image(2500), nullptr));
        QVERIFY(StationStart(first.station));
        QVERIFY(first.runUntil([&] { return !StationRunning(first.station); }));
        QCOMPARE(first.row(0).good, 1);
        w.stop();
        QCOMPARE(w.pending(), 0);
        // Never burned before: the answer says nothing, the row shows nothing.
        const QList<ChipMet> known = w.take().known;
        QCOMPARE(known.size(), 1);
        QCOMPARE(known[0].times, 0);
        QVERIFY(first.row(0).warning.isEmpty());
    }

    StationBench t;
    SimBoard &b = t.board("COM2", 2);
    t.board("COM3", 3);
    b.chip.identity = id;
    QVERIFY(t.add("COM2"));
    QVERIFY(t.add("COM3"));
    Station &s = t.station;
    ChipWriter w(storePath);
    w.start();
    wire(s, w);
    QVERIFY(StationLoadFile(s, t.image(20000), nullptr));
    QVERIFY(StationStart(s));
    QVERIFY(t.runUntil([&] { return t.row(0).state == QLatin1String("burning"); }, 500));
    QVERIFY(t.row(0).warning.isEmpty());
    // The ticks go on, at the pace of the real tick, while the store is
    // asked; the answer is taken between ticks.
    QElapsedTimer waited;
    waited.start();
    QList<ChipMet> known;
    while (known.size() < 2 && waited.elapsed() < 10000) {
        t.tick();
        known += w.take().known;
        if (known.size() < 2)
            QThread::msleep(15);
    }
    QCOMPARE(known.size(), 2);
    for (const ChipMet &m : known)
        StationStoreKnows(s, m.now.chipId, ChipKnownText(m));
    QVERIFY(t.row(0).burn.chipLog.active);
    QVERIFY2(t.row(0).warning.startsWith("chip met before: in the chip store: burned 1 time(s), last on 2026-11-23 "
                                         "09:30:00 at BENCH-1 port COM1"),
             qPrintable(t.row(0).warning));
    QVERIFY(t.row(1).warning.isEmpty());
    QVERIFY(t.runUntil([&] { return !StationRunning(s); }));
    QCOMPARE(s.good, 2);
    w.stop();
}

// A reply lost or spoiled now and then, on any request of the burn (a
// close of a page already shut included): the request goes again, the board
// answers it as done, and every chip passes.
void TstStation::everyRequestAskedAgain_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("fn");
    QTest::addColumn<bool>("fast");
    for (int fn : {0x03, 0x05, 0x07, 0x09, 0xF1})
        for (int f : {int(SimFault::DropReply), int(SimFault::CorruptCrc)})
            for (bool fast : {false, true})
                QTest::newRow(qPrintable(QString("%1 on 0x%2, %3").arg(simFaultName(SimFault(f))).arg(fn, 2, 16, QChar('0'))
                                             .arg(fast ? "fast" : "normal"))) << f << fn << fast;
}

void TstStation::everyRequestAskedAgain()
{
    QFETCH(int, fault);
    QFETCH(int, fn);
    QFETCH(bool, fast);
    StationBench t;
    SimOptions o;
    o.swapAfterBurn = true;
    SimBoard &b = t.board("COM1", 1, o);
    QVERIFY(t.add("COM1"));
    Station &s = t.station;
    s.fastLine = fast;
    s.autoLoad = true;
    s.chipsTarget = 4;
    int armedAt = -1;
    t.everyTick = [&] {
        const int heard = b.requests[size_t(fn)];
        if (heard % 3 == 0 && heard != armedAt && b.faults.isEmpty()) {
            armedAt = heard;
            simArmFault(b, SimFault(fault), 1, fn);
        }
    };
    QVERIFY(StationLoadFile(s, t.image(3000), nullptr));
    QVERIFY(StationStart(s));
    t.runUntil([&] { return !StationRunning(s) || s.failed > 0; }, 20000);
    QVERIFY2(s.failed == 0, qPrintable(t.row(0).reason));
    QCOMPARE(s.good, 4);
    QVERIFY(b.requests[size_t(fn)] > 4 * (fn == 0x07 ? 3 : 1));
    QCOMPARE(b.finished.size(), 4);
    for (const SimFinishedImage &f : b.finished)
        QCOMPARE(f.flash.left(int(f.bytesDone)), t.stamped());
}

QTEST_GUILESS_MAIN(TstStation)
#include "tst_station.moc"
