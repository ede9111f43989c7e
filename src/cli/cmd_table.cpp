#include "clisession.h"
#include "commands.h"
#include "fileguard.h"
#include "params.h"

#include <QFile>
#include <QFileInfo>
#include <QTextStream>

using namespace pyro;

namespace {

QString kindText(const ParamRow &row)
{
    switch (KindOf(row)) {
    case ValueKind::None:
        return QStringLiteral("-");
    case ValueKind::Byte:
        return QStringLiteral("byte");
    case ValueKind::Word:
        return QStringLiteral("word");
    case ValueKind::Long:
        return QStringLiteral("long");
    case ValueKind::Bit:
        return QStringLiteral("bit %1").arg(row.BitIndex);
    case ValueKind::Float:
        return QStringLiteral("float");
    case ValueKind::Unsupported:
        break;
    }
    return QStringLiteral("unused (width %1, float %2)").arg(row.Width).arg(row.IsFloat);
}

QStringList trimmedPieces(const QString &text)
{
    QStringList out;
    for (const QString &p : SplitList(text))
        out << p.trimmed();
    return out;
}

// "list: Forward=0, Reverse=1", "range 0..6000" or "-", with /scale and
// decimals where they matter.
QString choiceText(const ParamRow &row)
{
    const ValueKind kind = KindOf(row);
    const bool list = kind == ValueKind::Bit
        || (row.IsList == 1 && (kind == ValueKind::Byte || kind == ValueKind::Float));
    const QStringList labels = trimmedPieces(row.Labels);
    QString s;
    if (list) {
        const QStringList values = trimmedPieces(row.Values);
        QStringList pairs;
        for (int i = 0; i < labels.size(); ++i)
            pairs << labels[i] + '=' + values.value(i, QStringLiteral("?"));
        s = QStringLiteral("list: ") + pairs.join(QStringLiteral(", "));
    } else if (labels.size() == 2) {
        s = QStringLiteral("range ") + labels[0] + QStringLiteral("..") + labels[1];
    } else {
        s = QStringLiteral("-");
    }
    if (row.Scale != 1 && kind != ValueKind::None)
        s += QStringLiteral(" /%1").arg(row.Scale);
    if (row.Decimals != 0 && (kind == ValueKind::Long || kind == ValueKind::Float))
        s += QStringLiteral(" %1 dp").arg(row.Decimals);
    return s;
}

// What the loader accepts but the codec or the editor will trip over: the
// table author's duties.
QStringList rowWarnings(const ParamRow &row, const TableInfo &info)
{
    QStringList w;
    const ValueKind kind = KindOf(row);
    if (kind == ValueKind::None)
        return w;
    if (kind == ValueKind::Unsupported)
        w << QStringLiteral("width %1 / IsFloat %2 is no value kind: never shown or stored").arg(row.Width).arg(row.IsFloat);
    if (row.Addr - 1 + row.Width > info.BlockSize)
        w << QStringLiteral("Addr %1 + Width %2 runs past BlockSize %3: never shown or stored")
                 .arg(row.Addr).arg(row.Width).arg(info.BlockSize);
    if (row.Scale == 0)
        w << QStringLiteral("Scale 0: never shown");
    if (row.Decimals > 5 && (kind == ValueKind::Long || kind == ValueKind::Float))
        w << QStringLiteral("Decimals %1 is above 5: never shown").arg(row.Decimals);
    if (kind == ValueKind::Bit && SplitList(row.Labels).size() != 2)
        w << QStringLiteral("a bit row needs exactly two labels");
    const bool list = kind == ValueKind::Bit || (row.IsList == 1 && (kind == ValueKind::Byte || kind == ValueKind::Float));
    if (list && SplitList(row.Labels).size() != SplitList(row.Values).size())
        w << QStringLiteral("Labels and Values differ in length: \"%1\"").arg(kListMismatchText);
    // Display tables leave Labels blank on number rows; a text that is there
    // but isn't min||max can only be a mistake.
    if (!list && !row.Labels.trimmed().isEmpty() && SplitList(row.Labels).size() != 2)
        w << QStringLiteral("Labels is not min||max: the value can't be edited");
    return w;
}

} // namespace

