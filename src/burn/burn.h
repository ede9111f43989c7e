#pragma once
#include "chiplog.h"
#include "link.h"

#include <QByteArray>
#include <QString>
#include <array>
#include <cstdint>

namespace pyro {

struct Params;

// The target's flash as the burn addresses it: image offset 0 is page 8.
constexpr int32_t kFlashBase = 0x08002000;
constexpr int kFlashPageSize = 1024;
constexpr int kFirstPageNo = 8;
// The two pages of the settings block, left out by KeepInF.
constexpr int kKeepFrom = 2048;
constexpr int kKeepTo = 4096;
// BinDone, PageFill and ChunkLen are 16-bit: no image may be longer.
constexpr int kMaxImageLen = 32767;
constexpr int kChipIdLen = 12;

// Retry limits of the answer states.
constexpr int kBurnRetryLimit = 11;
constexpr int kSilentPollsToForget = 5;
constexpr int kNoIdentityPolls = 5;

// Results of PrepareImage. Callers treat every non-zero result alike; the
// last three say why the image can't be burned, and each has its own log line.
enum : int16_t {
    kPrepareOk = 0,
    kPrepareNotBlank = 1,       // DeviceId is not -1, or the file has no block at all
    kPrepareSettingsBad = 2,    // StampImage refused SetImage (CurrSet)
    kPrepareNoFile = 3,         // no such file, or a path of 5 characters or fewer
    kPrepareTooLong = 4,        // more than kMaxImageLen bytes
    kPrepareKeepTooShort = 5,   // KeepInF set, image shorter than kKeepTo bytes
};

using ChipIdent = std::array<uint8_t, kChipIdLen>;

// The burn's own state; the words it shares with the tick live in Link.
struct Burn {
    QByteArray BinData;          // the file and its stamped block, one zero byte more
    int32_t BinLen = 0;

    int16_t NoIdCount = 0;
    int32_t ChipsDone = 0;
    int32_t FlashBase = kFlashBase;
    int32_t PageAddr = kFlashBase;
    int32_t PageNo = kFirstPageNo;
    int16_t BinDone = 0;
    int16_t PageFill = 0;
    int16_t ChunkLen = 0;
    int16_t FrameLen = 0;
    ChipIdent ChipId{};
    ChipIdent LastChipId{};

    // Why the last click on Program refused its image. The log pane gets only
    // " File open error "; the window and the command line show this.
    QString Refusal;

    // The parameter engine, whose SetImage CurrSet puts into the image.
    // Null: CurrSet refuses the image.
    Params *params = nullptr;

    ChipLog chipLog;
};

// --- the firmware image ----------------------------------------------------

// Command3, "Load File": the file dialog through the prompter.
void Command3Click(Link &l, Burn &b);
// The part of Command3 after the dialog: takes the chosen name (empty or
// shorter than 6 characters for a cancel).
void ChooseFile(Link &l, Burn &b, const QString &name);
// Reads the file into BinData and stamps its information block.
// reason, when given, receives a log message that says why a non-zero
// result refused the image.
int16_t PrepareImage(Link &l, Burn &b, const QString &path, QString *reason = nullptr);

// --- the burn state machine ------------------------------------------------

// Makes BurnStep the state machine of LinkMode 1. Both must outlive the link's use.
void AttachBurn(Link &l, Burn &b);
void BurnStep(Link &l, Burn &b);
// Command4: Program, or Stop while a burn runs.
void Command4Click(Link &l, Burn &b);

// The number at the start of ComboSet(5), 0 if there is none.
int16_t ReadFrameLen(const View &v);
bool ChipIdDiffers(const Burn &b);

// --- burn records ----------------------------------------------------------

// D:\ProRecord(K0) on Windows, $HOME/ProRecord(K0) elsewhere.
QString RecordFolder();
// "2026.1.5(K0).Txt"
QString RecordFileName(const QDate &day);
// Appends the separator line and the log text to the file of the day in
// folder. Every failing step is skipped; false if nothing could be written.
bool AppendBurnRecord(const QString &folder, const QDateTime &now, const QString &logText);
// At the window's close: the whole log pane into the default folder.
bool WriteBurnRecord(const Link &l);

} // namespace pyro
