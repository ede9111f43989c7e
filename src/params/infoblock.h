#pragma once
#include "gbk.h"

#include <QByteArray>
#include <QDate>
#include <QString>
#include <cstdint>

namespace pyro {

// The 50-byte burn-information block at image offset 1024 (flash 0x08002400).
// Texts are GBK, filled with blanks on the right, without a terminator.
constexpr int kInfoOffset = 1024;
constexpr int kInfoSize = 50;

struct BitInfRec {
    int16_t DeviceId = -1;      // -1 in a blank or stamped image
    int16_t DeviceId2 = -1;
    QString DateUpdated;        // "261119", "2615  "
    QString OrderId;
    QString RemarkStamp;
};

// Reads the block at 'at' of bytes; false if the bytes don't reach its end.
bool readBitInfRec(const QByteArray &bytes, int at, BitInfRec *rec);
// The block as 50 bytes: each text cut or filled with blanks to its width.
QByteArray writeBitInfRec(const BitInfRec &rec);

// Year less 2000, month, day, without leading zeros or separators.
QString dateUpdatedText(const QDate &day);

} // namespace pyro
