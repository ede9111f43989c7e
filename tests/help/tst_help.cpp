// The about box's version text and the manual action: missing, failing and
// opening the manual that the build puts beside the programs.
#include "help.h"
#include "prompter.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using namespace pyro;

class TstHelp : public QObject {
    Q_OBJECT
private slots:
    void aboutTexts()
    {
        QCOMPARE(kAboutCaption, QString("About Pyrolink"));
        QCOMPARE(AboutVersionText(), QString("Bite 1.0.0"));
    }

    void manual_data()
    {
        QTest::addColumn<QString>("dir");
        QTest::addColumn<bool>("opens");
        QTest::addColumn<int>("result");
        QTest::addColumn<QStringList>("shown");
        QTest::newRow("missing") << QString() << true << int(kHelpMissing)
                                 << QStringList{"Hint|Documentation is missing!"};
        QTest::newRow("opener fails") << QString(PYRO_BIN_DIR) << false << int(kHelpFailed)
                                      << QStringList{"Hint|Open the help documentation errors!"};
        QTest::newRow("the built manual") << QString(PYRO_BIN_DIR) << true << int(kHelpOpened) << QStringList();
    }

    void manual()
    {
        QFETCH(QString, dir);
        QFETCH(bool, opens);
        QFETCH(int, result);
        QFETCH(QStringList, shown);
        QTemporaryDir empty;
        ScriptedPrompter prompter;
        prompter.answers = {true};
        QList<QUrl> asked;
        const auto opener = [&](const QUrl &u) { asked << u; return opens; };
        QCOMPARE(PeoHelp(dir.isEmpty() ? empty.path() : dir, &prompter, opener), result);
        QCOMPARE(prompter.shown, shown);
        if (result == kHelpMissing)
            return;
        QCOMPARE(asked, QList<QUrl>{QUrl::fromLocalFile(PYRO_BIN_DIR "/Pyrolink_UG.PDF")});
        QFile pdf(asked.first().toLocalFile());
        QVERIFY(pdf.open(QIODevice::ReadOnly));
        QCOMPARE(pdf.read(5), QByteArray("%PDF-"));
        QVERIFY(pdf.size() > 20000);
    }
};

QTEST_GUILESS_MAIN(TstHelp)
#include "tst_help.moc"
