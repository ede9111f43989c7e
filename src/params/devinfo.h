#pragma once
#include <QByteArray>
#include <QString>
#include <cstdint>

namespace pyro {

// The 50-byte burn-information block: image offset 1024, flash address
// 0x08002400. Texts are GBK, blank-filled on the right, no terminator.
struct BitInfRec {
    int16_t DeviceId = -1;
    int16_t DeviceId2 = -1;
    QString DateUpdated;                 // 6 bytes: year-2000, month, day
    QString OrderId;                     // 30 bytes
    QString RemarkStamp;                 // 10 bytes
};

constexpr int kBitInfSize = 50;
constexpr uint32_t kBitInfAddr = 0x08002400;
constexpr int kBitInfDeviceIdAt = 0;
constexpr int kBitInfDeviceId2At = 2;
constexpr int kBitInfDateAt = 4;
constexpr int kBitInfDateLen = 6;
constexpr int kBitInfOrderAt = 10;
constexpr int kBitInfOrderLen = 30;
constexpr int kBitInfRemarkAt = 40;
constexpr int kBitInfRemarkLen = 10;

// The record from the kBitInfSize bytes at `at`; bytes past the end of the
// array count as blanks. Texts keep their padding: the service code shows the
// remark with it.
BitInfRec BitInfFromBytes(const QByteArray &bytes, int at = 0);

// The record as its 50 bytes: texts in GBK, cut or blank-filled to width.
QByteArray BitInfToBytes(const BitInfRec &rec);

// Text to GBK bytes of exactly `width`: cut or filled with blanks. A cut
// never leaves half of a two-byte character behind.
QByteArray GbkField(const QString &text, int width);
QString GbkText(const QByteArray &bytes);

} // namespace pyro
