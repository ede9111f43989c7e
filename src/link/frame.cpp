#include "frame.h"
#include "crc16.h"

namespace pyro {

QByteArray MBBuildFrame(uint8_t function, const QByteArray &body)
{
    const int n = int(body.size()) + 4;
    QByteArray frame(n, '\0');
    frame[0] = char(kFrameAddress);
    frame[1] = char(function);
    for (int i = 0; i < body.size(); ++i)
        frame[2 + i] = body[i];
    const Crc16 c = CRC16(frame, 0, n - 2);
    frame[n - 2] = char(c.CRCHiByte);
    frame[n - 1] = char(c.CRCLoByte);
    return frame;
}

bool FrameCrcOk(const QByteArray &frame)
{
    const int n = int(frame.size());
    if (n < 2)
        return false;
    const Crc16 c = CRC16(frame, 0, n - 2);
    return uint8_t(frame[n - 2]) == c.CRCHiByte && uint8_t(frame[n - 1]) == c.CRCLoByte;
}

void putLe16(QByteArray &b, int at, uint16_t v)
{
    if (at < 0 || at + 2 > b.size())
        return;
    b[at] = char(v & 0xFF);
    b[at + 1] = char(v >> 8);
}

void putLe32(QByteArray &b, int at, uint32_t v)
{
    if (at < 0 || at + 4 > b.size())
        return;
    for (int i = 0; i < 4; ++i)
        b[at + i] = char((v >> (8 * i)) & 0xFF);
}

uint16_t getLe16(const QByteArray &b, int at)
{
    if (at < 0 || at + 2 > b.size())
        return 0;
    return uint16_t(uint8_t(b[at]) | uint8_t(b[at + 1]) << 8);
}

uint32_t getLe32(const QByteArray &b, int at)
{
    if (at < 0 || at + 4 > b.size())
        return 0;
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = v << 8 | uint8_t(b[at + i]);
    return v;
}

QByteArray le16(uint16_t v)
{
    QByteArray b(2, '\0');
    putLe16(b, 0, v);
    return b;
}

QByteArray le32(uint32_t v)
{
    QByteArray b(4, '\0');
    putLe32(b, 0, v);
    return b;
}

QByteArray toHexLine(const QByteArray &bytes)
{
    return bytes.toHex(' ').toUpper();
}

QByteArray fromHexLine(const QByteArray &text)
{
    QByteArray compact;
    for (char ch : text)
        if (ch != ' ' && ch != '\n' && ch != '\r' && ch != '\t')
            compact.append(ch);
    return QByteArray::fromHex(compact);
}

} // namespace pyro
