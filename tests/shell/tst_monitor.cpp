// The line monitor and the live plots: their records and samples against
// the in-process board, their bounds, their text and CSV, and the windows
// hanging themselves on the engine only while open.
#include "chiphistory.h"
#include "exchangelog.h"
#include "fakeport.h"
#include "frame.h"
#include "monitorwindow.h"
#include "paramops.h"
#include "params.h"
#include "plotwindow.h"
#include "samplestore.h"
#include "simlink.h"
#include "viewform.h"

#include <QAction>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTableView>
#include <QTemporaryDir>
#include <QtTest>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace pyro;

namespace {

struct Bench {
    FakePort port;
    SimBoard board;
    Link link;
    QByteArray fromBoard;                // every byte the board gave out

    Bench()
    {
        AttachPort(link, &port);
        port.open(QStringLiteral("COM1"), PortSettings{});
        attachSim(port, board);
        auto deliver = board.onTransmit;
        board.onTransmit = [this, deliver](const QByteArray &b) {
            fromBoard += b;
            deliver(b);
        };
        link.ModeRequest = link.LinkMode = 5;   // no monitor polls in between
    }
};

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

class TstMonitor : public QObject {
    Q_OBJECT
private slots:
    void records_data();
    void records();
    void boundAndView();
    void samples();
    void csvReadBack();
    void windowsHookOnlyWhileOpen();
    void saveAndExport();
    void chipHistory();
    void chipHistoryWithoutTheLine_data();
    void chipHistoryWithoutTheLine();
};

void TstMonitor::records_data()
{
    QTest::addColumn<QString>("fault");  // "hold": the transmit-empty notice never comes
    QTest::addColumn<int>("outcome");
    QTest::addColumn<QString>("words");
    QTest::newRow("good") << "" << 0 << "good";
    QTest::newRow("no transmit notice") << "hold" << 1 << "no transmit notice";
    QTest::newRow("no reply") << "DropReply" << 2 << "no reply";
    QTest::newRow("short") << "SplitReply" << 3 << "short";
    QTest::newRow("crc") << "CorruptCrc" << 4 << "CRC error";
    QTest::newRow("wrong function") << "WrongFunction" << 5 << "wrong function";
}

// The records say what went over the line: the frame the board heard, then
// what it gave back as far as the engine judged it.
void TstMonitor::records()
{
    QFETCH(QString, fault);
    QFETCH(int, outcome);
    QFETCH(QString, words);
    Bench b;
    if (fault == "hold")
        b.port.holdSendNotice = true;
    else if (!fault.isEmpty())
        simArmFault(b.board, simFaultFromName(fault), 1, kFnLinkPoll);
    ExchangeLog log;
    log.clock = [] { return qint64(1700000000000); };
    QByteArray boardGaveBeforeJudging;
    b.link.onExchange = [&](const ExchangeRecord &r) {
        if (r.direction == ExchangeRecord::Received)
            boardGaveBeforeJudging = b.fromBoard;
        log.append(r);
    };
    MBBuildFrame(b.link, kFnLinkPoll, QByteArray(1, '\0'));
    MBSend(b.link, 3, 20, 20);
    QCOMPARE(simRunExchange(b.port, b.board, b.link), outcome);

    QCOMPARE(log.size(), 2);
    const MonitorRecord &sent = log.at(0), &got = log.at(1);
    QCOMPARE(sent.direction, ExchangeRecord::Sent);
    QCOMPARE(sent.frame, b.board.heard.value(0));
    QCOMPARE(sent.function, uint8_t(kFnLinkPoll));
    QCOMPARE(OutcomeWords(sent), QString("sent"));
    QCOMPARE(got.direction, ExchangeRecord::Received);
    QCOMPARE(got.function, uint8_t(kFnLinkPoll));
    QCOMPARE(got.outcome, int16_t(outcome));
    QCOMPARE(OutcomeWords(got), words);
    QCOMPARE(got.frame, outcome == 1 || outcome == 2 ? QByteArray() : boardGaveBeforeJudging);
    QVERIFY(got.tick > sent.tick);
    QCOMPARE(got.msecs, qint64(1700000000000));
    // The text line carries the same: length, bytes in hex, outcome.
    const QStringList cells = MonitorLine(got).split('\t');
    QCOMPARE(cells.size(), 8);
    QCOMPARE(cells[1], QString::number(got.tick));
    QCOMPARE(cells[3], QString("F0"));
    QCOMPARE(cells[4].toInt(), got.frame.size());
    QCOMPARE(QByteArray::fromHex(cells[5].toLatin1()), got.frame);
    QCOMPARE(cells[7], words);
    // Filtered by outcome, only the judged answer is left.
    QCOMPARE(MonitorText(log, {-1, outcome}).count('\n'), 2);
    QCOMPARE(MonitorText(log, {0x03, -1}).count('\n'), 1);
}

// 100,000 kept, the oldest dropped; the view follows drops and filters.
void TstMonitor::boundAndView()
{
    ExchangeLog log;
    MonitorModel model(log);
    const int extra = 1234;
    const QByteArray frame = MBBuildFrame(kFnLinkPoll, QByteArray(1, '\0'));
    for (int i = 0; i < ExchangeLog::kDefaultCapacity + extra; ++i) {
        log.append({i % 2 ? ExchangeRecord::Received : ExchangeRecord::Sent, i, uint8_t(i % 4 < 2 ? 0xF0 : 0xF4),
                    frame, int16_t(i % 3 ? 0 : 4)});
        if (i == 500)
            model.sync();
    }
    QCOMPARE(log.size(), ExchangeLog::kDefaultCapacity);
    QCOMPARE(log.at(0).tick, qint64(extra));
    QCOMPARE(log.at(log.size() - 1).tick, qint64(ExchangeLog::kDefaultCapacity + extra - 1));
    model.sync();
    QCOMPARE(model.rowCount(), ExchangeLog::kDefaultCapacity);
    QCOMPARE(model.record(0).tick, qint64(extra));
    QCOMPARE(model.data(model.index(0, MonitorModel::Tick)).toLongLong(), qint64(extra));

    model.setFilter({0xF0, 4});          // answers to F0 judged CRC error
    for (int r = 0; r < model.rowCount(); ++r) {
        const MonitorRecord &m = model.record(r);
        QVERIFY(m.function == 0xF0 && m.direction == ExchangeRecord::Received && m.outcome == 4);
    }
    QVERIFY(model.rowCount() > 0);
    log.clear();
    model.sync();
    QCOMPARE(model.rowCount(), 0);
}

// Each good read of the running values adds one sample per plotted row, the
// number the grid shows (list rows: the stored number of the label shown).
void TstMonitor::samples()
{
    Bench b;
    Params p;
    ScriptedPrompter prompter;
    LoadParamTables(p, PYRO_DATA_DIR, &prompter);
    QVERIFY(prompter.shown.isEmpty());
    ParamOps ops;
    InstallParamOps(b.link, p, ops);
    SampleStore store;
    QList<int> rows;
    for (int r = 1; r < p.Tables[1].RowCount; ++r) {
        const ValueKind k = KindOf(p.DisplayRows[r]);
        if (k != ValueKind::None && k != ValueKind::Unsupported) {
            rows << r;
            store.watch(r, true);
        }
    }
    QVERIFY(rows.size() > 10);
    int checked = 0;
    qint64 at = 0;
    ops.onDisplayDecoded = [&](ParamOps &o) {
        store.record(*o.params, ++at);
        for (int r : rows) {
            const ParamRow &row = p.DisplayRows[r];
            const QString shown = p.MSFG[1].text(r, kValueCol);
            QCOMPARE(int(store.samples(r).size()), int(at));
            const double v = store.samples(r).back().value;
            QCOMPARE(store.samples(r).back().msecs, at);
            if (RowIsStep(row)) {
                const QStringList labels = SplitList(row.Labels), values = SplitList(row.Values);
                int i = KindOf(row) == ValueKind::Bit ? int(v) : -1;
                for (int j = 0; i < 0 && j < values.size(); ++j)
                    i = values[j].trimmed().toDouble() == v ? j : -1;
                QVERIFY2(i >= 0 && labels.value(i).trimmed() == shown.trimmed(),
                         qPrintable(QString("row %1: %2 against \"%3\"").arg(r).arg(v).arg(shown)));
            } else {
                QVERIFY2(v == shown.toDouble(),
                         qPrintable(QString("row %1: %2 against \"%3\"").arg(r).arg(v).arg(shown)));
            }
            ++checked;
        }
    };
    b.link.LinkMode = b.link.ModeRequest = 0;
    simRun(b.port, b.board, b.link, 400, [&] { return b.link.view.SB[1].startsWith("Link normal"); });
    b.link.ModeRequest = 7;
    simRun(b.port, b.board, b.link, 400, [&] { return ops.displayPolls >= 4; });
    QCOMPARE(ops.displayPolls, qint64(4));
    QCOMPARE(checked, 4 * int(rows.size()));

    // The bound per row drops the oldest.
    SampleStore small(3);
    small.watch(7, true);
    for (int i = 0; i < 5; ++i)
        small.add(7, i, i * 10);
    QCOMPARE(int(small.samples(7).size()), 3);
    QCOMPARE(small.samples(7).front().value, 20.0);
}

void TstMonitor::csvReadBack()
{
    SampleStore store;
    store.watch(2, true);
    store.watch(5, true);
    store.add(2, 1000, 1.5);
    store.add(5, 1000, -3);
    store.add(2, 1030, 1.25);
    store.add(5, 1060, 123456.7);
    const QStringList lines = SamplesCsv(store, {"a", "b", "speed, rpm", "d", "e", "state"}).trimmed().split('\n');
    QCOMPARE(lines, (QStringList{"time_ms,\"speed, rpm\",state", "0,1.5,-3", "30,1.25,", "60,,123456.7"}));
}

void TstMonitor::windowsHookOnlyWhileOpen()
{
    ScriptedPrompter prompter;
    FakePort port;
    // The tables only: a database beside them would be stamped and twinned.
    QTemporaryDir app;
    for (const char *name : {"Config.For", "Display.For"})
        QFile::copy(QStringLiteral(PYRO_DATA_DIR "/") + name, app.filePath(name));
    ViewForm::Options o;
    o.appDir = app.path();
    o.prompter = &prompter;
    o.port = &port;
    ViewForm f(o);
    QVERIFY(!f.link.onExchange && !f.ops.onDisplayDecoded);
    f.menuAction("LineMonitor")->trigger();
    f.menuAction("LivePlots")->trigger();
    QVERIFY(f.lineMonitor().isVisible() && f.livePlots().isVisible());
    QVERIFY(f.link.onExchange && f.ops.onDisplayDecoded);
    MBBuildFrame(f.link, kFnLinkPoll, QByteArray(1, '\0'));
    f.link.onExchange({ExchangeRecord::Sent, 1, kFnLinkPoll, f.link.MBTxBuf, 0});
    f.lineMonitor().setPaused(true);
    f.link.onExchange({ExchangeRecord::Sent, 2, kFnLinkPoll, f.link.MBTxBuf, 0});
    QCOMPARE(f.lineMonitor().log.size(), 1);
    f.lineMonitor().close();
    f.livePlots().close();
    QVERIFY(!f.link.onExchange && !f.ops.onDisplayDecoded);
}

void TstMonitor::saveAndExport()
{
    QTemporaryDir dir;
    ScriptedPrompter prompter;
    Link link;
    MonitorWindow mon(link, &prompter);
    mon.show();
    const QByteArray frame = MBBuildFrame(kFnReadMemory, QByteArray::fromHex("0010002030000"));
    link.onExchange({ExchangeRecord::Sent, 7, kFnReadMemory, frame, 0});
    link.onExchange({ExchangeRecord::Received, 9, kFnReadMemory, {}, 2});
    mon.sync();
    mon.table()->selectRow(1);
    QCOMPARE(mon.selectedText(), MonitorLine(mon.log.at(1)) + '\n');
    prompter.files = {dir.filePath("line.txt"), dir.filePath("no/such/dir/x.txt")};
    mon.saveAll();
    const QStringList lines = QString::fromUtf8(readAll(dir.filePath("line.txt"))).trimmed().split('\n');
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines[1], MonitorLine(mon.log.at(0)));
    QVERIFY(lines[2].endsWith("\tno reply"));
    mon.saveAll();                       // an unwritable place: said, not lost
    QVERIFY(prompter.shown.last().contains("Could not write"));