int cliTable(const QStringList &args)
{
    CliCommand cmd("table", "Checks a table file as the loader does: prints the block size and every row, "
                            "or the line and the rule that failed. With --image, the decoded value of each row.",
                   "FILE");
    cmd.add("image", "A block to decode with the table.", "BIN");
    bool done = false;
    const int code = cmd.parse(args, &done);
    if (done)
        return code;
    if (!cmd.positional(1, 1))
        return kExitUsage;
    QTextStream &out = cmd.out;
    QTextStream &err = cmd.err;
    const QString path = cmd.parser.positionalArguments().at(0);
    const QString imagePath = cmd.parser.value("image");
    for (const QString &file : {path, imagePath}) {
        const QString bad = file.isEmpty() ? QString() : CheckInputFile(file, 1 << 20);
        if (!bad.isEmpty()) {
            err << "pyrolink-cli table: " << bad << Qt::endl;
            return kExitFailed;
        }
    }

    GridModel grid;
    QList<ParamRow> rows;
    TableInfo info;
    TableDiag diag;
    if (LoadProtocolTable(grid, path, rows, info, &diag) != 0) {
        err << path;
        if (diag.line > 0)
            err << ": line " << diag.line;
        err << ": " << diag.reason << Qt::endl;
        return 1;
    }

    out << path << ": HeaderNumber " << info.HeaderNumber << ", BlockSize " << info.BlockSize
        << ", " << info.RowCount << " rows (caption row included), " << grid.cols() << " columns" << Qt::endl;

    QByteArray block;
    bool haveImage = false;
    if (!imagePath.isEmpty()) {
        QString why;
        if (!ReadWholeFile(imagePath, 1 << 20, &block, &why)) {
            err << "pyrolink-cli table: " << why << Qt::endl;
            return kExitFailed;
        }
        haveImage = true;
        out << imagePath << ": " << block.size() << " bytes";
        if (block.size() < info.BlockSize)
            out << ", shorter than BlockSize: rows past its end are not shown";
        // Only a settings table has the 32-byte header; it shows by leaving
        // the first 32 bytes to no row.
        int lowest = info.BlockSize + 1;
        for (const ParamRow &row : rows)
            if (row.Addr >= 1)
                lowest = qMin<int>(lowest, row.Addr);
        if (info.BlockSize > kImageHeaderSize && lowest > kImageHeaderSize)
            out << ", header length and CRC " << (CheckImage(block, info) == 0 ? "good" : "bad");
        out << Qt::endl;
        ConsolePrompter prompter;
        if (DecodeBlock(grid, block, rows, info, &prompter) != 0)
            out << "decoding stopped at a list whose Labels and Values differ in length" << Qt::endl;
    }

    out << "row\tgroup\titem\taddr\twidth\tkind\tlist or range" << (haveImage ? "\tvalue" : "") << Qt::endl;
    int warnings = 0;
    for (int r = 1; r < info.RowCount && r < rows.size(); ++r) {
        const ParamRow &row = rows[r];
        out << r << '\t' << grid.text(r, 1) << '\t' << grid.text(r, 2) << '\t';
        if (row.Addr < 1) {
            out << "-\t-\t-\t-";
        } else {
            out << row.Addr << '\t' << row.Width << '\t' << kindText(row) << '\t' << choiceText(row);
            if (haveImage)
                out << '\t' << grid.text(r, kValueCol);
        }
        out << Qt::endl;
        for (const QString &w : rowWarnings(row, info)) {
            out << "  warning: row " << r << ": " << w << Qt::endl;
            ++warnings;
        }
    }
    if (warnings > 0)
        out << warnings << " warning(s)" << Qt::endl;
    return 0;
}
