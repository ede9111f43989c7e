#include "image.h"
#include "crc16.h"
#include "frame.h"

namespace pyro {

// The payload length from the header when it fits the table and the array
// actually holds that many bytes; -1 otherwise. An array cut short is bad
// rather than checked over the bytes it happens to have.
static qint64 payloadLength(const QByteArray &image, const TableInfo &info)
{
    if (image.size() < kImageHeaderSize)
        return -1;
    const qint64 l = qint32(getLe32(image, kImageLengthAt));
    if (l != qint64(info.BlockSize) - kImageHeaderSize || l < 1)
        return -1;
    if (image.size() < kImageHeaderSize + l)
        return -1;
    return l;
}

int16_t CheckImage(const QByteArray &image, const TableInfo &info)
{
    const qint64 l = payloadLength(image, info);
    if (l < 0)
        return 1;
    const Crc16 crc = CRC16(image, kImageHeaderSize, int(l));
    return uint8_t(image[kImageCrcHiAt]) == crc.CRCHiByte && uint8_t(image[kImageCrcLoAt]) == crc.CRCLoByte ? 0 : 1;
}

int16_t StampImage(QByteArray &image, const TableInfo &info)
{
    const qint64 l = payloadLength(image, info);
    if (l < 0)
        return 1;
    const Crc16 crc = CRC16(image, kImageHeaderSize, int(l));
    image[kImageCrcHiAt] = char(crc.CRCHiByte);
    image[kImageCrcLoAt] = char(crc.CRCLoByte);
    image[kImagePadAt] = 0;
    image[kImagePadAt + 1] = 0;
    return 0;
}

} // namespace pyro