    Params p;
    LoadParamTables(p, PYRO_DATA_DIR, &prompter);
    ParamOps ops;
    ops.params = &p;
    PlotWindow plots(ops, &prompter);
    qint64 now = 5000;
    plots.clock = [&] { return now; };
    plots.show();
    const int row = plots.plottableRows().value(2);
    plots.setPlotted(row, true);
    QCOMPARE(plots.store.rows(), QList<int>{row});
    QCOMPARE(plots.canvas()->curves.size(), 1);
    p.DisplayImage = QByteArray(p.DisplayImage.size(), '\0');
    ops.onDisplayDecoded(ops);
    now += 40;
    ops.onDisplayDecoded(ops);
    prompter.files = {dir.filePath("plot.csv")};
    plots.exportCsv();
    QCOMPARE(QString::fromUtf8(readAll(dir.filePath("plot.csv"))),
             SamplesCsv(plots.store, [&] {
                 QStringList n;
                 for (int r = 0; r < p.DisplayRows.size(); ++r)
                     n << plots.rowName(r);
                 return n;
             }()));
    QCOMPARE(QString::fromUtf8(readAll(dir.filePath("plot.csv"))).count('\n'), 3);
    plots.canvas()->grab();              // draws without a fault
}

// The chip history from the View menu on a store of a thousand chips: pages
// fetched as the table scrolls, a filter typed, a new chip followed and
// flagged as met again, what is shown exported.
void TstMonitor::chipHistory()
{
    QTemporaryDir home;
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(home.path()));
    const QString folder = RecordFolder();
    const QString again = QStringLiteral("00000000000000000000ABCD");
    {
        SqliteChipStore store(ChipStorePath(folder));
        QVERIFY(store.open(nullptr));
        QList<ChipRow> rows;
        for (int i = 0; i < 1000; ++i) {
            ChipRow r;
            r.utcMs = QDateTime::currentMSecsSinceEpoch() - (1000 - i) * 60000LL;
            r.local = QDateTime::fromMSecsSinceEpoch(r.utcMs).toString("yyyy-MM-dd HH:mm:ss");
            r.station = "S";
            r.port = i % 2 ? "COM3" : "COM4";
            r.chipId = i == 11 ? again : QStringLiteral("%1").arg(i, 24, 10, QLatin1Char('0'));
            r.order = "K700";
            r.image = "fw.BIN";
            r.sha256 = QString(64, 'a');
            r.result = i % 10 ? "done" : "failed";
            r.key = ChipRowKey(r);
            rows << r;
        }
        QCOMPARE(store.append(rows, nullptr, nullptr), 1000);
    }
    {
        ScriptedPrompter prompter;
        ViewForm::Options o;
        o.appDir = home.path();
        o.prompter = &prompter;
        ViewForm form(o);
        form.chipRecords().boxes = false;
        form.menuAction("ChipHistory")->trigger();
        ChipHistoryWindow &w = form.chipHistory();
        QVERIFY(w.isVisible());
        QTRY_COMPARE(w.model()->rowCount(), ChipTableModel::kPage);
        QTRY_VERIFY(w.summaryLabel()->text().startsWith("1000 chips, 900 good, 100 not done, yield 90.0%"));
        QVERIFY(!w.chart()->hours().isEmpty());
        w.table()->scrollToBottom();
        QTRY_VERIFY(w.model()->rowCount() > ChipTableModel::kPage);

        QTest::keyClicks(w.portEdit(), "COM3");
        QTRY_VERIFY(w.summaryLabel()->text().startsWith("500 chips"));
        QTest::keyClicks(w.chipEdit(), QString(22, QLatin1Char('0')) + "9");
        QTRY_COMPARE(w.model()->rowCount(), 5);   // ...0091 to ...0099, the odd ones
        w.portEdit()->clear();
        w.chipEdit()->clear();
        w.applyFilter();
        QTRY_COMPARE(w.model()->rowCount(), ChipTableModel::kPage);

        // A chip burned now, whose identity was burned before.
        ChipRecord c;
        c.when = QDateTime::currentDateTime();
        c.port = "COM9";
        const QByteArray id = QByteArray::fromHex(again.toLatin1());
        std::copy(id.begin(), id.end(), c.chipId.begin());
        c.result = "done";
        form.burn.chipLog.toStore(c);
        QTRY_COMPARE(w.model()->row(0).port, QString("COM9"));
        QTRY_VERIFY(w.noticeLabel()->text().contains("chip " + again + " was burned before: 1 time(s)"));
        QTRY_VERIFY(w.summaryLabel()->text().startsWith("1001 chips"));

        const QString out = home.filePath("shown.csv");
        prompter.files << out;
        w.resultBox()->setCurrentText("failed");
        QSignalSpy exported(&w, &ChipHistoryWindow::exported);
        w.findChild<QPushButton *>("ExportCsv")->click();
        QTRY_COMPARE(exported.count(), 1);
        QCOMPARE(exported.at(0).at(0).toBool(), true);
        const QStringList lines = QString::fromUtf8(readAll(out)).split("\r\n", Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 101);
        QCOMPARE(lines[0], CsvJoin(ChipRowHeader()));
        QVERIFY(lines[1].endsWith(",failed,"));
    }
    qputenv("HOME", oldHome);
}

