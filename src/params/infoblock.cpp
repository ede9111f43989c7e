#include "infoblock.h"
#include "frame.h"

#include <QStringDecoder>
#include <QStringEncoder>

namespace pyro {

namespace {

// Offsets and widths inside the block.
constexpr int kDeviceIdAt = 0;
constexpr int kDeviceId2At = 2;
constexpr int kDateAt = 4;
constexpr int kDateWidth = 6;
constexpr int kOrderAt = 10;
constexpr int kOrderWidth = 30;
constexpr int kRemarkAt = 40;
constexpr int kRemarkWidth = 10;

// A text field of 'width' bytes: at most 'width' characters, then cut to
// whole characters that fit, then blanks. A double-byte character that would
// straddle the end is left out rather than split.
QByteArray gbkField(const QString &text, int width)
{
    QString t = text.left(width);
    QByteArray bytes = toGbk(t);
    while (bytes.size() > width && !t.isEmpty()) {
        t.chop(1);
        bytes = toGbk(t);
    }
    return bytes.leftJustified(width, ' ', true);
}

} // namespace

bool readBitInfRec(const QByteArray &bytes, int at, BitInfRec *rec)
{
    if (at < 0 || qint64(at) + kInfoSize > bytes.size())
        return false;
    const QByteArray blk = bytes.mid(at, kInfoSize);
    rec->DeviceId = int16_t(getLe16(blk, kDeviceIdAt));
    rec->DeviceId2 = int16_t(getLe16(blk, kDeviceId2At));
    rec->DateUpdated = fromGbk(blk.mid(kDateAt, kDateWidth));
    rec->OrderId = fromGbk(blk.mid(kOrderAt, kOrderWidth));
    rec->RemarkStamp = fromGbk(blk.mid(kRemarkAt, kRemarkWidth));
    return true;
}

QByteArray writeBitInfRec(const BitInfRec &rec)
{
    QByteArray blk(kInfoSize, ' ');
    putLe16(blk, kDeviceIdAt, uint16_t(rec.DeviceId));
    putLe16(blk, kDeviceId2At, uint16_t(rec.DeviceId2));
    blk.replace(kDateAt, kDateWidth, gbkField(rec.DateUpdated, kDateWidth));
    blk.replace(kOrderAt, kOrderWidth, gbkField(rec.OrderId, kOrderWidth));
    blk.replace(kRemarkAt, kRemarkWidth, gbkField(rec.RemarkStamp, kRemarkWidth));
    return blk;
}

QString dateUpdatedText(const QDate &day)
{
    return QString::number(day.year() - 2000) + QString::number(day.month())
        + QString::number(day.day());
}

} // namespace pyro
