// pyrolink-cli burn: the burn of the window's Program button, headless.
#include "burn.h"
#include "clisession.h"
#include "commands.h"
#include "portcontrol.h"

#include <QDir>
#include <csignal>

using namespace pyro;

namespace {

enum Exit { kOk = 0, kRefused = 1, kUsage = 2, kPortFailed = 3, kTimedOut = 4, kInterrupted = 5 };

// Ctrl-C is how an AutoLoad run without a chip count ends: it is taken as a
// click on Stop, so that the day's record still gets the chips burned.
volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void onInterrupt(int)
{
    g_interrupted = 1;
}

int usage(CliSession &s, const QString &why)
{
    s.err << "pyrolink-cli burn: " << why << "\n"
          << "usage: pyrolink-cli burn --port P --file F [--auto] [--chips N] [--keep-settings]\n"
             "                         [--frame-len N] [--order TEXT] [--timeout S]\n";
    s.err.flush();
    return kUsage;
}

// The strip's bar as a whole percentage; -1 while it is hidden.
int shownPercent(const View &v)
{
    if (!v.PersLabVisible || v.InfLabWidth <= 20)
        return -1;
    return int(RoundHalfEven(100.0 * v.PersLabWidth / (v.InfLabWidth - 20)));
}

} // namespace

int cliBurn(const QStringList &argsIn)
{
    QStringList args = argsIn;
    CliSession s;
    QString error;
    if (!s.takePortOptions(args, &error))
        return usage(s, error);
    const QString file = takeOption(args, "--file");
    const bool autoLoad = takeFlag(args, "--auto");
    const bool keep = takeFlag(args, "--keep-settings");
    const QString order = takeOption(args, "--order");
    bool ok1 = true, ok2 = true;
    const int chips = takeOption(args, "--chips", "0").toInt(&ok1);
    const double timeout = takeOption(args, "--timeout", "0").toDouble(&ok2);
    if (!args.isEmpty())
        return usage(s, "unknown arguments: " + args.join(' '));
    if (file.isEmpty())
        return usage(s, "--file is missing");
    if (!ok1 || chips < 0 || (chips > 1 && !autoLoad))
        return usage(s, "--chips takes a positive number, and more than one needs --auto");
    if (!ok2 || timeout < 0)
        return usage(s, "--timeout takes seconds");

    Burn burn;
    AttachBurn(s.link, burn);
    s.link.view.NotesTxt[5] = order;
    s.link.view.Check1[1] = keep;
    // With a chip count the last chip ends the burn the normal way: AutoLoad
    // is cleared once the chip before it is done.
    const int target = autoLoad ? chips : 1;
    s.link.view.Check1[3] = autoLoad && target != 1;

    // Whatever happens after this point, the log goes to the record of the day.
    auto finish = [&](int code, const QString &why) {
        if (s.port.isOpen())
            ClosePort(s.link);
        s.flushLog();
        if (!why.isEmpty())
            s.err << "pyrolink-cli burn: " << why << "\n";
        const QString folder = RecordFolder();
        if (AppendBurnRecord(folder, s.link.now(), s.link.view.RTB))
            s.err << "log appended to " << QDir::toNativeSeparators(QDir(folder).filePath(RecordFileName(s.link.now().date()))) << "\n";
        s.err.flush();
        return code;
    };

    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    if (!s.openPort())
        return finish(kPortFailed, "cannot open port " + s.link.view.ComboSet[0].text + ": " + s.port.errorText());
    ChooseFile(s.link, burn, file);
    s.flushLog();
    if (!s.link.view.Command4Enabled)
        return finish(kRefused, "cannot read " + file);
    Command4Click(s.link, burn);
    if (s.link.view.Command4Caption != QLatin1String("Stop"))
        return finish(kRefused, "the image was refused: " + burn.Refusal.trimmed());

    int lastPercent = -1;
    bool portLost = false;
    auto afterTick = [&] {
        if (target > 1 && burn.ChipsDone >= target - 1)
            s.link.view.Check1[3] = false;
        const int p = shownPercent(s.link.view);
        if (p != lastPercent && p >= 0) {
            s.flushLog();
            s.out << "progress " << p << "% " << s.link.view.InfLab << "\n";
            s.out.flush();
        }
        lastPercent = p;
    };
    auto done = [&] {
        if (g_interrupted)
            return true;
        if (!s.port.isOpen()) {
            portLost = true;
            return true;
        }
        if (target > 0 && burn.ChipsDone >= target)
            return true;
        return s.link.view.Command4Caption != QLatin1String("Stop");
    };
    const bool inTime = s.run(done, timeout, afterTick);
    // Let the monitor take the line back, as the window would, before closing.
    if (inTime && !portLost && s.link.view.Command4Caption != QLatin1String("Stop"))
        s.run([&] { return s.link.LinkMode == 0 || !s.port.isOpen(); }, 2);

    const QString count = QStringLiteral("%1 chip(s) done").arg(burn.ChipsDone);
    if (g_interrupted) {
        if (s.link.view.Command4Caption == QLatin1String("Stop"))
            Command4Click(s.link, burn);
        return finish(kInterrupted, "interrupted; " + count);
    }
    if (portLost)
        return finish(kPortFailed, "the port failed during the burn; " + count);
    if (!inTime)
        return finish(kTimedOut, QStringLiteral("time limit of %1 s passed; ").arg(timeout) + count);
    if (target > 0 && burn.ChipsDone < target)
        return finish(kRefused, "the burn ended early; " + count);
    return finish(kOk, QString());
}
