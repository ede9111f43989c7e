// The burn against pyrolink-sim on a pseudo-terminal: the real serial
// control, ticks from a timer, the board's output paced at the line rate.
#include "../e2e/simprocess.h"
#include "burnbench.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace pyro;

namespace {

// Reads flash back with 0xF4 while the burn waits: installed as the step of
// LinkMode 1 between the last write and the close of the image (the close
// changes no byte), then hands the line back to the burn where it stood.
struct FlashProbe {
    Link &l;
    int len = 0;
    QByteArray got{};
    bool waiting = false;
    static constexpr int kChunk = 512;

    void step()
    {
        if (waiting) {
            if (l.MBStep != 0)
                return;
            waiting = false;
            const int n = std::min(kChunk, len - int(got.size()));
            if (l.MBResult == 0 && l.MBRxBuf.size() >= 8 + n + 2 && l.MBRxBuf[2] == 0)
                got += l.MBRxBuf.mid(8, n);
        }
        if (got.size() >= len)
            return;   // StateWord is still 9: the burn closes the image once it has the line back
        const int n = std::min(kChunk, len - int(got.size()));
        MBBuildFrame(l, kFnReadMemory, le32(uint32_t(kFlashBase + got.size())) + le16(uint16_t(n)));
        MBSend(l, 3, 80, 100);
        waiting = true;
    }
};

} // namespace

class TstBurnE2e : public QObject {
    Q_OBJECT
private slots:
    void autoLoadThreeChips();
};

void TstBurnE2e::autoLoadThreeChips()
{
    SimProcess sim;
    QVERIFY(sim.start({"--swap-after-burn", "--baud", "57600"}));
    QTemporaryDir dir;
    const int len = 6000;
    const QString path = writeFile(dir, "six.BIN", testImage(len, 3));
    LiveLink live(sim.path);
    Link &l = live.link;
    Burn b;
    AttachBurn(l, b);
    l.view.Check1[3] = true;
    Command2Click(l);
    QVERIFY2(live.port.isOpen(), qPrintable(live.prompter.shown.join(';') + live.port.errorText()));
    ChooseFile(l, b, path);
    Command4Click(l, b);

    QList<QByteArray> flashes;
    std::optional<FlashProbe> probe;
    bool probed = false;   // once per image, before its close
    live.afterTick = [&] {
        if (probe && probe->got.size() >= probe->len) {
            flashes << probe->got;
            probe.reset();
            AttachBurn(l, b);
        }
        if (l.StateWord != 9)
            probed = false;
        if (!probe && !probed && l.LinkMode == 1 && l.StateWord == 9 && b.BinDone == b.BinLen && l.MBStep == 0) {
            probed = true;
            probe.emplace(FlashProbe{l, len});
            l.modeStep[1] = [&] { probe->step(); };
        }
        if (b.ChipsDone == 3)
            live.timer.stop();   // no fourth chip started behind the count
    };
    QTRY_VERIFY_WITH_TIMEOUT(b.ChipsDone == 3 || !live.port.isOpen(), 120000);

    QVERIFY2(b.ChipsDone == 3, qPrintable(l.view.RTB));
    QCOMPARE(flashes.size(), 3);
    for (const QByteArray &f : flashes)
        QCOMPARE(f, b.BinData.left(len));
    for (int i = 1; i <= 3; ++i)
        QCOMPARE(int(l.view.RTB.count(QString(" Downloading the：%1 (chip)").arg(i))), 1);
    QCOMPARE(int(l.view.RTB.count(" Connecting the next chip...")), 3);
    Command2Click(l);
}

QTEST_GUILESS_MAIN(TstBurnE2e)
#include "tst_burn_e2e.moc"
