#include "paramtest.h"
#include "samplevalues.h"

#include <QSet>
#include <QtTest>

using namespace pyro;

class TstSamples : public QObject {
    Q_OBJECT

    Params p;

    // Every value row decoded, and what it shows is one of its choices or
    // within its range.
    void checkDecoded(int t, bool ranges)
    {
        const QList<ParamRow> &rows = p.rows(t);
        for (int r = 1; r < p.Tables[t].RowCount; ++r) {
            const ParamRow &row = rows[r];
            if (row.Addr < 1)
                continue;
            const QString shown = p.MSFG[t].text(r, kValueCol);
            const QString where = QString("table %1 row %2 (%3) shows \"%4\"").arg(t).arg(r).arg(p.MSFG[t].text(r, 2), shown);
            QVERIFY2(!shown.isEmpty(), qPrintable(where));
            const QStringList pieces = SplitList(row.Labels);
            if (row.IsList == 1 || KindOf(row) == ValueKind::Bit) {
                QStringList labels;
                for (const QString &l : pieces)
                    labels << l.trimmed();
                QVERIFY2(labels.contains(shown), qPrintable(where));
            } else if (ranges) {
                QCOMPARE(pieces.size(), 2);
                const double x = LeadingNumber(shown);
                QVERIFY2(x >= LeadingNumber(pieces[0]) && x <= LeadingNumber(pieces[1]), qPrintable(where));
            }
        }
    }

private slots:
    void initTestCase()
    {
        ScriptedPrompter prompter;
        TableDiag diags[2];
        LoadParamTables(p, PYRO_DATA_DIR, &prompter, diags);
        QVERIFY2(prompter.shown.isEmpty(), qPrintable(diags[0].reason + " / " + diags[1].reason));
    }

    void demoTablesAreRealistic()
    {
        QCOMPARE(p.Tables[0].BlockSize, int16_t(256));
        QVERIFY(p.Tables[0].RowCount >= 41 && p.Tables[0].RowCount <= 81);
        QVERIFY(p.Tables[1].RowCount >= 21);
        QCOMPARE(p.SetImage.size(), 257);
        QCOMPARE(p.DisplayImage.size(), p.Tables[1].BlockSize + 1);
        QCOMPARE(p.MSFG[0].cols(), 4);
        QCOMPARE(p.MSFG[0].text(0, 1), QString("分组"));
        QCOMPARE(p.MSFG[0].text(1, 1), QString("电机参数"));
        QVERIFY(p.MSFG[0].mergeCol(1));
        // Every kind, lists, scales and decimals appear; every row lies in its block.
        for (int t = 0; t < 2; ++t) {
            QSet<ValueKind> kinds;
            bool list = false, scale = false, decimals = false;
            for (const ParamRow &row : p.rows(t)) {
                if (row.Addr < 1)
                    continue;
                kinds << KindOf(row);
                list |= row.IsList == 1 && KindOf(row) != ValueKind::Bit;
                scale |= row.Scale != 1;
                decimals |= row.Decimals > 0;
                QVERIFY(row.Addr - 1 + row.Width <= p.Tables[t].BlockSize);
                if (t == 0)
                    QVERIFY2(row.Addr > 32, "a setting inside the header");
            }
            QCOMPARE(kinds, (QSet<ValueKind>{ValueKind::Byte, ValueKind::Word, ValueKind::Long, ValueKind::Bit, ValueKind::Float}));
            QVERIFY(list && scale && decimals);
        }
    }

    void settingsBlockIsGoodAndInRange()
    {
        const QByteArray block = SampleSettingsBlock();
        QCOMPARE(block.size(), int(p.Tables[0].BlockSize));
        QCOMPARE(CheckImage(block, p.Tables[0]), int16_t(0));
        ScriptedPrompter prompter;
        QCOMPARE(DecodeBlock(p.MSFG[0], block, p.SetRows, p.Tables[0], &prompter), int16_t(0));
        QVERIFY(prompter.shown.isEmpty());
        checkDecoded(0, true);
        QCOMPARE(p.MSFG[0].text(4, 3), QString("25.5"));      // rated current, 0.1 A steps
        QCOMPARE(p.MSFG[0].text(14, 3), QString("2.50"));     // acceleration, ms shown as s
    }

    // Every running-values block the board sends over an hour decodes
    // without a list mismatch, each list row showing one of its labels.
    void runningValuesDecode()
    {
        for (qint64 ms : {0, 3000, 30000, 58000, 600000, 3600000}) {
            const QByteArray block = SampleRunningValues(ms);
            QVERIFY(block.size() >= p.Tables[1].BlockSize);
            ScriptedPrompter prompter;
            QCOMPARE(DecodeBlock(p.MSFG[1], block, p.DisplayRows, p.Tables[1], &prompter), int16_t(0));
            QVERIFY(prompter.shown.isEmpty());
            checkDecoded(1, false);
        }
    }
};

QTEST_GUILESS_MAIN(TstSamples)
#include "tst_samples.moc"
