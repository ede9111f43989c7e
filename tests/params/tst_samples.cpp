#include "paramtest.h"
#include "samplevalues.h"

#include <QSet>
#include <QtTest>

using namespace pyro;

class TstSamples : public QObject {
    Q_OBJECT

    Params p;

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

    // The settings the board starts with, and the running values it sends
    // over an hour, decode without a list mismatch: every value row shows
    // one of its labels, or a settings value within its range.
    void samplesDecode_data()
    {
        QTest::addColumn<int>("t");
        QTest::addColumn<QByteArray>("block");
        QTest::newRow("settings") << 0 << SampleSettingsBlock();
        for (qint64 ms : {0, 3000, 30000, 58000, 600000, 3600000})
            QTest::addRow("running values at %lld ms", ms) << 1 << SampleRunningValues(ms);
    }

    void samplesDecode()
    {
        QFETCH(int, t);
        QFETCH(QByteArray, block);
        QVERIFY(block.size() >= p.Tables[t].BlockSize);
        if (t == 0)
            QCOMPARE(CheckImage(block, p.Tables[0]), int16_t(0));
        ScriptedPrompter prompter;
        QCOMPARE(DecodeBlock(p.MSFG[t], block, p.rows(t), p.Tables[t], &prompter), int16_t(0));
        QVERIFY(prompter.shown.isEmpty());
        for (int r = 1; r < p.Tables[t].RowCount; ++r) {
            const ParamRow &row = p.rows(t)[r];
            if (row.Addr < 1)
                continue;
            const QString shown = p.MSFG[t].text(r, kValueCol);
            const QString where = QString("row %1 (%2) shows \"%3\"").arg(r).arg(p.MSFG[t].text(r, 2), shown);
            QVERIFY2(!shown.isEmpty(), qPrintable(where));
            const QStringList pieces = SplitList(row.Labels);
            if (row.IsList == 1 || KindOf(row) == ValueKind::Bit) {
                QStringList labels;
                for (const QString &l : pieces)
                    labels << l.trimmed();
                QVERIFY2(labels.contains(shown), qPrintable(where));
            } else if (t == 0) {
                QCOMPARE(pieces.size(), 2);
                const double x = LeadingNumber(shown);
                QVERIFY2(x >= LeadingNumber(pieces[0]) && x <= LeadingNumber(pieces[1]), qPrintable(where));
            }
        }
    }
};

QTEST_GUILESS_MAIN(TstSamples)
#include "tst_samples.moc"
