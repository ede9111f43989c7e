#pragma once
#include <QByteArray>
#include <cstdint>

namespace pyro {

// The CRC routine leaves its result in two bytes; callers read them at once.
struct Crc16 {
    uint8_t CRCHiByte = 0xFF;
    uint8_t CRCLoByte = 0xFF;
    uint16_t value() const { return uint16_t(CRCHiByte << 8 | CRCLoByte); }
};

// CRC-16/MODBUS (reflected 0xA001, init 0xFFFF) over buffer[start .. start+length-1],
// by the two published byte tables. A range that runs past the buffer is cut at its end.
Crc16 CRC16(const uint8_t *buffer, int size, int start, int length);
Crc16 CRC16(const QByteArray &buffer, int start, int length);

} // namespace pyro
