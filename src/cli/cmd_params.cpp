#include "clisession.h"
#include "commands.h"
#include "fileguard.h"
#include "paramops.h"
#include "params.h"

#include <QDir>
#include <QFile>

using namespace pyro;

namespace {

int usage(QTextStream &err)
{
    err << "usage: pyrolink-cli params read   --port P [--out BIN]\n"
           "       pyrolink-cli params update --port P --in BIN\n"
           "       pyrolink-cli params save   --port P --in BIN\n"
           "       pyrolink-cli params erase  --port P [--no]\n"
           "       pyrolink-cli params watch  --port P [--seconds S]\n"
           "       pyrolink-cli params info   --port P\n"
           "tables: --config FILE --display FILE (default: beside the program)\n"
        << Qt::flush;
    return 2;
}

// One table as the start-up loads it: the block takes BlockSize + 1 bytes.
bool loadTable(Params &p, int t, const QString &path, QString *error)
{
    TableDiag diag;
    if (LoadProtocolTable(p.MSFG[t], path, p.rows(t), p.Tables[t], &diag) != 0) {
        *error = QStringLiteral("%1: %2").arg(kTableLoadErrorText, QDir::toNativeSeparators(path));
        if (diag.line > 0)
            *error += QStringLiteral(": line %1").arg(diag.line);
        if (!diag.reason.isEmpty())
            *error += QStringLiteral(": ") + diag.reason;
        return false;
    }
    p.block(t) = QByteArray(p.Tables[t].BlockSize + 1, '\0');
    return true;
}

// The value rows of a table: number, the two caption columns, the value.
void printRows(QTextStream &out, const Params &p, int t)
{
    const GridModel &g = p.MSFG[t];
    const QList<ParamRow> &rows = t == 0 ? p.SetRows : p.DisplayRows;
    for (int r = 1; r < p.Tables[t].RowCount && r < rows.size(); ++r) {
        if (rows[r].Addr < 1)
            continue;
        out << r << '\t' << g.text(r, 1) << '\t' << g.text(r, 2) << '\t' << g.text(r, kValueCol) << '\n';
    }
    out.flush();
}

const QStringList kSuccessTexts{
    QStringLiteral("Successful reading data set"),
    QStringLiteral("Update the set data successfully"),
    QStringLiteral("Save Settings data successfully"),
    QStringLiteral("Erase the data successfully"),
};

} // namespace

int cliParams(const QStringList &argsIn)
{
    QStringList args = argsIn;
    CliSession s;
    if (args.isEmpty())
        return usage(s.err);
    const QString verb = args.takeFirst();
    const QString configPath = takeOption(args, "--config", s.link.appDir + "/Config.For");
    const QString displayPath = takeOption(args, "--display", s.link.appDir + "/Display.For");
    const QString outPath = takeOption(args, "--out");
    const QString inPath = takeOption(args, "--in");
    const double seconds = takeOption(args, "--seconds", "5").toDouble();
    s.prompter.answerYes = !takeFlag(args, "--no");
    QString error;
    if (!s.takePortOptions(args, &error) || !args.isEmpty()) {
        s.err << "pyrolink-cli params: " << (error.isEmpty() ? "unknown option " + args.join(' ') : error) << Qt::endl;
        return 2;
    }
    static const QStringList verbs{"read", "update", "save", "erase", "watch", "info"};
    if (!verbs.contains(verb) || ((verb == "update" || verb == "save") && inPath.isEmpty()))
        return usage(s.err);

    Params p;
    if (!loadTable(p, 0, configPath, &error) || !loadTable(p, 1, displayPath, &error)) {
        s.err << error << Qt::endl;
        return 1;
    }
    ParamOps ops;
    InstallParamOps(s.link, p, ops);

    if (verb == "update" || verb == "save") {
        // Looked at before it is read: /dev/zero or a FIFO would never end.
        QByteArray bytes;
        QString why;
        if (!ReadWholeFile(inPath, 1 << 20, &bytes, &why)) {
            s.err << "cannot read " << inPath << ": " << why << Qt::endl;
            return 1;
        }
        // A block for another table would be stamped and sent as if it fitted.
        if (bytes.size() != p.Tables[0].BlockSize) {
            s.err << inPath << " holds " << bytes.size() << " bytes; the settings block has "
                  << p.Tables[0].BlockSize << Qt::endl;
            return 1;
        }
        p.SetImage.replace(0, int(bytes.size()), bytes);
    }

    if (!s.openPort())
        return 1;

    if (verb == "watch") {
        MenuImgClick(ops, 5);
        qint64 printed = 0;
        s.run({}, seconds > 0 ? seconds : 5, [&] {
            if (ops.displayPolls == printed)
                return;
            printed = ops.displayPolls;
            s.out << "poll " << printed << '\n';
            printRows(s.out, p, 1);
        });
        if (printed == 0) {
            const QString why = s.link.view.SB[2].isEmpty() ? QStringLiteral("no running values read")
                                                            : s.link.view.SB[2];
            s.err << why << Qt::endl;
            return 1;
        }
        return 0;
    }

    const int button = verb == "erase" ? 0 : verb == "read" ? 1 : verb == "update" ? 2 : verb == "save" ? 3 : 6;
    const uint8_t mode = uint8_t(button == 0 ? 2 : button == 6 ? 6 : button + 2);
    MenuImgClick(ops, button);
    if (s.link.ModeRequest != mode) {
        s.err << "pyrolink-cli params: not started" << Qt::endl;
        return 1;
    }
    bool entered = false;
    const bool ended = s.run([&] {
        entered = entered || s.link.LinkMode == mode;
        return (entered && s.link.ModeRequest == 0) || !s.port.isOpen();
    }, 60);
    if (!ended || !s.port.isOpen()) {
        s.err << (s.port.isOpen() ? QStringLiteral("no end of the operation") : s.link.view.SB[1]) << Qt::endl;
        return 1;
    }

    if (verb == "info") {
        if (ops.infoReads == 0) {
            s.err << "Read the device information failed" << Qt::endl;
            return 1;
        }
        s.out << "Device ID：" << ops.BitInf.DeviceId << '\n'
              << "Order ID：" << ops.BitInf.OrderId.trimmed() << '\n'
              << "DateUpdated：" << ops.BitInf.DateUpdated.trimmed() << '\n'
              << "Remark：" << ops.BitInf.RemarkStamp.trimmed() << Qt::endl;
        return 0;
    }

    const QString result = s.link.view.SB[2];
    if (!kSuccessTexts.contains(result)) {
        s.err << result << Qt::endl;
        return 1;
    }
    s.out << result << '\n';
    if (verb == "read") {
        printRows(s.out, p, 0);
        if (!outPath.isEmpty()) {
            QFile f(outPath);
            if (!f.open(QIODevice::WriteOnly)
                || f.write(p.SetImage.left(p.Tables[0].BlockSize)) != p.Tables[0].BlockSize) {
                s.err << "cannot write " << outPath << ": " << f.errorString() << Qt::endl;
                return 1;
            }
        }
    }
    s.out.flush();
    return 0;
}
