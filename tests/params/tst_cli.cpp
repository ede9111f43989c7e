#include "paramtest.h"
#include "samplevalues.h"

#include <QProcess>
#include <QtTest>

using namespace pyro;

// The table command as a table author runs it: what it prints, and its
// exit code. What the loader and the codec make of a table is tested on
// their own; here only that the command shows it.
class TstCli : public QObject {
    Q_OBJECT

    QTemporaryDir dir;

private slots:
    void initTestCase()
    {
        QFile f(dir.filePath("settings.bin"));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(SampleSettingsBlock());
        QVERIFY(!writeTable(dir, "Bad.For", {"40\\/44", "600\\/2000", "1><4><0><0><330><10\\/List:><33><2><0",
                                             "x><4><0><0><330><10\\/List:><33><300><0><0><0><0><1><0||1"}).isEmpty());
    }

    void table_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("code");
        QTest::addColumn<QStringList>("says");   // pieces of the output, stdout and stderr
        QTest::newRow("worked example") << QStringList{PYRO_TEST_DATA "/params/worked.For"} << 0
            << QStringList{"BlockSize 44, 5 rows", "2\tMotor\tDirection\t35\t1\tbyte\tlist: Forward=0, Reverse=1\n",
                           "3\tMotor\tBrake\t37\t4\tbit 3\tlist: Off=0, On=1\n", "4\tLimit\tCurrent\t41\t4\tfloat\trange 0..50 2 dp\n"};
        QTest::newRow("sample settings") << QStringList{PYRO_DATA_DIR "/Config.For", "--image", dir.filePath("settings.bin")} << 0
            << QStringList{"header length and CRC good", "\t额定电流(A)\t37\t4\tlong\trange 0.5..300 /10 1 dp\t25.5\n"};
        QTest::newRow("refused") << QStringList{dir.filePath("Bad.For")} << 1
            << QStringList{"line 4: parameter cell in column 1: Width \"300\""};
    }

    void table()
    {
        QFETCH(QStringList, args);
        QFETCH(QStringList, says);
        QProcess p;
        p.start(PYRO_BIN_DIR "/pyrolink-cli", QStringList{"table"} + args);
        QVERIFY(p.waitForFinished(60000));
        QTEST(p.exitCode(), "code");
        const QString out = QString::fromUtf8(p.readAllStandardOutput() + p.readAllStandardError());
        for (const QString &s : says)
            QVERIFY2(out.contains(s), qPrintable(out));
        QVERIFY(!out.contains("warning"));
    }
};

QTEST_GUILESS_MAIN(TstCli)
#include "tst_cli.moc"
