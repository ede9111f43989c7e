#include "tables.h"
#include "numbers.h"
#include "fileguard.h"

#include <QStringDecoder>
#include <cmath>
#include <limits>

namespace pyro {

namespace {

const QString kFieldSep = QStringLiteral("\\/");
const QString kSubSep = QStringLiteral("><");
const QString kListSep = QStringLiteral("||");
const QString kParamKeyword = QStringLiteral("List:");
const QString kEndMarker = QStringLiteral("End");

constexpr int kShortLine = 10;           // lines of this many characters or fewer make no row
constexpr int kMaxRows = 32767;          // RowCount is a signed 16-bit number
// Guards against garbage, not limits of the format: a real table has a few
// columns, a few hundred rows and a few kilobytes. Without them a file of
// half a megabyte asks for gigabytes of cells or of split pieces.
constexpr int kMaxCols = 1024;
constexpr qint64 kMaxCells = 1 << 20;
constexpr qint64 kMaxFileBytes = 1024 * 1024;

bool isBlank(QChar c)
{
    return c == QLatin1Char(' ') || c == QLatin1Char('\t');
}

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

int digitValue(QChar c)
{
    const char16_t u = c.unicode();
    if (u >= u'0' && u <= u'9')
        return u - u'0';
    if (u >= u'a' && u <= u'f')
        return u - u'a' + 10;
    if (u >= u'A' && u <= u'F')
        return u - u'A' + 10;
    return 99;
}

// One line at a time out of the file's bytes. Lines end at CR LF, LF or a
// lone CR; a last line without an end counts. GBK never uses CR or LF inside
// a double-byte character, so cutting bytes first is safe.
class LineReader {
public:
    explicit LineReader(const QByteArray &bytes)
        : m_bytes(bytes), m_decoder("GBK")
    {
    }
    bool atEnd() const { return m_pos >= m_bytes.size(); }
    int lineNumber() const { return m_line; }
    QString next()
    {
        const qsizetype start = m_pos;
        qsizetype end = start;
        while (end < m_bytes.size() && m_bytes[end] != '\n' && m_bytes[end] != '\r')
            ++end;
        m_pos = end;
        if (m_pos < m_bytes.size() && m_bytes[m_pos] == '\r')
            ++m_pos;
        if (m_pos < m_bytes.size() && m_bytes[m_pos] == '\n')
            ++m_pos;
        ++m_line;
        const QByteArrayView raw(m_bytes.constData() + start, end - start);
        // Without a GBK converter on the system the local 8-bit code page is
        // the best guess: ASCII tables still load, captions may not show.
        if (!m_decoder.isValid())
            return QString::fromLocal8Bit(raw);
        m_decoder.resetState();
        QString s = m_decoder.decode(raw);
        return s;
    }

private:
    const QByteArray &m_bytes;
    QStringDecoder m_decoder;
    qsizetype m_pos = 0;
    int m_line = 0;
};

int16_t fail(TableDiag *diag, int line, const QString &reason)
{
    if (diag) {
        diag->line = line;
        diag->reason = reason;
    }
    return 1;
}

template <typename T>
bool takeInt(const QString &text, T &out)
{
    qint64 v = 0;
    if (!FitInteger(LeadingNumber(text), std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), v))
        return false;
    out = T(v);
    return true;
}

} // namespace

double LeadingNumber(const QString &text, int *used)
{
    const int n = int(qMin<qsizetype>(text.size(), std::numeric_limits<int>::max()));
    int i = 0;
    while (i < n && isBlank(text[i]))
        ++i;
    if (used)
        *used = 0;
    if (i + 1 < n && text[i] == QLatin1Char('&')) {
        const QChar p = text[i + 1].toUpper();
        const int base = p == QLatin1Char('H') ? 16 : p == QLatin1Char('O') ? 8 : 0;
        if (base == 0)
            return 0;
        // Unsigned, whatever the digit count: &HFFFF is 65535 here, which is
        // what a table author writing a mask or a colour means.
        double v = 0;
        int j = i + 2;
        for (; j < n; ++j) {
            const int d = digitValue(text[j]);
            if (d >= base)
                break;
            v = v * base + d;
        }
        if (j == i + 2)
            return 0;
        if (used)
            *used = j;
        return v;
    }
    int j = i;
    if (j < n && (text[j] == QLatin1Char('+') || text[j] == QLatin1Char('-')))
        ++j;
    int digits = 0;
    while (j < n && isDigit(text[j]))
        ++j, ++digits;
    if (j < n && text[j] == QLatin1Char('.')) {
        ++j;
        while (j < n && isDigit(text[j]))
            ++j, ++digits;
    }
    if (digits == 0)
        return 0;
    // An exponent counts only with at least one digit: "1.5e" reads as 1.5.
    if (j < n && (text[j].toUpper() == QLatin1Char('E') || text[j].toUpper() == QLatin1Char('D'))) {
        int k = j + 1;
        if (k < n && (text[k] == QLatin1Char('+') || text[k] == QLatin1Char('-')))
            ++k;
        const int expStart = k;
        while (k < n && isDigit(text[k]))
            ++k;
        if (k > expStart)
            j = k;
    }
    QByteArray ascii = text.mid(i, j - i).toLatin1();
    for (char &c : ascii)
        if (c == 'd' || c == 'D')
            c = 'E';
    bool ok = false;
    double v = ascii.toDouble(&ok);
    if (!ok) {
        // Out of the double range: toDouble() refuses; keep the sign of the
        // overflow so that range checks refuse the number too.
        const bool neg = ascii.startsWith('-');
        const int e = int(ascii.toUpper().indexOf('E'));
        const bool tiny = e >= 0 && ascii.mid(e + 1).startsWith('-');
        v = tiny ? 0.0 : (neg ? -HUGE_VAL : HUGE_VAL);
    }
    if (used)
        *used = j;
    return v;
}

