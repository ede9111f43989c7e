// bench-monitor: the window with the line monitor and the live plots open,
// burning 32 KiB into pyrolink-sim on a pseudo-terminal and then watching
// 200 running values, eight of them plotted: the tick period (mean, worst)
// in each phase, and the cost of one exchange taken into the monitor and of
// one sample taken into the plots. Usage: bench-monitor [--sim PATH]
// [--shots DIR]: instead, the demo tables, faults put on the line during the
// burn and three running values plotted for a minute, each window saved as a
// picture into DIR (run under Xvfb to see them as they would be shown).
#include "monitorwindow.h"
#include "paramops.h"
#include "plotwindow.h"
#include "strip.h"
#include "viewform.h"
#include "benchkit.h"

#include <QAction>
#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTest>

using namespace pyro;

namespace {


struct Periods {
    QList<double> ms;
    QString text() const
    {
        double sum = 0, worst = 0;
        for (double p : ms) {
            sum += p;
            worst = std::max(worst, p);
        }
        return QString("mean %1 ms, worst %2 ms over %3 ticks")
            .arg(ms.isEmpty() ? 0 : sum / ms.size(), 0, 'f', 2).arg(worst, 0, 'f', 2).arg(ms.size());
    }
};

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTextStream out(stdout), err(stderr);
    QString simPath = QCoreApplication::applicationDirPath() + "/pyrolink-sim";
    const QStringList args = app.arguments();
    QString shots;
    for (int i = 1; i + 1 < args.size(); i += 2) {
        if (args[i] == "--sim")
            simPath = args[i + 1];
        else if (args[i] == "--shots")
            shots = args[i + 1];
    }

    QProcess sim;
    const QString pty = startSim(sim, simPath, {}, err);
    if (pty.isEmpty())
        return 2;

