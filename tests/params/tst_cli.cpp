#include "paramtest.h"
#include "samplevalues.h"

#include <QProcess>
#include <QtTest>

using namespace pyro;

namespace {

struct Run {
    int code = -1;
    QString out, err;
};

Run cli(const QStringList &args)
{
    QProcess p;
    p.start(PYRO_BIN_DIR "/pyrolink-cli", QStringList{"table"} + args);
    Run r;
    if (!p.waitForFinished(60000))
        return r;
    r.code = p.exitCode();
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

} // namespace

class TstCli : public QObject {
    Q_OBJECT
private slots:
    void listsTheWorkedExample()
    {
        const Run r = cli({PYRO_TEST_DATA "/params/worked.For"});
        QCOMPARE(r.code, 0);
        QVERIFY(r.out.contains("BlockSize 44, 5 rows"));
        QVERIFY(r.out.contains("2\tMotor\tDirection\t35\t1\tbyte\tlist: Forward=0, Reverse=1\n"));
        QVERIFY(r.out.contains("3\tMotor\tBrake\t37\t4\tbit 3\tlist: Off=0, On=1\n"));
        QVERIFY(r.out.contains("4\tLimit\tCurrent\t41\t4\tfloat\trange 0..50 2 dp\n"));
    }

    void decodesTheSampleSettings()
    {
        QTemporaryDir dir;
        QFile f(dir.filePath("settings.bin"));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(SampleSettingsBlock());
        f.close();
        const Run r = cli({PYRO_DATA_DIR "/Config.For", "--image", f.fileName()});
        QCOMPARE(r.code, 0);
        QVERIFY(r.out.contains("header length and CRC good"));
        QVERIFY(r.out.contains("\t额定电流(A)\t37\t4\tlong\trange 0.5..300 /10 1 dp\t25.5\n"));
        QVERIFY(!r.out.contains("warning"));
    }

    void refusesWithLineAndReason()
    {
        QTemporaryDir dir;
        const Run bad = cli({writeTable(dir, "Bad.For", {"40\\/44", "600\\/2000", "1><4><0><0><330><10\\/List:><33><2><0", "x><4><0><0><330><10\\/List:><33><300><0><0><0><0><1><0||1"})});
        QCOMPARE(bad.code, 1);
        QVERIFY2(bad.err.contains("line 4: parameter cell in column 1: Width \"300\""), qPrintable(bad.err));
        const Run absent = cli({dir.filePath("none.For")});
        QCOMPARE(absent.code, 1);
        QVERIFY(absent.err.contains("does not exist"));
        QCOMPARE(cli({}).code, 2);
    }
};

QTEST_GUILESS_MAIN(TstCli)
#include "tst_cli.moc"
