#include "settingsfile.h"
#include "csvtext.h"
#include "fileguard.h"
#include "frame.h"
#include "gridedit.h"
#include "image.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>

namespace pyro {

namespace {

const QString kFormatName = QStringLiteral("pyrolink-settings");
constexpr int kFormatVersion = 1;
const QStringList kCsvColumns{"row", "group", "caption", "value", "unit", "stored"};

QString jsonString(const QString &s)
{
    // Qt's own escaping, without the brackets of the array it needs.
    const QByteArray a = QJsonDocument(QJsonArray{s}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(a.mid(1, a.size() - 2));
}

bool fail(ImportDiag &d, int line, const QString &reason)
{
    d.line = line;
    d.reason = reason;
    return false;
}

int lineAt(const QByteArray &bytes, qsizetype offset)
{
    return 1 + int(bytes.left(offset).count('\n'));
}

// Only UTF-8 is read: a file saved in GBK or UTF-16 would otherwise come in
// as other captions and values, and every row would be "unknown".
bool checkEncoding(const QByteArray &bytes, ImportDiag &d)
{
    if (bytes.startsWith("\xFF\xFE") || bytes.startsWith("\xFE\xFF"))
        return fail(d, 1, QStringLiteral("UTF-16 text: settings files are UTF-8"));
    int line = 1;
    qsizetype start = 0;
    while (start <= bytes.size()) {
        qsizetype end = bytes.indexOf('\n', start);
        if (end < 0)
            end = bytes.size();
        const QByteArray piece = bytes.mid(start, end - start);
        if (piece.contains('\0'))
            return fail(d, line, QStringLiteral("a NUL byte: not UTF-8 text"));
        QStringDecoder dec(QStringDecoder::Utf8);
        const QString text = dec.decode(piece);
        if (dec.hasError())
            return fail(d, line, QStringLiteral("not UTF-8 text (saved in another encoding?)"));
        Q_UNUSED(text);
        start = end + 1;
        ++line;
    }
    return true;
}

// --- JSON ----------------------------------------------------------------------

// The line where each object of the top-level "rows" array begins; Qt's
// parser keeps no lines.
QList<int> jsonRowLines(const QByteArray &b)
{
    QList<int> lines;
    QList<char> stack;
    bool rowsArray = false;
    QByteArray lastString;
    int line = 1;
    for (qsizetype i = 0; i < b.size(); ++i) {
        const char c = b[i];
        if (c == '\n') {
            ++line;
        } else if (c == '"') {
            const qsizetype from = ++i;
            while (i < b.size() && b[i] != '"') {
                if (b[i] == '\\')
                    ++i;
                else if (b[i] == '\n')
                    ++line;
                ++i;
            }
            if (stack.size() == 1)
                lastString = b.mid(from, i - from);
        } else if (c == '{' || c == '[') {
            if (c == '[' && stack.size() == 1)
                rowsArray = lastString == "rows";
            if (c == '{' && stack.size() == 2 && stack.last() == '[' && rowsArray)
                lines << line;
            stack << c;
        } else if (c == '}' || c == ']') {
            if (!stack.isEmpty())
                stack.removeLast();
        }
    }
    return lines;
}

QString jsonText(const QJsonValue &v, bool *ok)
{
    *ok = true;
    if (v.isString())
        return v.toString();
    if (v.isDouble())
        return QString::number(v.toDouble(), 'g', 17);
    if (v.isUndefined() || v.isNull())
        return {};
    *ok = false;
    return {};
}

bool parseJson(const QByteArray &bytes, SettingsFileData &out, ImportDiag &d)
{
    QJsonParseError err;
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &err);
    if (err.error != QJsonParseError::NoError) {
        const bool atEnd = bytes.mid(err.offset).trimmed().isEmpty();
        return fail(d, lineAt(bytes, err.offset),
                    atEnd ? QStringLiteral("the file ends too soon (cut short?)")
                          : QStringLiteral("not valid JSON: %1").arg(err.errorString()));
    }
    const QJsonObject root = doc.object();
    if (!doc.isObject() || root.value("format").toString() != kFormatName)
        return fail(d, 1, QStringLiteral("not a settings file (no \"format\": \"%1\")").arg(kFormatName));
    if (root.value("version").toInt() != kFormatVersion)
        return fail(d, 1, QStringLiteral("settings file version %1 is not known here").arg(root.value("version").toInt()));
    const QJsonObject table = root.value("table").toObject();
    if (!table.value("blockSize").isDouble() || !table.value("layout").isString())
        return fail(d, 1, QStringLiteral("the file doesn't say which table it is for"));
    out.format = SettingsFormat::Json;
    out.table.blockSize = table.value("blockSize").toInt();
    out.table.rows = table.value("rows").toInt();
    out.table.layout = table.value("layout").toString();
    out.tableName = table.value("file").toString();
    out.source = root.value("source").toString();
    if (!root.value("rows").isArray())
        return fail(d, 1, QStringLiteral("the file has no \"rows\""));
    const QJsonArray rows = root.value("rows").toArray();
    const QList<int> lines = jsonRowLines(bytes);
    for (int i = 0; i < rows.size(); ++i) {
        const int line = i < lines.size() ? lines[i] : 0;
        if (!rows[i].isObject())
            return fail(d, line, QStringLiteral("row %1 is not an object").arg(i + 1));
        const QJsonObject o = rows[i].toObject();
        FileRow r;
        r.line = line;
        r.row = o.value("row").toInt();
        r.group = o.value("group").toString().trimmed();
        r.caption = o.value("caption").toString().trimmed();
        bool ok1 = false, ok2 = false;
        r.value = jsonText(o.value("value"), &ok1);
        r.stored = jsonText(o.value("stored"), &ok2);
        if (r.caption.isEmpty())
            return fail(d, line, QStringLiteral("a row without a caption"));
        if (!ok1 || !o.contains("value"))
            return fail(d, line, QStringLiteral("row '%1': no value").arg(r.caption));
        if (!ok2)
            return fail(d, line, QStringLiteral("row '%1': \"stored\" is no number").arg(r.caption));
        out.rows << r;
    }
    return true;
}

// --- CSV -----------------------------------------------------------------------

struct CsvRecord {
    int line = 0;
    QStringList fields;
};

bool csvRecords(const QString &text, QList<CsvRecord> &out, ImportDiag &d)
{
    qsizetype pos = 0;
    int line = 1;
    for (;;) {
        CsvRecord rec;
        rec.line = line;
        const CsvRead r = ReadCsvRecord(text, &pos, &line, &rec.fields);
        if (r == CsvRead::End)
            return true;
        if (r == CsvRead::Unclosed)
            return fail(d, rec.line, QStringLiteral("a quoted field is not closed (cut short?)"));
        if (!(rec.fields.size() == 1 && rec.fields[0].trimmed().isEmpty()))
            out << rec;
    }
}

bool parseCsv(const QByteArray &bytes, SettingsFileData &out, ImportDiag &d)
{
    QList<CsvRecord> recs;
    if (!csvRecords(QString::fromUtf8(bytes), recs, d))
        return false;
    if (recs.isEmpty() || recs[0].fields.value(0).trimmed() != kFormatName)
        return fail(d, recs.isEmpty() ? 1 : recs[0].line, QStringLiteral("not a settings file (the first line is not '%1,%2')")
                                                              .arg(kFormatName).arg(kFormatVersion));
    if (recs[0].fields.value(1).trimmed().toInt() != kFormatVersion)
        return fail(d, recs[0].line, QStringLiteral("settings file version '%1' is not known here").arg(recs[0].fields.value(1)));
    out.format = SettingsFormat::Csv;
    int k = 1;
    bool header = false, haveBlock = false, haveLayout = false;
    for (; k < recs.size() && !header; ++k) {
        const QStringList &f = recs[k].fields;
        const QString key = f.value(0).trimmed();
        const QString val = f.value(1).trimmed();
        if (key == QLatin1String("row")) {
            QStringList cols;
            for (const QString &c : f)
                cols << c.trimmed();
            if (cols != kCsvColumns)
                return fail(d, recs[k].line, QStringLiteral("the column line must read %1").arg(kCsvColumns.join(',')));
            header = true;
        } else if (key == QLatin1String("table")) {
            out.tableName = val;
        } else if (key == QLatin1String("block_size")) {
            out.table.blockSize = val.toInt(&haveBlock);
        } else if (key == QLatin1String("rows")) {
            out.table.rows = val.toInt();
        } else if (key == QLatin1String("layout")) {
            out.table.layout = val;
            haveLayout = !val.isEmpty();
        } else if (key == QLatin1String("source")) {
            out.source = val;
        }
    }
    if (!header)
        return fail(d, recs.last().line, QStringLiteral("no column line 'row,group,...' (cut short?)"));
    if (!haveBlock || !haveLayout)
        return fail(d, 1, QStringLiteral("the file doesn't say which table it is for (block_size, layout)"));
    for (; k < recs.size(); ++k) {
        const QStringList &f = recs[k].fields;
        if (f.size() != kCsvColumns.size())
            return fail(d, recs[k].line, QStringLiteral("%1 fields, a row has %2 (cut short?)").arg(f.size()).arg(kCsvColumns.size()));
        FileRow r;
        r.line = recs[k].line;
        r.row = f[0].trimmed().toInt();
        r.group = f[1].trimmed();
        r.caption = f[2].trimmed();
        r.value = f[3];
        r.stored = f[5].trimmed();
        if (r.caption.isEmpty())
            return fail(d, r.line, QStringLiteral("a row without a caption"));
        out.rows << r;
    }
    return true;
}

QString rowName(const QString &group, const QString &caption)
{
    return group.isEmpty() ? caption : group + QLatin1Char('/') + caption;
}

// The grid editors' checks: a list takes one of its labels, the number box a
// number inside the row's range. Empty when the value passes.
QString checkValue(const Params &p, const SettingRow &s, const QString &value)
{
    const ParamRow &row = p.SetRows[s.row];
    const QString v = value.trimmed();
    if (s.isList) {
        QStringList labels;
        for (const QString &l : SplitList(row.Labels))
            labels << l.trimmed();
        if (!labels.contains(v))
            return QStringLiteral("'%1' is not one of: %2").arg(value, labels.join(QStringLiteral(", ")));
        return {};
    }
    if (!IsNumericText(v))
        return QStringLiteral("'%1' is not a number").arg(value);
    const QStringList range = SplitList(row.Labels);
    if (range.size() != 2)
        return kNoRangeTitle + QLatin1Char(' ') + kNoRangeText;
    const double x = LeadingNumber(v);
    if (x < LeadingNumber(range[0]) || x > LeadingNumber(range[1]))
        return kRangeErrorText + range[0] + QLatin1Char('-') + StripTrailing(range[1]);
    return {};
}

} // namespace

QString ImportDiag::text() const
{
    return line > 0 ? QStringLiteral("line %1: %2").arg(line).arg(reason) : reason;
}

QByteArray ExportSettings(const Params &p, const QByteArray &block, SettingsFormat format, const QString &source,
                          const QString &tableName)
{
    const TableIdentity id = IdentifyTable(p);
    const QList<SettingRow> rows = SettingRows(p);
    QString out;
    if (format == SettingsFormat::Json) {
        out += QStringLiteral("{\n  \"format\": \"%1\",\n  \"version\": %2,\n").arg(kFormatName).arg(kFormatVersion);
        out += QStringLiteral("  \"table\": {\"file\": %1, \"blockSize\": %2, \"rows\": %3, \"layout\": \"%4\"},\n")
                   .arg(jsonString(tableName)).arg(id.blockSize).arg(id.rows).arg(id.layout);
        out += QStringLiteral("  \"source\": %1,\n  \"rows\": [\n").arg(jsonString(source));
        for (int i = 0; i < rows.size(); ++i) {
            const SettingRow &s = rows[i];
            const SettingValue v = ValueAt(p, s, block);
            out += QStringLiteral("    {\"row\": %1, \"group\": %2, \"caption\": %3, \"value\": %4, \"unit\": %5, \"stored\": %6}%7\n")
                       .arg(s.row).arg(jsonString(s.group), jsonString(s.caption), jsonString(v.shown),
                                       jsonString(s.unit), jsonString(v.stored), i + 1 < rows.size() ? QStringLiteral(",") : QString());
        }
        out += QStringLiteral("  ]\n}\n");
    } else {
        out += QStringLiteral("%1,%2\n").arg(kFormatName).arg(kFormatVersion);
        out += QStringLiteral("table,%1\nblock_size,%2\nrows,%3\nlayout,%4\nsource,%5\n")
                   .arg(CsvField(tableName, true)).arg(id.blockSize).arg(id.rows).arg(id.layout, CsvField(source, true));
        out += kCsvColumns.join(QLatin1Char(',')) + QLatin1Char('\n');
        for (const SettingRow &s : rows) {
            const SettingValue v = ValueAt(p, s, block);
            out += QStringList{QString::number(s.row), CsvField(s.group, true), CsvField(s.caption, true), CsvField(v.shown, true),
                               CsvField(s.unit, true), CsvField(v.stored, true)}.join(QLatin1Char(','))
                + QLatin1Char('\n');
        }
    }
    return out.toUtf8();
}

bool ParseSettingsFile(const QByteArray &bytesIn, SettingsFileData &out, ImportDiag &diag)
{
    out = SettingsFileData();
    diag = ImportDiag();
    QByteArray bytes = bytesIn;
    if (bytes.startsWith("\xEF\xBB\xBF"))   // spreadsheets put a BOM in front
        bytes.remove(0, 3);
    if (bytes.trimmed().isEmpty())
        return fail(diag, 0, QStringLiteral("the file is empty"));
    if (!checkEncoding(bytes, diag))
        return false;
    return bytes.trimmed().startsWith('{') ? parseJson(bytes, out, diag) : parseCsv(bytes, out, diag);
}

QByteArray BlankBlock(const Params &p)
{
    const int size = qMax<int>(0, p.Tables[0].BlockSize);
    QByteArray b(size, '\0');
    if (size > kImageHeaderSize) {
        putLe32(b, kImageLengthAt, uint32_t(size - kImageHeaderSize));
        StampImage(b, p.Tables[0]);
    }
    return b;
}

bool ApplySettings(const Params &p, const SettingsFileData &file, const QByteArray &base, QByteArray &block,
                   ImportDiag &diag)
{
    diag = ImportDiag();
    const TableIdentity id = IdentifyTable(p);
    if (file.table.blockSize != id.blockSize)
        return fail(diag, 0, QStringLiteral("the file is for another table: its block has %1 bytes, this table's %2")
                                 .arg(file.table.blockSize).arg(id.blockSize));
    if (file.table.layout != id.layout)
        return fail(diag, 0, QStringLiteral("the file is for another table: its rows differ from this table's (layout %1, this table's %2)")
                                 .arg(file.table.layout.left(12), id.layout.left(12)));
    QString why;
    QByteArray work = base.isEmpty() ? BlankBlock(p) : base.left(id.blockSize);
    if (!GoodBlock(p, work, &why))
        return fail(diag, 0, QStringLiteral("the block to import into: %1").arg(why));

    const QList<SettingRow> rows = SettingRows(p);
    QHash<QString, QList<int>> byName;   // "group/caption" -> indices into rows
    for (int i = 0; i < rows.size(); ++i)
        byName[rowName(rows[i].group, rows[i].caption)] << i;
    QList<int> takenAt(rows.size(), 0);  // line that named each row, 0 none
    QList<int> target;                   // per file row
    for (const FileRow &r : file.rows) {
        const QString name = rowName(r.group, r.caption);
        const QList<int> hits = byName.value(name);
        int pick = -1;
        if (hits.size() == 1) {
            pick = hits[0];
        } else {
            for (int h : hits)
                if (rows[h].row == r.row)
                    pick = h;
        }
        if (pick < 0)
            return fail(diag, r.line, hits.isEmpty() ? QStringLiteral("unknown row '%1'").arg(name)
                                                     : QStringLiteral("'%1' names several rows; its row number %2 is none of them").arg(name).arg(r.row));
        if (takenAt[pick])
            return fail(diag, r.line, QStringLiteral("row '%1' again (first on line %2)").arg(name).arg(takenAt[pick]));
        takenAt[pick] = r.line > 0 ? r.line : -1;
        target << pick;
    }
    for (int i = 0; i < rows.size(); ++i)
        if (!takenAt[i])
            return fail(diag, 0, QStringLiteral("row '%1' is missing (cut short?)").arg(rowName(rows[i].group, rows[i].caption)));

    // The codec writes into an image with the spare byte behind the block.
    work.append('\0');
    for (int k = 0; k < file.rows.size(); ++k) {
        const FileRow &r = file.rows[k];
        const SettingRow &s = rows[target[k]];
        const QString name = rowName(r.group, r.caption);
        const QString value = r.value.trimmed();
        QByteArray trial = work;
        const bool storedFits = !r.stored.isEmpty() && PutStored(p, s, r.stored, trial);
        if (!r.stored.isEmpty() && !storedFits)
            return fail(diag, r.line, QStringLiteral("row '%1': stored number '%2' doesn't fit the row").arg(name, r.stored));
        if (value.isEmpty()) {
            // A value the grid can't show (a number no list entry has) comes
            // back only as the same stored number.
            if (!storedFits || ValueAt(p, s, trial).hasShown)
                return fail(diag, r.line, QStringLiteral("row '%1': no value").arg(name));
            work = trial;
            continue;
        }
        const QString bad = checkValue(p, s, value);
        if (!bad.isEmpty())
            return fail(diag, r.line, QStringLiteral("row '%1': %2").arg(name, bad));
        // The stored number keeps the digits that the shown value rounds
        // away, as long as it still shows as that value; a value changed by
        // hand is stored as the editor would store it.
        const SettingValue shownByStored = storedFits ? ValueAt(p, s, trial) : SettingValue{};
        if (storedFits && shownByStored.hasShown && shownByStored.shown == value)
            work = trial;
        else if (EncodeValue(value, work, p.SetRows, s.row, nullptr) != 0)
            return fail(diag, r.line, QStringLiteral("row '%1': %2").arg(name, kListMismatchText));
    }
    work.chop(1);
    if (StampImage(work, p.Tables[0]) != 0)
        return fail(diag, 0, QStringLiteral("the result can't be stamped"));
    block = work;
    return true;
}

bool ImportSettings(const Params &p, const QByteArray &bytes, const QByteArray &base, QByteArray &block,
                    ImportDiag &diag)
{
    SettingsFileData f;
    return ParseSettingsFile(bytes, f, diag) && ApplySettings(p, f, base, block, diag);
}

bool ReadSettingsSource(const Params &p, const QString &path, QByteArray *block, QString *error)
{
    QByteArray bytes;
    if (!ReadWholeFile(path, 4 << 20, &bytes, error))
        return false;
    if (bytes.size() == p.Tables[0].BlockSize && GoodBlock(p, bytes)) {
        *block = bytes;
        return true;
    }
    ImportDiag diag;
    if (ImportSettings(p, bytes, QByteArray(), *block, diag))
        return true;
    *error = diag.text();
    return false;
}

} // namespace pyro
