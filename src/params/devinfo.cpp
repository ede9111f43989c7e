#include "devinfo.h"
#include "frame.h"

#include <QStringDecoder>
#include <QStringEncoder>

namespace pyro {

QString GbkText(const QByteArray &bytes)
{
    QStringDecoder gbk("GBK");
    if (!gbk.isValid())
        return QString::fromLatin1(bytes);
    return gbk.decode(bytes);
}

QByteArray GbkField(const QString &text, int width)
{
    QStringEncoder gbk("GBK");
    QByteArray out;
    // Character by character, so a cut falls between characters.
    for (const QChar c : text) {
        const QByteArray one = gbk.isValid() ? QByteArray(gbk.encode(QString(c))) : QByteArray(1, char(c.toLatin1()));
        if (out.size() + one.size() > width)
            break;
        out += one;
    }
    return out.leftJustified(width, ' ');
}

BitInfRec BitInfFromBytes(const QByteArray &bytes, int at)
{
    QByteArray raw(kBitInfSize, ' ');
    for (int i = 0; i < kBitInfSize; ++i) {
        if (at + i >= 0 && at + i < bytes.size())
            raw[i] = bytes[at + i];
    }
    BitInfRec rec;
    rec.DeviceId = int16_t(getLe16(raw, kBitInfDeviceIdAt));
    rec.DeviceId2 = int16_t(getLe16(raw, kBitInfDeviceId2At));
    rec.DateUpdated = GbkText(raw.mid(kBitInfDateAt, kBitInfDateLen));
    rec.OrderId = GbkText(raw.mid(kBitInfOrderAt, kBitInfOrderLen));
    rec.RemarkStamp = GbkText(raw.mid(kBitInfRemarkAt, kBitInfRemarkLen));
    return rec;
}

QByteArray BitInfToBytes(const BitInfRec &rec)
{
    QByteArray raw(kBitInfSize, ' ');
    putLe16(raw, kBitInfDeviceIdAt, uint16_t(rec.DeviceId));
    putLe16(raw, kBitInfDeviceId2At, uint16_t(rec.DeviceId2));
    raw.replace(kBitInfDateAt, kBitInfDateLen, GbkField(rec.DateUpdated, kBitInfDateLen));
    raw.replace(kBitInfOrderAt, kBitInfOrderLen, GbkField(rec.OrderId, kBitInfOrderLen));
    raw.replace(kBitInfRemarkAt, kBitInfRemarkLen, GbkField(rec.RemarkStamp, kBitInfRemarkLen));
    return raw;
}

} // namespace pyro