bool IsNumericText(const QString &text)
{
    int used = 0;
    LeadingNumber(text, &used);
    if (used == 0)
        return false;
    for (qsizetype k = used; k < text.size(); ++k)
        if (!isBlank(text[k]))
            return false;
    return true;
}

QString FixedText(const QString &text)
{
    return text.size() >= kLabelChars ? text.left(kLabelChars) : text.leftJustified(kLabelChars, QLatin1Char(' '));
}

QStringList SplitList(const QString &text)
{
    return text.split(kListSep);
}

int16_t LoadProtocolTable(GridModel &grid, const QString &path, QList<ParamRow> &rows,
                          TableInfo &info, TableDiag *diag)
{
    if (path.size() < 4)
        return fail(diag, 0, QStringLiteral("the path has fewer than 4 characters"));
    // Not a FIFO, a device or a huge file: those would block or swamp the start.
    QByteArray content;
    QString why;
    if (!ReadWholeFile(path, kMaxFileBytes, &content, &why))
        return fail(diag, 0, QStringLiteral("the file cannot be read: ") + why);
    return LoadProtocolTableData(grid, content, rows, info, diag);
}

int16_t LoadProtocolTableData(GridModel &grid, const QByteArray &content, QList<ParamRow> &rows,
                              TableInfo &info, TableDiag *diag)
{
    if (diag)
        *diag = TableDiag();
    if (content.size() > kMaxFileBytes)
        return fail(diag, 0, QStringLiteral("the file is larger than %1 bytes").arg(kMaxFileBytes));
    LineReader in(content);
    grid.clear(1, qMax(1, grid.cols()));

    // Line 1: HeaderNumber \/ BlockSize, both numeric as whole texts.
    if (in.atEnd())
        return fail(diag, 1, QStringLiteral("the file is empty: line 1 (HeaderNumber\\/BlockSize) is missing"));
    {
        const QStringList f = in.next().split(kFieldSep);
        if (f.size() < 2)
            return fail(diag, 1, QStringLiteral("line 1 needs two fields, HeaderNumber\\/BlockSize; it has %1").arg(f.size()));
        // Both numbers go into info as they are read, before any test: a
        // rejected value stays there.
        const bool headerFits = takeInt(f[0], info.HeaderNumber);
        const bool blockFits = takeInt(f[1], info.BlockSize);
        if (!IsNumericText(f[0]))
            return fail(diag, 1, QStringLiteral("HeaderNumber \"%1\" is not a number").arg(f[0]));
        if (!IsNumericText(f[1]))
            return fail(diag, 1, QStringLiteral("BlockSize \"%1\" is not a number").arg(f[1]));
        if (!headerFits)
            return fail(diag, 1, QStringLiteral("HeaderNumber \"%1\" does not fit 16 bits").arg(f[0]));
        if (!blockFits)
            return fail(diag, 1, QStringLiteral("BlockSize \"%1\" does not fit 16 bits").arg(f[1]));
        if (info.HeaderNumber < 1 || info.HeaderNumber > 60)
            return fail(diag, 1, QStringLiteral("HeaderNumber %1 is outside 1..60").arg(info.HeaderNumber));
        if (info.BlockSize < 1 || info.BlockSize > 480)
            return fail(diag, 1, QStringLiteral("BlockSize %1 is outside 1..480").arg(info.BlockSize));
    }

    // Line 2: the column widths. A file that stops before it is refused like
    // any other broken table.
    if (in.atEnd())
        return fail(diag, 2, QStringLiteral("line 2 (the column widths) is missing"));
    {
        const QStringList w = in.next().split(kFieldSep);
        if (w.size() > kMaxCols)
            return fail(diag, 2, QStringLiteral("line 2 gives %1 columns; more than %2 is not a table").arg(w.size()).arg(kMaxCols));
        grid.setCols(int(w.size()));
        grid.setCurrentCell(0, 0);
        for (int c = 0; c < w.size(); ++c) {
            int32_t width = 0;
            if (!takeInt(w[c], width))
                return fail(diag, 2, QStringLiteral("width of column %1, \"%2\", does not fit 32 bits").arg(c).arg(w[c]));
            grid.setColWidth(c, width);
        }
    }

    info.RowCount = 0;
    int r = 0;
    rows = QList<ParamRow>(1);
    while (!in.atEnd()) {
        const QString line = in.next();
        const int ln = in.lineNumber();
        if (line == kEndMarker)
            break;
        if (line.size() <= kShortLine)
            continue;                    // blank lines and short comments
        if (r >= kMaxRows)
            return fail(diag, ln, QStringLiteral("more than %1 rows").arg(kMaxRows));
        if (qint64(r + 1) * grid.cols() > kMaxCells)
            return fail(diag, ln, QStringLiteral("%1 rows of %2 columns are more than %3 cells")
                                      .arg(r + 1).arg(grid.cols()).arg(kMaxCells));
        if (grid.rows() <= r)
            grid.setRows(grid.rows() + 1);
        rows.resize(r + 2);
        grid.setCurrentCell(r, grid.currentCol());
        const QStringList cells = line.split(kFieldSep);
        for (int c = 0; c < cells.size(); ++c) {
            const QStringList s = cells[c].split(kSubSep);
            if (s.size() < 6)
                continue;
            ParamRow &row = rows[r];
            if (s[0] == kParamKeyword) {
                // 6 to 8 subfields have no meaning; refused like a bad number.
                if (s.size() < 9)
                    return fail(diag, ln, QStringLiteral("parameter cell in column %1 has %2 subfields; it needs 9 or 10").arg(c).arg(s.size()));
                const auto bad = [&](const char *field, int k) {
                    return fail(diag, ln, QStringLiteral("parameter cell in column %1: %2 \"%3\" does not fit its field")
                                              .arg(c).arg(QLatin1String(field), s[k]));
                };
                if (!takeInt(s[1], row.Addr))
                    return bad("Addr", 1);
                if (!takeInt(s[2], row.Width))
                    return bad("Width", 2);
                if (!takeInt(s[3], row.Decimals))
                    return bad("Decimals", 3);
                if (!takeInt(s[4], row.BitIndex))
                    return bad("BitIndex", 4);
                if (!takeInt(s[5], row.IsList))
                    return bad("IsList", 5);
                if (!takeInt(s[6], row.IsFloat))
                    return bad("IsFloat", 6);
                if (!takeInt(s[7], row.Scale))
                    return bad("Scale", 7);
                row.Labels = FixedText(s[8]);
                if (s.size() == 10)
                    row.Values = FixedText(s[9]);
                continue;
            }
            row = ParamRow();
            int16_t align = 0;
            int32_t fore = 0, back = 0, height = 0;
            const auto bad = [&](const char *field, int k) {
                return fail(diag, ln, QStringLiteral("cell in column %1: %2 \"%3\" does not fit its field")
                                          .arg(c).arg(QLatin1String(field), s[k]));
            };
            if (!takeInt(s[1], align))
                return bad("alignment", 1);
            if (!takeInt(s[2], fore))
                return bad("fore colour", 2);
            if (!takeInt(s[3], back))
                return bad("back colour", 3);
            if (!takeInt(s[4], height))
                return bad("row height", 4);
            const double size = LeadingNumber(s[5]);
            if (!std::isfinite(size) || std::fabs(size) > std::numeric_limits<float>::max())
                return bad("font size", 5);
            // Cells beyond the columns of line 2 paint nothing; their row
            // fields count all the same.
            if (c >= grid.cols())
                continue;
            grid.setCurrentCell(r, c);
            grid.setText(r, c, c == 0 && r > 0 ? QString::number(r) : s[0]);
            grid.setAlignment(r, c, align);
            grid.setFore(r, c, colorFromFile(fore));
            grid.setBack(r, c, colorFromFile(back));
            grid.setRowHeight(r, height);
            grid.setFontSize(r, c, float(size));
        }
        ++r;
        info.RowCount = int16_t(r);
    }
    grid.setMergeCol(1, true);
    if (r == 0)
        return fail(diag, in.lineNumber(), QStringLiteral("no row line (more than 10 characters) before \"End\" or the end of the file"));
    return 0;
}

} // namespace pyro
