#include "csvtext.h"

namespace pyro {

QString CsvField(const QString &s, bool quoteBlanks)
{
    bool quote = false;
    for (QChar c : s) {
        if (c == QLatin1Char(',') || c == QLatin1Char('"') || c == QLatin1Char('\n') || c == QLatin1Char('\r')) {
            quote = true;
            break;
        }
    }
    if (!quote && quoteBlanks && !s.isEmpty() && (s.front().isSpace() || s.back().isSpace()))
        quote = true;
    if (!quote)
        return s;
    QString q = s;
    q.replace(QLatin1String("\""), QLatin1String("\"\""));
    return QLatin1Char('"') + q + QLatin1Char('"');
}

CsvRead ReadCsvRecord(QStringView text, qsizetype *pos, int *line, QStringList *fields)
{
    fields->clear();
    qsizetype i = *pos;
    const qsizetype n = text.size();
    if (i >= n)
        return CsvRead::End;
    QString field;
    bool quoted = false;
    CsvRead result = CsvRead::Record;
    for (;;) {
        if (i >= n) {
            if (quoted)
                result = CsvRead::Unclosed;
            break;
        }
        if (!quoted) {
            // The plain run up to the next comma, line end, carriage return
            // or quote is taken whole: most fields are nothing else.
            qsizetype j = i;
            while (j < n) {
                const char16_t c = text[j].unicode();
                if (c == u',' || c == u'\n' || c == u'\r' || c == u'"')
                    break;
                ++j;
            }
            field.append(text.mid(i, j - i));
            i = j;
            if (i >= n)
                continue;
        }
        const QChar c = text[i++];
        if (quoted) {
            if (c == QLatin1Char('"')) {
                if (i < n && text[i] == QLatin1Char('"')) {
                    field += c;
                    ++i;
                } else {
                    quoted = false;
                }
            } else {
                if (c == QLatin1Char('\n'))
                    ++*line;
                field += c;
            }
        } else if (c == QLatin1Char('"') && field.isEmpty()) {
            quoted = true;
        } else if (c == QLatin1Char(',')) {
            *fields << field;
            field.clear();
        } else if (c == QLatin1Char('\n')) {
            ++*line;
            break;
        } else if (c != QLatin1Char('\r')) {
            field += c;
        }
    }
    *fields << field;
    *pos = i;
    return result;
}

QString StripTrailing(const QString &s)
{
    qsizetype n = s.size();
    while (n > 0 && s[n - 1].isSpace())
        --n;
    return s.left(n);
}

} // namespace pyro