    // The program's folder with a running-values table of 200 rows.
    QTemporaryDir dir;
    qputenv("HOME", dir.path().toLocal8Bit());
    const QString bin = QCoreApplication::applicationDirPath();
    for (const char *name : {"Config.For", "Config.MPK"})
        QFile::copy(bin + '/' + name, dir.filePath(name));
    QFile table(dir.filePath("Display.For"));
    if (!shots.isEmpty())
        QFile::copy(bin + "/Display.For", dir.filePath("Display.For"));
    else if (!table.open(QIODevice::WriteOnly) || table.write(syntheticDisplayTable()) < 0)
        return 2;
    table.close();
    QByteArray img(32767, '\0');
    for (int i = 0; i < img.size(); ++i)
        img[i] = char((i * 131 + (i >> 9)) & 0xFF);
    img.replace(1024, 50, QByteArray(50, char(0xFF)));   // the information block's place
    const QString path = dir.filePath("largest.BIN");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(img) != img.size())
        return 2;
    file.close();

    ScriptedPrompter prompter;
    ViewForm::Options o;
    o.appDir = dir.path();
    o.prompter = &prompter;
    ViewForm f(o);
    f.show();
    f.menuAction("LineMonitor")->trigger();
    f.menuAction("LivePlots")->trigger();
    PlotWindow &plots = f.livePlots();
    const QList<int> rows = plots.plottableRows();
    if (shots.isEmpty()) {
        for (int i = 0; i < 8 && i < rows.size(); ++i)
            plots.setPlotted(rows[i * (rows.size() / 8)], true);
    } else {
        for (int r : {1, 3, 4})
            plots.setPlotted(r, true);
    }
    qobject_cast<QComboBox *>(f.control("ComboSet(0)"))->setEditText(pty);
    QTest::mouseClick(f.control("Command2"), Qt::LeftButton);
    waitUntil([&] { return f.link.view.SB[1].startsWith("Link normal"); }, 5000);

    Periods *phase = nullptr;
    QElapsedTimer since;
    QObject::connect(&f.tickTimer(), &QTimer::timeout, [&] {
        if (phase && since.isValid())
            phase->ms << since.nsecsElapsed() / 1e6;
        since.start();
    });

    Periods burning;
    phase = &burning;
    prompter.files = {path};
    QTest::mouseClick(f.control("Command3"), Qt::LeftButton);
    QTest::mouseClick(f.control("Command4"), Qt::LeftButton);
    if (!shots.isEmpty()) {
        // Faults on the line in the middle of the burn, then the monitor's picture.
        waitUntil([] { return false; }, 3000);
        sim.write("fault CorruptCrc 2\nfault DropReply 1\nfault WrongFunction 1\n");
        waitUntil([] { return false; }, 900);
        f.lineMonitor().sync();
        f.lineMonitor().grab().save(shots + "/monitor.png");
    }
    waitUntil([&] { return f.link.view.RTB.contains("Has been successfully"); }, 120000);
    const bool burned = f.link.view.RTB.contains("Has been successfully");
    const qint64 exchanges = f.lineMonitor().log.total();

    Periods watching;
    phase = &watching;
    since.invalidate();
    MenuImgClick(f.ops, 5);
    f.refresh();
    waitUntil([] { return false; }, shots.isEmpty() ? 15000 : 62000);
    phase = nullptr;
    if (!shots.isEmpty()) {
        plots.canvas()->endMs = plots.clock();
        plots.grab().save(shots + "/plots.png");
        f.lineMonitor().sync();
        f.lineMonitor().grab().save(shots + "/monitor-after.png");
    }
    const qint64 polls = f.ops.displayPolls;

    // One exchange into the monitor: the ring full, as after a long day.
    MonitorWindow &mon = f.lineMonitor();
    const ExchangeRecord rec{ExchangeRecord::Received, 1, 0xF4, f.link.MBRxBuf, 0};
    ExchangeLog full;
    const int n = 300000;
    QElapsedTimer t;
    t.start();
    for (int i = 0; i < n; ++i)
        full.append(rec);
    const double appendNs = double(t.nsecsElapsed()) / n;
    // ... and its share of the view catching up, 1,000 at a time.
    for (int i = 0; i < 1000; ++i)
        mon.log.append(rec);
    t.restart();
    mon.sync();
    const double syncNs = double(t.nsecsElapsed()) / 1000;
    // One sample into the plots: a decoded block, eight rows plotted.
    t.restart();
    const int m = 20000;
    for (int i = 0; i < m; ++i)
        f.ops.onDisplayDecoded(f.ops);
    const double recordNs = double(t.nsecsElapsed()) / m / plots.store.rows().size();
    t.restart();
    for (int i = 0; i < 20; ++i)
        plots.canvas()->repaint();
    const double paintMs = t.nsecsElapsed() / 1e6 / 20;

    // A refresh of the running values grid: the block decoded into it, which
    // changes its cells in place, and the grid painted.
    auto *grid = qobject_cast<QAbstractItemView *>(f.control("MSFG(1)"));
    QByteArray block = f.params.DisplayImage;
    t.restart();
    const int refreshes = 50;
    for (int i = 0; i < refreshes; ++i) {
        for (int k = 0; k < block.size(); ++k)
            block[k] = char(block[k] + 1);
        DecodeBlock(f.params.MSFG[1], block, f.params.DisplayRows, f.params.Tables[1], nullptr);
        grid->viewport()->repaint();
    }
    const double gridMs = t.nsecsElapsed() / 1e6 / refreshes;

    out << QString("burn of %1 bytes with both windows open: %2, %3 exchanges seen by the monitor\n")
               .arg(img.size()).arg(burned ? "done" : "NOT DONE").arg(exchanges);
    out << "tick period while burning: " << burning.text() << "\n";
    out << QString("tick period while watching %1 rows (%2 reads, %3 plotted): ").arg(f.params.DisplayRows.size() - 1).arg(polls).arg(plots.store.rows().size()) << watching.text() << "\n";
    out << QString("one exchange into the monitor: %1 ns (ring of 100,000 full); the view's catching up: %2 ns a record\n")
               .arg(appendNs, 0, 'f', 0).arg(syncNs, 0, 'f', 0);
    out << QString("one sample into the plots: %1 ns; a redraw of 8 curves at %2 samples each: %3 ms\n")
               .arg(recordNs, 0, 'f', 0).arg(plots.store.samples(plots.store.rows().first()).size()).arg(paintMs, 0, 'f', 2);
    out << QString("a refresh of the running values grid (%1 rows decoded, changed cells painted): %2 ms\n")
               .arg(f.params.DisplayRows.size() - 1).arg(gridMs, 0, 'f', 3);
    if (!burned)
        out << "the log's end:\n" << f.link.view.RTB.right(600) << "\n";
    sim.write("quit\n");
    if (!sim.waitForFinished(3000))
        sim.kill();
    f.endPro();
    return burned ? 0 : 1;
}
