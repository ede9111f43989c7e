// The demo database as shipped, and pyrolink-cli db on good and bad files.
#include "dbfixture.h"
#include "image.h"
#include "samplevalues.h"

#include <QProcess>

using namespace pyro;

class TstDemoDb : public QObject {
    Q_OBJECT
private slots:
    void shippedDatabase()
    {
        // Opened the way start-up opens it, from a copy so data/ stays as it is.
        DbFixture fx;
        QVERIFY(QFile::copy(PYRO_DATA_DIR "/Config.MPK", fx.path("Config.MPK")));
        QCOMPARE(OpenStartupDb(fx.db, fx.dir.path()), 0);
        QVERIFY(fx.prompter.shown.isEmpty());
        QVERIFY(NodeCount(fx.db.tree) >= 6);
        QVERIFY(CheckDb(fx.path("Config.MPK")).isEmpty());

        // Every item holds a good settings block for the demo tables.
        const QByteArray sample = SampleSettingsBlock();
        TableInfo info;
        info.BlockSize = int16_t(sample.size());
        int depth2 = 0;
        DbFile f;
        QVERIFY(OpenDbFile(f, fx.path("Config.MPK"), DbMode::Read));
        QStringList problems;
        WalkChains(f, FirstRec(fx.db.HeaderRecord), [&](const DbRecord &r, int32_t, int depth) {
            QByteArray image;
            UnpackImage(r.ParamImage, image, info.BlockSize);
            QVERIFY(CheckImage(image, info) == 0);
            QVERIFY(!UnpackField(r.Caption, QString(), kCaptionLimit).isEmpty());
            QVERIFY(!UnpackField(r.FunctionText, QString(), kFunctionLimit).isEmpty());
            depth2 += depth == 2;
        }, problems);
        QVERIFY(problems.isEmpty());
        QVERIFY(depth2 >= 2);   // customer variants under models under product lines
    }

    void cliCommands()
    {
        const QString cli = PYRO_BIN_DIR "/pyrolink-cli";
        auto run = [&](const QStringList &args, QByteArray *output = nullptr) {
            QProcess p;
            p.start(cli, QStringList{"db"} + args);
            if (!p.waitForFinished(60000))
                return -1;
            if (output)
                *output = p.readAllStandardOutput() + p.readAllStandardError();
            return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -2;
        };
        DbFixture fx;
        const QString p = fx.path("Cli.MPK");
        QByteArray text;
        QCOMPARE(run({"new", p}), 0);
        QCOMPARE(run({"new", p}), 1);           // no silent overwrite
        QCOMPARE(run({"check", p}, &text), 0);
        QVERIFY(text.contains("sound"));

        QVERIFY(QFile::copy(PYRO_DATA_DIR "/Config.MPK", fx.path("Demo.MPK")));
        QCOMPARE(run({"tree", fx.path("Demo.MPK")}, &text), 0);
        QVERIFY(text.contains("[2] \" 2key               \""));
        QVERIFY(text.contains("\n  [3]"));
        QCOMPARE(run({"show", fx.path("Demo.MPK"), "3"}, &text), 0);
        QVERIFY(text.contains("NodeKey      \" 3key               \""));
        QVERIFY(text.contains("ParamImage"));
        QCOMPARE(run({"show", fx.path("Demo.MPK"), "999"}), 1);

        // A cut-off tail that no link names harms nothing; a loop is named,
        // exit 1, and no hang.
        writeBytes(fx.path("Demo.MPK"), fileBytes(fx.path("Demo.MPK")) + QByteArray(100, 'x'));
        QCOMPARE(run({"check", fx.path("Demo.MPK")}, &text), 0);
        DbRecord r = recordAt(fx.path("Demo.MPK"), 3);
        r.NextRec = 2;
        putRecordAt(fx.path("Demo.MPK"), 3, r);
        QCOMPARE(run({"check", fx.path("Demo.MPK")}, &text), 1);
        QCOMPARE(text.count("problem:"), 1);
        QCOMPARE(run({"tree", fx.path("Demo.MPK")}, &text), 1);
        writeBytes(fx.path("Other.MPK"), "not a database");
        QCOMPARE(run({"check", fx.path("Other.MPK")}), 1);
        QCOMPARE(run({"tree", fx.path("Other.MPK")}), 1);
        QCOMPARE(run({"bogus", p}), 2);
    }
};

QTEST_GUILESS_MAIN(TstDemoDb)
#include "tst_demodb.moc"
