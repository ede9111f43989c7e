#include "frame.h"
#include "linkbench.h"

#include <QTemporaryDir>
#include <QtTest>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pyro;

// A board that answers every poll with the given status, or stays silent.
static void answerPolls(LinkBench &b, int *status)
{
    b.port.onOutput = [&b, status](const QByteArray &frame) {
        if (*status >= 0 && frame.size() > 1 && uint8_t(frame[1]) == 0xF0)
            b.port.deliver(MBBuildFrame(0xF0, QByteArray(1, char(*status))));
    };
}

// A prompter whose box, like a modal one, runs the event loop: ticks come
// while it is up.
class TickingPrompter : public ScriptedPrompter {
public:
    Link *link = nullptr;
    void message(const QString &text, const QString &title) override
    {
        ScriptedPrompter::message(text, title);
        for (int i = 0; i < 5; ++i)
            MBTimTimer(*link);
    }
};

class TstSupervisor : public QObject {
    Q_OBJECT
private slots:
    void closedPort();
    void monitorTextsAndFailureRhythm();
    void modeHandover();
    void nestedTickIsRefused();
    void portControl();
    void autoDetectAndSettings();
    void portWithoutPermission();
};

// Never opened, or pulled in the middle of an exchange: the tick shows the
// closed port, drops an armed burn and sends nothing.
void TstSupervisor::closedPort()
{
    LinkBench b;
    b.link.BurnArmed = 1;
    b.tick();
    QCOMPARE(b.link.view.SB[1], QString("Open port first！"));
    QVERIFY(!b.link.view.Command3Enabled);
    QVERIFY(!b.link.view.Command4Enabled);
    QCOMPARE(b.link.MBResult, int16_t(-1));
    QCOMPARE(b.link.BurnArmed, int16_t(0));
    QVERIFY(b.port.written.isEmpty());

    b.open();
    b.ticks(2);
    QVERIFY(b.link.view.Command3Enabled);
    b.port.vanish();
    const auto sent = b.port.written.size();
    b.ticks(30);
    QCOMPARE(b.link.view.SB[1], QString("Open port first！"));
    QCOMPARE(b.port.written.size(), sent);
}

void TstSupervisor::monitorTextsAndFailureRhythm()
{
    LinkBench b;
    int status = -1;
    answerPolls(b, &status);
    b.open();
    // With no good poll before, the sixth failed poll writes the failure.
    int polls = 0;
    while (b.link.view.SB[1] != QString("Link failure！") && polls < 100) {
        b.tick();
        polls = int(b.port.written.size());
    }
    QCOMPARE(polls, 6);
    QCOMPARE(b.link.TryCount, int16_t(0));

    const QStringList texts{"Link normal-download mode", "Link normal-run mode", "Link normal-stop mode"};
    for (status = 1; status <= 3; ++status) {
        b.ticks(25);
        QCOMPARE(b.link.view.SB[1], texts[status - 1]);
    }
    // Status 0 or 4 keeps the text but counts as a good poll.
    status = 4;
    b.ticks(10);
    QCOMPARE(b.link.view.SB[1], texts.last());
    QCOMPARE(b.link.TryCount, int16_t(1));

    // After a good poll the failure comes with the fifth failed one, then
    // again every sixth.
    status = -1;
    const auto before = b.port.written.size();
    while (b.link.view.SB[1] != QString("Link failure！"))
        b.tick();
    QCOMPARE(b.port.written.size() - before, 5);
    b.link.view.SB[1].clear();
    const auto again = b.port.written.size();
    while (b.link.view.SB[1] != QString("Link failure！"))
        b.tick();
    QCOMPARE(b.port.written.size() - again, 6);
    // Each poll is the fixed frame, one as soon as the last has its outcome.
    QCOMPARE(toHexLine(b.port.written.last()), QByteArray("01 F0 00 00 64"));
}

