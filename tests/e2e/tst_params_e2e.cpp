#include "link.h"
#include "paramops.h"
#include "params.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"
#include "simprocess.h"

#include <QTimer>
#include <QtTest>

using namespace pyro;

// The parameter operations over a real pseudo-terminal against the simulated
// board, with the demo tables and ticks from a 15 ms timer as in the window.
class TstParamsE2e : public QObject {
    Q_OBJECT
private slots:
    void readEditUpdateSaveEraseRead();
};

void TstParamsE2e::readEditUpdateSaveEraseRead()
{
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "2"}), "pyrolink-sim did not get ready");

    Link link;
    QtSerialControl port;
    ScriptedPrompter prompter;
    Params p;
    ParamOps ops;
    link.prompter = &prompter;
    AttachPort(link, &port);
    InitPortBoxes(link.view);
    LoadParamTables(p, QStringLiteral(PYRO_DATA_DIR), &prompter);
    QVERIFY2(prompter.shown.isEmpty(), qPrintable(prompter.shown.join(';')));
    InstallParamOps(link, p, ops);
    link.view.ComboSet[0].text = sim.path;

    // Which mode has owned the line since the last request, for "it ended".
    uint8_t seen = 0;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(15);
    QObject::connect(&tick, &QTimer::timeout, [&] {
        MBTimTimer(link);
        if (link.LinkMode != 0)
            seen = link.LinkMode;
    });
    tick.start();
    Command2Click(link);
    QVERIFY(port.isOpen());

    auto press = [&](int button, uint8_t mode) {
        seen = 0;
        MenuImgClick(ops, button);
        return link.ModeRequest == mode;
    };
    auto ended = [&](uint8_t mode) { return seen == mode && link.ModeRequest == 0; };

    QVERIFY(press(1, 3));
    QTRY_VERIFY_WITH_TIMEOUT(ended(3), 10000);
    QCOMPARE(link.view.SB[2], QString("Successful reading data set"));
    QVERIFY(link.view.MenuImgEnabled[4]);
    const int size = p.Tables[0].BlockSize;
    const QByteArray factory = p.SetImage.left(size);

    // A byte row edited as a number: change its value.
    int row = -1;
    for (int r = 1; r < p.SetRows.size() && row < 0; ++r)
        if (KindOf(p.SetRows[r]) == ValueKind::Byte && p.SetRows[r].IsList != 1)
            row = r;
    QVERIFY(row > 0);
    const QString before = p.MSFG[0].text(row, kValueCol);
    const QString edited = before == "2" ? "3" : "2";
    QCOMPARE(EncodeValue(edited, p.SetImage, p.SetRows, row, &prompter), int16_t(0));
    p.MSFG[0].setText(row, kValueCol, edited);
    p.MSFG[0].setFore(row, kValueCol, qRgb(255, 0, 0));
    QVERIFY(p.MSFG[0].setCurrentCell(row, kValueCol));

    QVERIFY(press(2, 4));
    QTRY_VERIFY_WITH_TIMEOUT(ended(4), 10000);
    QCOMPARE(link.view.SB[2], QString("Update the set data successfully"));
    QCOMPARE(p.MSFG[0].cell(row, kValueCol).fore, qRgb(0, 0, 0));

    // An update reaches the working copy only: the flash still holds the old value.
    QVERIFY(press(1, 3));
    QTRY_VERIFY_WITH_TIMEOUT(ended(3), 10000);
    QCOMPARE(p.MSFG[0].text(row, kValueCol), before);
    QCOMPARE(EncodeValue(edited, p.SetImage, p.SetRows, row, &prompter), int16_t(0));

    QVERIFY(press(3, 5));
    QTRY_VERIFY_WITH_TIMEOUT(ended(5), 10000);
    QCOMPARE(link.view.SB[2], QString("Save Settings data successfully"));

    // Read back from the device's flash: the saved value.
    p.MSFG[0].setText(row, kValueCol, QString());
    QVERIFY(press(1, 3));
    QTRY_VERIFY_WITH_TIMEOUT(ended(3), 10000);
    QCOMPARE(link.view.SB[2], QString("Successful reading data set"));
    QCOMPARE(p.MSFG[0].text(row, kValueCol), edited);
    QVERIFY(p.SetImage.left(size) != factory);

    // Erase asks first, then restores the defaults.
    prompter.answers = {true};
    QVERIFY(press(0, 2));
    QCOMPARE(prompter.shown.last(), QString("警告|确认擦除设置参数，恢复默认设置吗？"));
    QTRY_VERIFY_WITH_TIMEOUT(ended(2), 10000);
    QCOMPARE(link.view.SB[2], QString("Erase the data successfully"));
    QVERIFY(press(1, 3));
    QTRY_VERIFY_WITH_TIMEOUT(ended(3), 10000);
    QCOMPARE(p.SetImage.left(size), factory);
    QCOMPARE(p.MSFG[0].text(row, kValueCol), before);

    // The information block.
    int windows = 0;
    ops.showBitInfForm = [&](ParamOps &) { ++windows; };
    QVERIFY(press(6, 6));
    QTRY_VERIFY_WITH_TIMEOUT(ended(6), 10000);
    QCOMPARE(windows, 1);
    QCOMPARE(ops.BitInf.DeviceId, int16_t(-1));
    QCOMPARE(ops.BitInf.RemarkStamp, QStringLiteral("K700操作员"));
    QCOMPARE(link.view.NotesTxt[5].trimmed(), QString("SIM-000001"));

    // Watching: values come in poll after poll, until another button.
    QVERIFY(press(5, 7));
    QTRY_VERIFY_WITH_TIMEOUT(ops.displayPolls >= 5, 10000);
    QCOMPARE(ops.DisplayAddr, int32_t(0x20001000));
    QCOMPARE(link.view.SB[2], QString("Successful reading data set"));
    QVERIFY(press(1, 3));
    QTRY_VERIFY_WITH_TIMEOUT(ended(3), 10000);
    QCOMPARE(link.view.SB[2], QString("Successful reading data set"));
}

QTEST_GUILESS_MAIN(TstParamsE2e)
#include "tst_params_e2e.moc"
