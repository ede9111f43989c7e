#pragma once
#include "link.h"
// The information block's record and layout belong to the firmware image;
// the burn library, which links this one, builds it, and every program that
// runs these operations links both.
#include "infoblock.h"

#include <QByteArray>
#include <cstdint>
#include <functional>

namespace pyro {

struct Params;

// Device addresses and fixed bytes of the parameter frames.
constexpr uint32_t kSettingsReadAddr = 0x08002800;    // first settings page in flash
constexpr uint32_t kSettingsWriteAddr = 0x20000110;   // the device's working copy
constexpr uint32_t kBitInfAddr = 0x08002400;          // the information block in flash
constexpr uint32_t kDisplayAddrFloor = 0x20000000;    // an address must lie above it
constexpr uint8_t kWriteFlagUpdate = 0x00;
constexpr uint8_t kWriteFlagSave = 0xAA;
// Read replies carry status, address echo and count before the data.
constexpr int kReplyDataAt = 8;
constexpr int kReplyStatusAt = 2;
constexpr int kReplyAddrAt = 2;

// Where a memory write frame keeps its flag and its data.
constexpr int kWriteFlagAt = 8;
constexpr int kWriteDataAt = 9;

// The device operations of the image buttons (LinkMode 2..7) and what they
// leave behind. Lives beside the Link and the parameter tables; the tick
// steps it through link.modeStep.
struct ParamOps {
    Link *link = nullptr;
    Params *params = nullptr;

    int32_t DisplayAddr = 0;
    QByteArray BitInfBytes = QByteArray(kInfoSize, ' ');   // as last read, raw
    BitInfRec BitInf;


    // Shows BitInfForm for the record just read; the operation ends when it
    // returns. Empty: the operation ends at once (the command line).
    std::function<void(ParamOps &)> showBitInfForm;

    // Called after each good block of running values is decoded into
    // DisplayImage and MSFG(1), for plots; unset, it costs one test a read.
    std::function<void(ParamOps &)> onDisplayDecoded;

    // Counts for the command line and the benchmark.
    qint64 displayPolls = 0;             // running-value blocks decoded
    qint64 settingsReads = 0;            // good settings images decoded
    qint64 infoReads = 0;                // information blocks taken
};

// Hooks the steps of modes 2..7 into link.modeStep.
void InstallParamOps(Link &link, Params &params, ParamOps &ops);

// The state machines, one step per tick.
void EraseStep(ParamOps &ops);           // mode 2
void ReadSettingsStep(ParamOps &ops);    // mode 3
void WriteSettingsStep(ParamOps &ops);   // modes 4 (update) and 5 (save)
void DeviceInfoStep(ParamOps &ops);      // mode 6
void WatchStep(ParamOps &ops);           // mode 7

// Button i of the image strip, for i = 0, 1, 2, 3, 5, 6. Button 4 belongs
// to the project database.
void MenuImgClick(ParamOps &ops, int index);

// The request frames, as the state machines build them (frame = function and
// body; MBBuildFrame adds address and CRC).
QByteArray EraseBody();
QByteArray ReadSettingsBody(int16_t blockSize);
QByteArray WriteSettingsBody(int16_t blockSize, uint8_t flag, const QByteArray &image);
QByteArray ReadInfoBody();
QByteArray DisplayAddressBody();
QByteArray ReadDisplayBody(int32_t address, int16_t blockSize);

} // namespace pyro