void TstSupervisor::modeHandover()
{
    LinkBench b;
    int steps3 = 0, steps4 = 0;
    b.link.modeStep[3] = [&] { ++steps3; };
    b.link.modeStep[4] = [&] {
        if (b.link.StateWord == 0)
            ++steps4;
        b.link.StateWord = 7;
    };
    int status = -1;
    answerPolls(b, &status);
    b.open();
    b.tick();                       // the monitor's poll goes out
    // Two requests before the tick takes one: only the last counts, and only
    // once the exchange under way has its outcome (20 ticks, silent peer).
    b.link.ModeRequest = 3;
    b.link.ModeRequest = 4;
    b.ticks(19);
    QCOMPARE(b.link.LinkMode, uint8_t(0));
    b.tick();
    QCOMPARE(b.link.LinkMode, uint8_t(4));
    QCOMPARE(steps3, 0);
    QCOMPARE(steps4, 1);
    // Back to the monitor: its StateWord starts at 0 and it polls at once.
    b.link.ModeRequest = 0;
    const auto sent = b.port.written.size();
    b.tick();
    QCOMPARE(b.port.written.size(), sent + 1);
}

void TstSupervisor::nestedTickIsRefused()
{
    LinkBench b;
    TickingPrompter modal;
    modal.link = &b.link;
    b.link.prompter = &modal;
    int entered = 0;
    b.link.modeStep[2] = [&] {
        ++entered;
        modal.message("boxed", "Hint");   // ticks arrive while the box is up
    };
    b.open();
    b.link.ModeRequest = 2;
    b.link.LinkMode = 2;
    const qint64 before = b.link.ticks;
    b.tick();
    QCOMPARE(entered, 1);
    QCOMPARE(b.link.ticks, before + 1);
    b.tick();
    QCOMPARE(entered, 2);
}

void TstSupervisor::portControl()
{
    LinkBench b;
    // A port that won't open: the box, and nothing changes.
    b.port.refusedNames << "/dev/fake0";
    b.open();
    QCOMPARE(b.prompter.shown, QStringList{"Hint|Serial port error！"});
    QCOMPARE(b.link.view.Command2Caption, QString("OpenUart"));
    QCOMPARE(b.link.view.Shape1, qRgb(250, 0, 0));
    QVERIFY(!b.port.isOpen());
    // Settings the port can't use fail the same way.
    b.port.refusedNames.clear();
    b.link.view.ComboSet[3].text = "4";
    b.open();
    QCOMPARE(b.prompter.shown.size(), 2);
    QVERIFY(!b.port.isOpen());
    b.link.view.ComboSet[3].text = "8";

    b.open();
    QCOMPARE(b.link.view.Command2Caption, QString("CloseUart"));
    QCOMPARE(b.link.view.Shape1, qRgb(0, 255, 0));

    // A change of any box during a burn closes the port and cancels the burn.
    b.link.view.Command4Caption = "Stop";
    b.link.ModeRequest = 1;
    b.link.BurnArmed = 1;
    b.link.BurnBegun = 1;
    ShowProgress(b.link.view, "/fw/app.BIN", 0.25f);
    QCOMPARE(b.link.view.PersLabWidth, 2120);   // a quarter of the strip less its margin
    ComboSetChange(b.link, 5);
    QVERIFY(!b.port.isOpen());
    QCOMPARE(b.link.view.SB[1], QString("Serial uart has ben closed"));
    QCOMPARE(b.link.view.RTB, QString("2026-11-23 09:30:00 Cancel program\r\n"));
    QCOMPARE(b.link.view.Command4Caption, QString("Program"));
    QCOMPARE(b.link.ModeRequest, uint8_t(0));
    QCOMPARE(b.link.BurnArmed + b.link.BurnBegun, 0);
    QVERIFY(!b.link.view.PersLabVisible);
    // While closed a change does nothing; a click opens again as the boxes stand.
    ComboSetChange(b.link, 1);
    QCOMPARE(b.link.view.Command2Caption, QString("OpenUart"));
    b.link.view.ComboSet[1].text = "9600";
    b.open();
    QCOMPARE(b.port.openedSettings.baud, 9600);
    // Closing with no burn writes no log line.
    b.open();
    QVERIFY(!b.port.isOpen());
    QCOMPARE(b.link.view.RTB.count("\r\n"), 1);
}

