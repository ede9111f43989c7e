#include "burn.h"
#include "frame.h"
#include "tables.h"

#include <algorithm>

namespace pyro {

namespace {

// Exchange limits in ticks: quiet, reply, send.
struct Limits {
    int16_t quiet, reply, send;
};
constexpr Limits kIdentifyLimits{3, 5, 10};
constexpr Limits kPageLimits{3, 20, 100};   // enter download, erase, write, close

constexpr uint8_t kIdentifyFlag = 0xA7;
constexpr uint8_t kCloseImageFlag = 0xA7;
constexpr uint8_t kClosePageFlag = 0x00;

// Identity answer: status at 2, the 12 bytes at 3, CRC behind them.
constexpr int kStatusAt = 2;
constexpr int kChipIdAt = 3;
constexpr int kIdentityReplyLen = kChipIdAt + kChipIdLen + 2;

void send(Link &l, uint8_t fn, const QByteArray &body, Limits lim)
{
    MBBuildFrame(l, fn, body);
    MBSend(l, lim.quiet, lim.reply, lim.send);
}

uint8_t replyStatus(const Link &l)
{
    return l.MBRxBuf.size() > kStatusAt ? uint8_t(l.MBRxBuf[kStatusAt]) : 0xFF;
}

bool goodAndDone(const Link &l)
{
    return l.MBResult == 0 && replyStatus(l) == 0;
}

// Every answer of states 4, 6, 8 and 10 counts; eleven in a row without a
// good one give up on the chip in hand and poll for an identity again.
void retryCheck(Link &l)
{
    if (++l.TryCount >= kBurnRetryLimit) {
        l.TryCount = 0;
        l.StateWord = 1;
    }
}

void readFrameLen(Link &l, Burn &b)
{
    b.FrameLen = ReadFrameLen(l.view);
}

void resetPages(Burn &b)
{
    b.FlashBase = kFlashBase;
    b.PageNo = kFirstPageNo;
    b.BinDone = 0;
}

void endBurn(Link &l)
{
    l.view.Command4Caption = QStringLiteral("Program");
    ++l.view.Command4Focus;
    l.ModeRequest = 0;
    l.StateWord = 0;
}

// State 2 with a good answer.
void identityAnswer(Link &l, Burn &b)
{
    if (replyStatus(l) != 0) {
        // A short reply carries no whole identity; it is polled again rather
        // than read past its end or padded into a made-up chip.
        if (l.MBRxBuf.size() < kIdentityReplyLen) {
            l.TryCount = 0;
            l.StateWord = 1;
            return;
        }
        for (int i = 0; i < kChipIdLen; ++i)
            b.ChipId[size_t(i)] = uint8_t(l.MBRxBuf[kChipIdAt + i]);
        if (ChipIdDiffers(b)) {
            l.StateWord = 3;
            AddLog(l, QStringLiteral(" Downloading the：%1 (chip)").arg(b.ChipsDone + 1));
        } else {
            l.StateWord = 1;   // the chip finished last is still on the bench
        }
        l.TryCount = 0;
        return;
    }
    // A chip that answers without an identity: the same answer is weighed on
    // each tick, with nothing sent, until it has been seen often enough.
    if (++b.NoIdCount > kNoIdentityPolls) {
        b.NoIdCount = 0;
        l.StateWord = l.BurnBegun == 0 ? 3 : 1;
        l.TryCount = 0;
    }
}

void silentAnswer(Link &l, Burn &b)
{
    l.StateWord = 1;
    if (++l.TryCount >= kSilentPollsToForget) {
        // The chip has left the bench: whatever answers next counts as new.
        l.TryCount = 0;
        b.LastChipId.fill(0);
        ShowProgress(l.view, l.BinPath, 0);
        l.BurnBegun = 0;
    }
}

} // namespace

int16_t ReadFrameLen(const View &v)
{
    // Read like every other number typed into the window; what can't be a
    // chunk length (below 0, past the 16-bit counter) is held at the nearest end.
    const double n = LeadingNumber(v.ComboSet[5].text);
    if (!(n > 0))
        return 0;
    return int16_t(RoundHalfEven(std::min(n, double(kMaxImageLen))));
}

bool ChipIdDiffers(const Burn &b)
{
    return b.ChipId != b.LastChipId;
}

void AttachBurn(Link &l, Burn &b)
{
    l.modeStep[1] = [&l, &b] { BurnStep(l, b); };
    l.onBurnCut = [&l, &b](const QString &result) { ChipLogEnd(l, b, result); };
}

void Command4Click(Link &l, Burn &b)
{
    l.ModeRequest = 0;
    l.view.frontGrid = 0;
    if (l.view.Command4Caption == QLatin1String("Program")) {
        ShowProgress(l.view, l.BinPath, 0);
        if (!l.MBMC || !l.MBMC->isOpen())
            return;
        b.Refusal.clear();
        if (PrepareImage(l, b, l.BinPath, &b.Refusal) == kPrepareOk) {
            l.view.Command4Caption = QStringLiteral("Stop");
            l.BurnArmed = 1;
            l.ModeRequest = 1;
            // A burn still on the line (Stop or Load File clicked during this
            // exchange) must not carry on against the new image.
            l.ModeRearmed = true;
        } else {
            AddLog(l, QStringLiteral(" File open error "));
        }
        return;
    }
    // Stop: the device is told nothing and stays in its loader.
    ChipLogEnd(l, b, QStringLiteral("stopped"));
    l.view.Command4Caption = QStringLiteral("Program");
    ++l.view.Command4Focus;
    l.ModeRequest = 0;
    l.BurnArmed = 0;
    l.BurnBegun = 0;
    ShowProgress(l.view, l.BinPath, 0);
    AddLog(l, QStringLiteral(" Cancel program"));
}

void BurnStep(Link &l, Burn &b)
{
    ChipLogStep(l, b);
    switch (l.StateWord) {
    case 0: // reset
        if (l.BurnArmed == 1)
            l.StateWord = 1;
        b.ChipsDone = 0;
        l.TryCount = 0;
        b.NoIdCount = 0;
        resetPages(b);
        readFrameLen(l, b);
        b.LastChipId.fill(0);
        break;

    case 1: // identify
        send(l, kFnIdentify, QByteArray(1, char(kIdentifyFlag)), kIdentifyLimits);
        l.StateWord = 2;
        break;

    case 2: // identity answer
        if (l.MBStep == 0) {
            if (l.MBResult == 0) {
                identityAnswer(l, b);
            } else if (l.MBResult == 2) {
                silentAnswer(l, b);
            } else {
                l.TryCount = 0;
                l.StateWord = 1;
            }
        }
        // Stop and the other cancels land here while the chips are polled.
        if (l.BurnArmed == 0)
            endBurn(l);
        break;

    case 3: // enter download
        l.BurnBegun = 1;
        resetPages(b);
        readFrameLen(l, b);
        l.view.SB[1] = QStringLiteral("Link normal-download mode");
        send(l, kFnEnterDownload, QByteArray(1, '\0'), kPageLimits);
        l.StateWord = 4;
        break;

    case 4: // download answer
        if (l.MBStep != 0)
            break;
        if (goodAndDone(l)) {
            l.TryCount = 0;
            l.StateWord = 5;
        } else {
            l.StateWord = 3;
        }
        retryCheck(l);
        break;

    case 5: { // erase a page
        // KeepInF leaves the settings pages out; PrepareImage has made sure the
        // image reaches past them, and a box ticked later on a short image is
        // not followed into a jump past its end.
        if (l.view.Check1[1] && b.BinDone == kKeepFrom && b.BinLen >= kKeepTo)
            b.BinDone = kKeepTo;
        b.PageAddr = b.FlashBase + b.BinDone;
        b.PageNo = b.BinDone / kFlashPageSize + kFirstPageNo;
        b.PageFill = 0;
        QByteArray body(1, '\0');
        body += le32(uint32_t(b.PageAddr));
        body += char(uint8_t(b.PageNo));
        send(l, kFnErasePage, body, kPageLimits);
        l.StateWord = 6;
        break;
    }

    case 6: // erase answer
        if (l.MBStep != 0)
            break;
        if (goodAndDone(l)) {
            l.TryCount = 0;
            l.StateWord = 7;
        } else {
            l.StateWord = 5;
        }
        retryCheck(l);
        break;

    case 7: { // write a chunk
        const int left = b.BinLen - b.BinDone - b.PageFill;
        b.ChunkLen = int16_t(std::clamp(std::min(left, int(b.FrameLen)), 0, kMaxImageLen));
        const int from = b.BinDone + b.PageFill;
        QByteArray body(1, '\0');
        body += le16(uint16_t(b.PageFill));
        body += le16(uint16_t(b.ChunkLen));
        // Never past the image, whatever the counters say.
        const QByteArray data = from >= 0 && from <= b.BinLen ? b.BinData.mid(from, b.ChunkLen) : QByteArray();
        body += data.leftJustified(b.ChunkLen, '\0', true);
        send(l, kFnWritePage, body, kPageLimits);
        l.StateWord = 8;
        break;
    }

    case 8: // write answer
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0) {
            l.StateWord = 7;                 // the same chunk again
        } else if (replyStatus(l) != 0) {
            l.StateWord = 5;                 // the page starts over from its erase
        } else {
            l.TryCount = 0;
            b.PageFill = int16_t(b.PageFill + b.ChunkLen);
            if (b.PageFill > kFlashPageSize) {
                l.StateWord = 5;
            } else if (b.BinDone + b.PageFill == b.BinLen || b.PageFill == kFlashPageSize) {
                b.BinDone = int16_t(b.BinDone + b.PageFill);
                ShowProgress(l.view, l.BinPath, float(b.BinDone) / float(b.BinLen));
                l.StateWord = 9;
            } else {
                ShowProgress(l.view, l.BinPath, float(b.BinDone + b.PageFill) / float(b.BinLen));
                l.StateWord = 7;
            }
        }
        retryCheck(l);
        break;

    case 9: { // close the page, or the image with its last page
        const uint8_t flag = b.BinDone == b.BinLen ? kCloseImageFlag : kClosePageFlag;
        // Rounded, not cut: after a partial last page it can go either way.
        b.PageNo = int32_t(RoundHalfEven(double(b.BinDone) / kFlashPageSize + kFirstPageNo));
        QByteArray body(1, char(flag));
        body += le32(uint32_t(b.BinDone));
        body += char(uint8_t(b.PageNo));
        send(l, kFnClosePage, body, kPageLimits);
        l.StateWord = 10;
        break;
    }

    case 10: // close answer
        if (l.MBStep != 0)
            break;
        if (goodAndDone(l)) {
            l.TryCount = 0;
            l.StateWord = b.BinDone != b.BinLen ? 5 : 11;
        } else {
            l.StateWord = 9;
        }
        retryCheck(l);
        break;

    case 11: // chip finished
        ++b.ChipsDone;
        AddLog(l, QStringLiteral(" Has been successfully burning：%1 (chip) %2").arg(b.ChipsDone).arg(l.BinPath));
        if (l.view.Check1[3]) {
            b.LastChipId = b.ChipId;
            AddLog(l, QStringLiteral(" Connecting the next chip..."));
            l.StateWord = 1;
        } else {
            endBurn(l);
            l.BurnArmed = 0;
        }
        break;

    default:
        break;
    }
}

} // namespace pyro
