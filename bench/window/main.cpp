// bench-window: the window shown while it burns 32 KiB into pyrolink-sim on
// a pseudo-terminal: the tick period (mean, worst), the cost of appending a
// log line at 1,000 and at 100,000 lines, and the CPU used while the port is
// open and the monitor polls. Usage: bench-window [--sim PATH]
#include "benchkit.h"
#include "viewform.h"

#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTest>
#include <sys/resource.h>

using namespace pyro;

namespace {

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}


// Microseconds a log line costs (AddLog and the refresh that shows it).
double appendCost(ViewForm &f, int lines)
{
    const int n = 200;
    QElapsedTimer t;
    t.start();
    for (int i = 0; i < n; ++i) {
        AddLog(f.link, QStringLiteral(" Downloading the：%1 (chip)").arg(lines + i));
        f.refresh();
    }
    return t.nsecsElapsed() / 1000.0 / n;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTextStream out(stdout), err(stderr);
    QString simPath = QCoreApplication::applicationDirPath() + "/pyrolink-sim";
    const QStringList args = app.arguments();
    if (args.size() > 2 && args[1] == "--sim")
        simPath = args[2];

    QProcess sim;
    const QString pty = startSim(sim, simPath, {}, err);
    if (pty.isEmpty())
        return 2;

    QTemporaryDir dir;
    qputenv("HOME", dir.path().toLocal8Bit());
    QByteArray img(32767, '\0');
    for (int i = 0; i < img.size(); ++i)
        img[i] = char((i * 131 + (i >> 9)) & 0xFF);
    img.replace(1024, 50, QByteArray(50, char(0xFF)));
    const QString path = dir.filePath("largest.BIN");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(img) != img.size())
        return 2;
    file.close();

    ScriptedPrompter prompter;
    ViewForm::Options o;
    o.appDir = QCoreApplication::applicationDirPath();
    o.prompter = &prompter;
    ViewForm f(o);
    f.show();
    qobject_cast<QComboBox *>(f.control("ComboSet(0)"))->setEditText(pty);
    QTest::mouseClick(f.control("Command2"), Qt::LeftButton);
    waitUntil([&] { return f.link.view.SB[1].startsWith("Link normal"); }, 5000);

    // Idle: the port open, the monitor polling.
    const double cpu0 = cpuSeconds();
    QElapsedTimer idle;
    idle.start();
    waitUntil([] { return false; }, 5000);
    const double idleShare = (cpuSeconds() - cpu0) / (idle.elapsed() / 1000.0);

    // The burn, with every tick's period taken.
    QList<double> periods;
    QElapsedTimer since;
    QObject::connect(&f.tickTimer(), &QTimer::timeout, [&] {
        if (since.isValid())
            periods << since.nsecsElapsed() / 1e6;
        since.start();
    });
    prompter.files = {path};
    QTest::mouseClick(f.control("Command3"), Qt::LeftButton);
    QTest::mouseClick(f.control("Command4"), Qt::LeftButton);
    QElapsedTimer burn;
    burn.start();
    waitUntil([&] { return f.link.view.RTB.contains("Has been successfully"); }, 120000);
    const double burnS = burn.elapsed() / 1000.0;
    const bool burned = f.link.view.RTB.contains("Has been successfully");
    double sum = 0, worst = 0;
    for (double p : periods) {
        sum += p;
        worst = std::max(worst, p);
    }

    // A day's log: the cost of a line at 1,000 lines and at 100,000.
    while (f.logBlocks() < 1000) {
        AddLog(f.link, QStringLiteral(" Connecting the next chip..."));
        f.refresh();
    }
    const double early = appendCost(f, 1000);
    QString block;
    for (int i = 0; i < 1000; ++i)
        block += LogLine(QDateTime::currentDateTime(), QStringLiteral(" Connecting the next chip...")) ;
    while (f.logBlocks() < 100000) {
        f.link.view.RTB += block;
        f.refresh();
    }
    const double late = appendCost(f, 100000);

    out << QString("burn of %1 bytes: %2 (%3 s)\n").arg(img.size()).arg(burned ? "done" : "NOT DONE").arg(burnS, 0, 'f', 2);
    out << QString("tick period while burning: mean %1 ms, worst %2 ms over %3 ticks\n")
               .arg(periods.isEmpty() ? 0 : sum / periods.size(), 0, 'f', 2).arg(worst, 0, 'f', 2).arg(periods.size());
    out << QString("log line at %1 lines: %2 us; at %3 lines: %4 us\n")
               .arg(1000).arg(early, 0, 'f', 1).arg(f.logBlocks() - 200).arg(late, 0, 'f', 1);
    out << QString("CPU while idle with the port open and the monitor polling: %1 % of one core\n")
               .arg(idleShare * 100, 0, 'f', 2);
    sim.write("quit\n");
    if (!sim.waitForFinished(3000))
        sim.kill();
    f.endPro();
    return burned ? 0 : 1;
}