void TstSupervisor::autoDetectAndSettings()
{
    LinkBench b;
    b.port.refusedNames << "/dev/ttyS1";
    b.open();
    b.link.view.Command4Caption = "Stop";
    b.link.ModeRequest = 1;
    ShowProgress(b.link.view, "/fw/app.BIN", 0.5f);
    AutoDetect(b.link, {"COM1", "COM2", "COM3", "junk"});
    QVERIFY(!b.link.view.PersLabVisible);   // no stale fill behind the path
    QCOMPARE(b.link.view.ComboSet[0].list, QStringList({"COM1", "COM3"}));
    QCOMPARE(b.link.view.ComboSet[0].text, QString("COM1"));
    QVERIFY(!b.port.isOpen());
    QCOMPARE(b.link.view.Command2Caption, QString("OpenUart"));
    QCOMPARE(b.link.view.RTB, QString("2026-11-23 09:30:00 Cancel burning\r\n"));
    QCOMPARE(b.link.ModeRequest, uint8_t(0));

    // Names: a device path as is; COMn through a link in the program's
    // folder when there is one (the link is taken end to end).
    QTemporaryDir dir;
    QCOMPARE(ResolvePortName("/dev/ttyUSB0", dir.path()), QString("/dev/ttyUSB0"));
    QCOMPARE(ResolvePortName("COM12", dir.path()), QString("/dev/ttyS11"));
    QVERIFY(ResolvePortName("COMx", dir.path()).isEmpty());

    PortSettings ps;
    QVERIFY(ParseSettings("9600,e,7,2", &ps));
    QCOMPARE(ps.parity, 'e');
    QVERIFY(!ParseSettings("57600,8,1", &ps));
    QVERIFY(!ParseSettings("abc,n,8,1", &ps));   // bad data bits: through the open button
    // Odd and Even open the port with that parity, each its own.
    for (const auto &[box, letter] : {std::pair{"Odd", 'o'}, std::pair{"Even", 'e'}}) {
        b.link.view.ComboSet[2].text = box;
        QCOMPARE(MBSettings(b.link.view), QString("57600,%1,8,1").arg(letter));
        b.link.view.ComboSet[0].text = "/dev/fake0";
        b.open();
        QVERIFY(b.port.isOpen());
        QCOMPARE(b.port.openedSettings.parity, letter);
        b.open();
    }
}


// A device this user may not open: the design's box as ever, and panel 2 says
// which group to join and that a new login is needed.
void TstSupervisor::portWithoutPermission()
{
    if (::geteuid() != 0)
        QSKIP("takes on another user, which needs root");
    QTemporaryDir dir;
    // Open to all: the other user keeps root's group, whose bits count for it.
    QFile::setPermissions(dir.path(), QFile::permissions(dir.path()) | QFileDevice::ExeGroup | QFileDevice::ExeOther);
    const QString dev = dir.filePath("ttyFAKE0");
    QVERIFY(QFile(dev).open(QIODevice::WriteOnly));
    const gid_t gid = 20;   // dialout on Debian; the name is read back as the code does
    const struct group *g = ::getgrgid(gid);
    const QString group = g ? QString::fromLocal8Bit(g->gr_name) : QString::number(gid);
    QCOMPARE(::chown(QFile::encodeName(dev).constData(), 0, gid), 0);
    QCOMPARE(::chmod(QFile::encodeName(dev).constData(), 0660), 0);

    // As root every device opens: nothing to say.
    QVERIFY(!CheckPortAccess(dev).denied);
    QVERIFY(!CheckPortAccess(dir.filePath("none")).denied);

    struct AsNobody {
        AsNobody() { ok = ::seteuid(65534) == 0; }
        ~AsNobody() { QVERIFY(::seteuid(0) == 0); }
        bool ok = false;
    };
    LinkBench b;
    b.link.view.ComboSet[0].text = dev;
    b.port.refusedNames << dev;
    {
        AsNobody nobody;
        QVERIFY(nobody.ok);
        b.open();
        QCOMPARE(b.prompter.shown, QStringList{"Hint|Serial port error！"});
        QCOMPARE(b.link.view.SB[2], "No permission: join group " + group + ", log in again");
        const QString advice = PortAccessAdvice(CheckPortAccess(dev));
        QVERIFY2(advice.startsWith("no permission: " + dev + " belongs to group " + group + "; add this user to it")
                     && advice.contains("a new login is needed"), qPrintable(advice));
    }
    // Only its owner may: joining the group would not help.
    QCOMPARE(::chmod(QFile::encodeName(dev).constData(), 0600), 0);
    {
        AsNobody nobody;
        QVERIFY(nobody.ok);
        b.open();
        QCOMPARE(b.link.view.SB[2], "No permission: " + dev + " is its owner's only");
        QVERIFY(PortAccessAdvice(CheckPortAccess(dev)).contains("ask the administrator"));
    }
}

QTEST_APPLESS_MAIN(TstSupervisor)
#include "tst_supervisor.moc"
