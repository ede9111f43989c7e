#pragma once
// Pieces the benchmarks share: the simulated board on a pseudo-terminal and
// a running-values table of 200 rows.
#include <QByteArray>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QString>
#include <QTextStream>
#include <QTimer>
#include <functional>

// Runs the event loop until done() or ms pass, looking every 50 ms. It sleeps
// between looks, so that the CPU measured meanwhile is the program's.
inline void waitUntil(const std::function<bool()> &done, int ms)
{
    QEventLoop loop;
    QTimer look;
    QElapsedTimer t;
    t.start();
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (done() || t.elapsed() >= ms)
            loop.quit();
    });
    look.start(50);
    loop.exec();
}

// Starts pyrolink-sim and waits for its ready line; the pseudo-terminal's
// path, or empty (with a message on err) when it gave none.
inline QString startSim(QProcess &sim, const QString &program, const QStringList &args, QTextStream &err)
{
    sim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    sim.start(program, args);
    QByteArray line;
    while (!line.contains('\n') && sim.waitForReadyRead(10000))
        line += sim.readAllStandardOutput();
    if (!line.startsWith("ready ")) {
        err << program << " gave no ready line\n";
        return {};
    }
    return QString::fromLocal8Bit(line.mid(6, line.indexOf('\n') - 6)).trimmed();
}

// 480 bytes mapped by 199 value rows and a caption row, every kind of value.
inline QByteArray syntheticDisplayTable()
{
    QByteArray t = "30\\/480\r\n600\\/1500\\/3000\\/2200\r\n"
                   "No.><4><0><12632256><360><10\\/Group><4><0><12632256><360><10\\/Name><4><0><12632256><360><10\\/Value><4><0><12632256><360><10\r\n";
    for (int r = 1; r < 200; ++r) {
        const int addr = 1 + ((r - 1) * 4) % 476;
        QByteArray param;
        switch (r % 6) {
        case 0: param = "List:><" + QByteArray::number(addr) + "><1><0><0><0><0><1><0||255"; break;
        case 1: param = "List:><" + QByteArray::number(addr) + "><2><0><0><0><0><1><0||9999"; break;
        case 2: param = "List:><" + QByteArray::number(addr) + "><4><2><0><0><0><100><0||99999"; break;
        case 3: param = "List:><" + QByteArray::number(addr) + "><4><0><5><1><0><1><Off||On><0||1"; break;
        case 4: param = "List:><" + QByteArray::number(addr) + "><4><3><0><0><1><1><0||1000"; break;
        default: param = "List:><" + QByteArray::number(addr) + "><1><0><0><1><0><1><A||B||C||D><0||1||2||3"; break;
        }
        t += QByteArray::number(r) + "><4><0><16777215><330><9\\/Run><1><0><16777215><330><10\\/Value "
            + QByteArray::number(r) + "><1><0><16777215><330><10\\/" + param + "\r\n";
    }
    return t + "End\r\n";
}

