#include "clisession.h"
#include "portcontrol.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

using namespace pyro;

void ConsolePrompter::message(const QString &text, const QString &title)
{
    QTextStream(stderr) << title << ": " << text << Qt::endl;
}

bool ConsolePrompter::question(const QString &text, const QString &title)
{
    QTextStream(stderr) << title << ": " << text << (answerYes ? " Yes" : " No") << Qt::endl;
    return answerYes;
}

QString takeOption(QStringList &args, const QString &name, const QString &def)
{
    const int i = args.indexOf(name);
    if (i < 0 || i + 1 >= args.size())
        return def;
    const QString v = args[i + 1];
    args.remove(i, 2);
    return v;
}

bool takeFlag(QStringList &args, const QString &name)
{
    return args.removeAll(name) > 0;
}

CliSession::CliSession()
{
    link.appDir = QCoreApplication::applicationDirPath();
    link.prompter = &prompter;
    AttachPort(link, &port);
    InitPortBoxes(link.view);
}

bool CliSession::takePortOptions(QStringList &args, QString *error)
{
    auto &box = link.view.ComboSet;
    box[0].text = takeOption(args, "--port", box[0].text);
    box[1].text = takeOption(args, "--baud", box[1].text);
    box[2].text = takeOption(args, "--parity", box[2].text);
    box[3].text = takeOption(args, "--data-bits", box[3].text);
    box[4].text = takeOption(args, "--stop-bits", box[4].text);
    box[5].text = takeOption(args, "--frame-len", box[5].text);
    for (int i = 1; i <= 5; ++i) {
        if (!box[i].list.contains(box[i].text)) {
            *error = QStringLiteral("'%1' is not one of: %2").arg(box[i].text, box[i].list.join(", "));
            return false;
        }
    }
    return true;
}

bool CliSession::openPort()
{
    Command2Click(link);
    return port.isOpen();
}

bool CliSession::run(const std::function<bool()> &done, double seconds,
                     const std::function<void()> &afterTick)
{
    QEventLoop loop;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    bool timedOut = false;
    QElapsedTimer clock;
    clock.start();
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        MBTimTimer(link);
        if (afterTick)
            afterTick();
        flushLog();
        if (done && done()) {
            loop.quit();
        } else if (seconds > 0 && clock.elapsed() >= qint64(seconds * 1000)) {
            timedOut = true;
            loop.quit();
        }
    });
    tick.start();
    loop.exec();
    return !timedOut;
}

void CliSession::flushLog()
{
    if (link.view.RTB.size() > logPrinted) {
        out << link.view.RTB.mid(logPrinted).replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
        out.flush();
        logPrinted = int(link.view.RTB.size());
    }
}
