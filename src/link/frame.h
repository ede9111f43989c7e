#pragma once
#include <QByteArray>
#include <cstdint>

namespace pyro {

constexpr uint8_t kFrameAddress = 0x01;

// Function codes of the board's own protocol.
enum : uint8_t {
    kFnEnterDownload = 0x03,
    kFnErasePage = 0x05,
    kFnWritePage = 0x07,
    kFnClosePage = 0x09,
    kFnLinkPoll = 0xF0,
    kFnIdentify = 0xF1,
    kFnReadMemory = 0xF4,
    kFnWriteParams = 0xF5,
    kFnEraseParams = 0xFE,
    kFnDisplayAddress = 0xFF,
};

// Address, function, body, then the CRC high byte first (the published Modbus
// order is low byte first; this board swaps it).
QByteArray MBBuildFrame(uint8_t function, const QByteArray &body);

// True when the last two bytes hold the CRC of the rest, high byte first.
bool FrameCrcOk(const QByteArray &frame);

// Little-endian helpers for frames, images and records. Reads outside the
// array give 0; writes outside it are dropped.
void putLe16(QByteArray &b, int at, uint16_t v);
void putLe32(QByteArray &b, int at, uint32_t v);
uint16_t getLe16(const QByteArray &b, int at);
uint32_t getLe32(const QByteArray &b, int at);
QByteArray le16(uint16_t v);
QByteArray le32(uint32_t v);

// "01 F0 00 00 64" for logs, transcripts and test messages.
QByteArray toHexLine(const QByteArray &bytes);
QByteArray fromHexLine(const QByteArray &text);

} // namespace pyro