void TstMonitor::chipHistoryWithoutTheLine_data()
{
    QTest::addColumn<QByteArray>("conf");
    QTest::addColumn<QString>("summary");   // the window's words before a chip
    QTest::addColumn<QString>("notice");    // and after one
    QTest::newRow("a file that doesn't parse") << QByteArray("dbname=line\nserver=db1\n") << "No chips to show: no chip store at"
                                               << "records.conf:2: unknown key 'server'";
    QTest::newRow("a server that isn't there") << QByteArray("host=/nonexistent-pyrolink\ndbname=line\n")
                                               << "No chips to show: the line's chip store postgresql:///line?host=/nonexistent-pyrolink can't be reached"
                                               << "The line's chip store can't be written";
    // It takes the connection and never says a word: the window must not wait.
    QTest::newRow("a server that never answers") << QByteArray("host=%SILENT%\ndbname=line\n")
                                                 << "No chips to show: the line's chip store postgresql:///line?host="
                                                 << "The line's chip store can't be written";
}

// records.conf names a line's store that can't be had: the window says why,
// and the chip goes to the bench's own store all the same.
void TstMonitor::chipHistoryWithoutTheLine()
{
    QFETCH(QByteArray, conf);
    QFETCH(QString, summary);
    QFETCH(QString, notice);
    QTemporaryDir home;
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(home.path()));
    // A socket that listens and is never read: the kernel takes the
    // connection, and nothing ever answers it.
    const int silent = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const QByteArray socketPath = QFile::encodeName(home.filePath(".s.PGSQL.5432"));
    QVERIFY(socketPath.size() < int(sizeof addr.sun_path));
    std::memcpy(addr.sun_path, socketPath.constData(), size_t(socketPath.size()));
    QVERIFY(::bind(silent, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 && ::listen(silent, 16) == 0);
    const auto closeSilent = qScopeGuard([silent] { ::close(silent); });
    conf.replace("%SILENT%", QFile::encodeName(home.path()));
    QFile f(home.filePath("records.conf"));
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(conf);
    f.close();
    {
        ScriptedPrompter prompter;
        ViewForm::Options o;
        o.appDir = home.path();
        o.prompter = &prompter;
        ViewForm form(o);
        form.chipRecords().boxes = false;
        form.menuAction("ChipHistory")->trigger();
        ChipHistoryWindow &w = form.chipHistory();
        // The question went to the window's store thread; this one is free.
        QVERIFY(!w.model()->settled());
        QTRY_VERIFY2_WITH_TIMEOUT(w.summaryLabel()->text().startsWith(summary), qPrintable(w.summaryLabel()->text()), 15000);
        ChipRecord c;
        c.when = QDateTime::currentDateTime();
        c.port = "COM9";
        c.result = "done";
        form.burn.chipLog.toStore(c);
        QTRY_VERIFY2(w.noticeLabel()->text().contains(notice), qPrintable(w.noticeLabel()->text()));
        SqliteChipStore own(ChipStorePath(RecordFolder()));
        QTRY_VERIFY(own.open(nullptr) && own.page({}, std::nullopt, 5, nullptr).value(0).port == "COM9");
    }
    qputenv("HOME", oldHome);
}

QTEST_MAIN(TstMonitor)
#include "tst_monitor.moc"
