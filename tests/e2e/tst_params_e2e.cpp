#include "paramops.h"
#include "params.h"
#include "simprocess.h"

#include <QtTest>

using namespace pyro;

// The parameter operations over a real pseudo-terminal against the simulated
// board, with the demo tables. The watch and the information block window
// are left to the unit tests.
class TstParamsE2e : public QObject {
    Q_OBJECT
private slots:
    void readEditUpdateSaveEraseRead();
};

void TstParamsE2e::readEditUpdateSaveEraseRead()
{
    SimProcess sim;
    QVERIFY2(sim.start({"--mode", "2"}), "pyrolink-sim did not get ready");
    LiveLink live(sim.path);
    Link &link = live.link;
    ScriptedPrompter &prompter = live.prompter;
    Params p;
    ParamOps ops;
    LoadParamTables(p, QStringLiteral(PYRO_DATA_DIR), &prompter);
    QVERIFY2(prompter.shown.isEmpty(), qPrintable(prompter.shown.join(';')));
    InstallParamOps(link, p, ops);

    // Which mode has owned the line since the last request, for "it ended".
    uint8_t seen = 0;
    live.afterTick = [&] {
        if (link.LinkMode != 0)
            seen = link.LinkMode;
    };
    Command2Click(link);
    QVERIFY(live.port.isOpen());

    // Presses a menu button and waits until its mode has had the line and
    // ended with this status text.
    auto run = [&](int button, uint8_t mode, const QString &status) {
        seen = 0;
        MenuImgClick(ops, button);
        QCOMPARE(link.ModeRequest, mode);
        QTRY_VERIFY_WITH_TIMEOUT(seen == mode && link.ModeRequest == 0, 10000);
        QCOMPARE(link.view.SB[2], status);
    };
    const QString readOk("Successful reading data set");

    run(1, 3, readOk);
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

    run(2, 4, "Update the set data successfully");
    QCOMPARE(p.MSFG[0].cell(row, kValueCol).fore, qRgb(0, 0, 0));

    // An update reaches the working copy only: the flash still holds the old value.
    run(1, 3, readOk);
    QCOMPARE(p.MSFG[0].text(row, kValueCol), before);
    QCOMPARE(EncodeValue(edited, p.SetImage, p.SetRows, row, &prompter), int16_t(0));
    run(3, 5, "Save Settings data successfully");

    // Read back from the device's flash: the saved value.
    p.MSFG[0].setText(row, kValueCol, QString());
    run(1, 3, readOk);
    QCOMPARE(p.MSFG[0].text(row, kValueCol), edited);
    QVERIFY(p.SetImage.left(size) != factory);

    // Erase asks first, then restores the defaults.
    prompter.answers = {true};
    run(0, 2, "Erase the data successfully");
    QCOMPARE(prompter.shown.last(), QString("警告|确认擦除设置参数，恢复默认设置吗？"));
    run(1, 3, readOk);
    QCOMPARE(p.SetImage.left(size), factory);
    QCOMPARE(p.MSFG[0].text(row, kValueCol), before);
}

QTEST_GUILESS_MAIN(TstParamsE2e)
#include "tst_params_e2e.moc"
