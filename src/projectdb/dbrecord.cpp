#include "dbrecord.h"

#include "frame.h"
#include "link.h"

#include <QLocale>
#include <QStringDecoder>
#include <QStringEncoder>
#include <cmath>
#include <limits>

namespace pyro {

namespace {

void putBytes(QByteArray &out, int at, const QByteArray &field, int width)
{
    const int n = std::min<int>(width, field.size());
    for (int i = 0; i < n; ++i)
        out[at + i] = field[i];
}

QByteArray getBytes(const QByteArray &in, int at, int width)
{
    QByteArray f(width, '\0');
    const int n = std::max(0, std::min<int>(width, int(in.size()) - at));
    for (int i = 0; i < n; ++i)
        f[i] = in[at + i];
    return f;
}

int16_t getI16(const QByteArray &b, int at) { return int16_t(getLe16(b, at)); }
int32_t getI32(const QByteArray &b, int at) { return int32_t(getLe32(b, at)); }

// The mask of the keyed codec for byte position i.
uint8_t maskAt(const QByteArray &key, int keySum, int i, int j)
{
    const int k = int(key.size()) - 1;
    return uint8_t((uint8_t(key[j]) & i) ^ (keySum % 255) ^ k);
}

int keySumOf(const QByteArray &key)
{
    int s = 0;
    for (char c : key)
        s += uint8_t(c);
    return s;
}

} // namespace

QByteArray EncodeRecord(const DbRecord &r)
{
    QByteArray b(kRecordSize, '\0');
    putLe16(b, rec::Used, uint16_t(r.Used));
    putLe32(b, rec::ParentRec, uint32_t(r.ParentRec));
    putLe32(b, rec::PrevRec, uint32_t(r.PrevRec));
    putLe32(b, rec::NextRec, uint32_t(r.NextRec));
    putLe32(b, rec::ChildRec, uint32_t(r.ChildRec));
    putLe32(b, rec::SelfRec, uint32_t(r.SelfRec));
    putBytes(b, rec::ParentKey, r.ParentKey, rec::FixedWidth);
    putBytes(b, rec::NodeKey, r.NodeKey, rec::FixedWidth);
    putBytes(b, rec::Caption, r.Caption, rec::CaptionWidth);
    putLe16(b, rec::Reserved1, uint16_t(r.Reserved1));
    putLe16(b, rec::Expanded, uint16_t(r.Expanded));
    putLe32(b, rec::NodeColor, uint32_t(r.NodeColor));
    putBytes(b, rec::ParamImage, r.ParamImage, rec::ParamImageWidth);
    putBytes(b, rec::FunctionText, r.FunctionText, rec::FunctionTextWidth);
    putBytes(b, rec::ProgramFile, r.ProgramFile, rec::ProgramFileWidth);
    putBytes(b, rec::ConfigFile, r.ConfigFile, rec::NoteWidth);
    putBytes(b, rec::DisplayFile, r.DisplayFile, rec::NoteWidth);
    putBytes(b, rec::OrderNumber, r.OrderNumber, rec::NoteWidth);
    putBytes(b, rec::Remark, r.Remark, rec::NoteWidth);
    putBytes(b, rec::Reserved2, r.Reserved2, rec::Reserved2Width);
    putLe16(b, rec::Reserved3, uint16_t(r.Reserved3));
    return b;
}

DbRecord DecodeRecord(const QByteArray &b)
{
    DbRecord r;
    r.Used = getI16(b, rec::Used);
    r.ParentRec = getI32(b, rec::ParentRec);
    r.PrevRec = getI32(b, rec::PrevRec);
    r.NextRec = getI32(b, rec::NextRec);
    r.ChildRec = getI32(b, rec::ChildRec);
    r.SelfRec = getI32(b, rec::SelfRec);
    r.ParentKey = getBytes(b, rec::ParentKey, rec::FixedWidth);
    r.NodeKey = getBytes(b, rec::NodeKey, rec::FixedWidth);
    r.Caption = getBytes(b, rec::Caption, rec::CaptionWidth);
    r.Reserved1 = getI16(b, rec::Reserved1);
    r.Expanded = getI16(b, rec::Expanded);
    r.NodeColor = getI32(b, rec::NodeColor);
    r.ParamImage = getBytes(b, rec::ParamImage, rec::ParamImageWidth);
    r.FunctionText = getBytes(b, rec::FunctionText, rec::FunctionTextWidth);
    r.ProgramFile = getBytes(b, rec::ProgramFile, rec::ProgramFileWidth);
    r.ConfigFile = getBytes(b, rec::ConfigFile, rec::NoteWidth);
    r.DisplayFile = getBytes(b, rec::DisplayFile, rec::NoteWidth);
    r.OrderNumber = getBytes(b, rec::OrderNumber, rec::NoteWidth);
    r.Remark = getBytes(b, rec::Remark, rec::NoteWidth);
    r.Reserved2 = getBytes(b, rec::Reserved2, rec::Reserved2Width);
    r.Reserved3 = getI16(b, rec::Reserved3);
    return r;
}

QByteArray PadFixedText(const QString &text)
{
    QByteArray b = toGbk(text).left(rec::FixedWidth);
    b.append(QByteArray(rec::FixedWidth - b.size(), ' '));
    return b;
}

QString ReadFixedText(const QByteArray &field)
{
    QByteArray b = field.left(rec::FixedWidth);
    const int nul = b.indexOf('\0');
    if (nul >= 0)
        b.truncate(nul);
    return fromGbk(b);
}

QString StripPadding(const QString &text)
{
    QString s = text;
    s.remove(QChar(' '));
    s.remove(QChar('\0'));
    return s;
}

bool AuthorLineMatches(const DbRecord &h)
{
    return StripPadding(fromGbk(AuthorLine(h).left(rec::FixedWidth))) == StripPadding(kAuthorLine);
}

void PackField(QByteArray &field, const QString &text, const QString &key, int limit)
{
    if (field.isEmpty())
        return;
    // Every caller names its field's width less 2, so this never cuts; it
    // keeps a wrong limit from writing the terminator past the field.
    limit = std::max(0, std::min<int>(limit, int(field.size()) - 1));
    const QByteArray t = toGbk(text).left(limit);   // may cut a double-byte character
    const QByteArray k = toGbk(key);
    const int s = keySumOf(k);
    int j = 0;
    for (int i = 0; i < t.size(); ++i) {
        uint8_t b = uint8_t(t[i]);
        if (!k.isEmpty()) {
            const uint8_t m = maskAt(k, s, i, j);
            if (b != m)
                b ^= m;
            j = (j + 1) % int(k.size());
        }
        field[i] = char(b);
    }
    field[t.size()] = '\0';
}

QString UnpackField(const QByteArray &field, const QString &key, int limit)
{
    const QByteArray k = toGbk(key);
    const int s = keySumOf(k);
    const int n = std::min<int>(std::max(limit, 0), field.size());
    QByteArray t;
    int j = 0;
    for (int i = 0; i < n && field[i] != '\0'; ++i) {
        uint8_t b = uint8_t(field[i]);
        if (!k.isEmpty()) {
            const uint8_t m = maskAt(k, s, i, j);
            if (b != m)
                b ^= m;
            j = (j + 1) % int(k.size());
        }
        t.append(char(b));
    }
    return fromGbk(t);
}

void PackImage(QByteArray &field, const QByteArray &setImage, int blockSize)
{
    const int n = std::min({blockSize, int(field.size()), int(setImage.size())});
    for (int i = 0; i < n; ++i)
        field[i] = setImage[i];
}

void UnpackImage(const QByteArray &field, QByteArray &setImage, int blockSize)
{
    // The image field holds at most 1026 bytes; a larger block takes what is there.
    blockSize = std::max(0, blockSize);
    if (setImage.size() < blockSize + 1)
        setImage.resize(blockSize + 1, '\0');
    const int n = std::min<int>(blockSize, field.size());
    for (int i = 0; i < n; ++i)
        setImage[i] = field[i];
}

QString NodeKeyText(int32_t recNo)
{
    return (QStringLiteral(" ") + QString::number(recNo) + QStringLiteral("key"))
        .leftJustified(rec::FixedWidth, ' ', true);
}

int32_t KeyToRec(const QString &key)
{
    QString s = key;
    s.remove(QChar(' '));
    const int at = s.indexOf(QLatin1String("key"), 0, Qt::CaseInsensitive);
    if (at < 0)
        return 0;
    // The longest leading number of what stands before "key"; anything else reads as 0.
    const QString head = s.left(at);
    int end = 0;
    if (end < head.size() && (head[end] == '-' || head[end] == '+'))
        ++end;
    while (end < head.size() && head[end].isDigit() && head[end].unicode() < 128)
        ++end;
    if (end < head.size() && head[end] == '.') {
        ++end;
        while (end < head.size() && head[end].isDigit() && head[end].unicode() < 128)
            ++end;
    }
    bool ok = false;
    const double v = head.left(end).toDouble(&ok);
    if (!ok || !std::isfinite(v))
        return 0;
    const double lim = double(std::numeric_limits<int32_t>::max());
    return int32_t(RoundHalfEven(std::clamp(v, -lim, lim)));
}

QString StampText(const QDateTime &when)
{
    // The machine's own short date and long time forms.
    const QLocale sys = QLocale::system();
    return sys.toString(when.date(), QLocale::ShortFormat) + ' ' + sys.toString(when.time(), QLocale::LongFormat);
}

} // namespace pyro
