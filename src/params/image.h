#pragma once
#include "tables.h"

#include <QByteArray>
#include <cstdint>

namespace pyro {

// The 32-byte header in front of the settings payload. Bytes 0..19 and
// 24..27 are the device's own and are never read or written here.
enum : int {
    kImageLengthAt = 20,                 // signed 32-bit payload length
    kImageCrcHiAt = 28,                  // CRCHiByte of the payload
    kImageCrcLoAt = 29,                  // CRCLoByte
    kImagePadAt = 30,                    // two bytes, zero when stamped
    kImageHeaderSize = 32,
};

// 0 when the length field holds BlockSize - 32 (at least 1) and the CRC of
// the payload matches offsets 28 and 29; 1 otherwise. Changes nothing.
int16_t CheckImage(const QByteArray &image, const TableInfo &info);

// Writes the payload's CRC to offsets 28, 29 and zeros to 30, 31: 0. With a
// length field that doesn't fit the table, 1 and nothing written.
int16_t StampImage(QByteArray &image, const TableInfo &info);

} // namespace pyro
