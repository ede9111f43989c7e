#include "paramops.h"
#include "frame.h"
#include "params.h"

#include <algorithm>

namespace pyro {

namespace {

// Exchange limits of each request, in ticks: quiet, reply, send.
struct Limits {
    int16_t quiet, reply, send;
};
constexpr Limits kEraseLimits{2, 100, 50};
constexpr Limits kReadLimits{3, 100, 50};
constexpr Limits kUpdateLimits{3, 100, 500};
constexpr Limits kSaveLimits{3, 200, 500};

void send(Link &l, uint8_t fn, const QByteArray &body, Limits lim)
{
    MBBuildFrame(l, fn, body);
    MBSend(l, lim.quiet, lim.reply, lim.send);
}

// An operation that ends hands the line back to the monitor.
void finish(Link &l)
{
    l.StateWord = 0;
    l.ModeRequest = 0;
}

void panel2(Link &l, const char16_t *text)
{
    l.view.SB[2] = QString::fromUtf16(text);
}

uint8_t replyByte(const Link &l, int at)
{
    return at >= 0 && at < l.MBRxBuf.size() ? uint8_t(l.MBRxBuf[at]) : 0;
}

// Copies up to count reply bytes from kReplyDataAt on into dest from 0 on.
// Bytes the reply doesn't have, or dest has no room for, stay as they were.
void copyReplyData(const Link &l, QByteArray &dest, int count)
{
    const int n = std::min({count, int(l.MBRxBuf.size()) - kReplyDataAt, int(dest.size())});
    for (int i = 0; i < n; ++i)
        dest[i] = l.MBRxBuf[kReplyDataAt + i];
}

int blockSize(const TableInfo &info)
{
    return std::max<int>(0, info.BlockSize);
}

} // namespace

// --- frames ----------------------------------------------------------------

QByteArray EraseBody()
{
    // A fixed pattern, so that no stray write can erase by chance.
    return QByteArray("\x44\x33\x22\x11", 4);
}

QByteArray ReadSettingsBody(int16_t blockSize)
{
    return le32(kSettingsReadAddr) + le16(uint16_t(blockSize));
}

QByteArray WriteSettingsBody(int16_t blockSize, uint8_t flag, const QByteArray &image)
{
    const int n = std::max<int>(0, blockSize);
    return le32(kSettingsWriteAddr) + le16(uint16_t(blockSize)) + QByteArray(1, char(flag))
        + image.left(n).leftJustified(n, '\0');
}

QByteArray ReadInfoBody()
{
    return le32(kBitInfAddr) + le16(kInfoSize);
}

QByteArray DisplayAddressBody()
{
    return QByteArray(1, '\0');
}

QByteArray ReadDisplayBody(int32_t address, int16_t blockSize)
{
    return le32(uint32_t(address)) + le16(uint16_t(blockSize));
}

// --- the state machines ------------------------------------------------------

void EraseStep(ParamOps &ops)
{
    Link &l = *ops.link;
    switch (l.StateWord) {
    case 0: // ask the device to restore its defaults
        send(l, kFnEraseParams, EraseBody(), kEraseLimits);
        l.StateWord = 1;
        break;
    case 1: // its answer
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0)
            panel2(l, u"Erase data failed!");
        else if (replyByte(l, kReplyStatusAt) != 0)
            panel2(l, u"Erase data failed");
        else
            panel2(l, u"Erase the data successfully");
        finish(l);
        break;
    default:
        l.StateWord = 0;
        break;
    }
}

void ReadSettingsStep(ParamOps &ops)
{
    Link &l = *ops.link;
    Params &p = *ops.params;
    switch (l.StateWord) {
    case 0: // ask for the settings block
        send(l, kFnReadMemory, ReadSettingsBody(p.Tables[0].BlockSize), kReadLimits);
        l.StateWord = 1;
        break;
    case 1: // take it, test it, show it
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0) {
            panel2(l, u"Read the data failure");
        } else {
            // The bytes go in before the test: a bad block stays in SetImage.
            copyReplyData(l, p.SetImage, blockSize(p.Tables[0]));
            ++p.SetImageLoads;
            if (CheckImage(p.SetImage, p.Tables[0]) == 0) {
                panel2(l, u"Successful reading data set");
                DecodeBlock(p.MSFG[0], p.SetImage, p.SetRows, p.Tables[0], l.prompter);
                l.view.MenuImgEnabled[4] = true;
                ++ops.settingsReads;
            } else {
                panel2(l, u"Read the data validation is invalid");
            }
        }
        finish(l);
        break;
    default:
        l.StateWord = 0;
        break;
    }
}

void WriteSettingsStep(ParamOps &ops)
{
    Link &l = *ops.link;
    Params &p = *ops.params;
    const bool save = l.LinkMode == 5;
    switch (l.StateWord) {
    case 0: // stamp the image and send it
        if (StampImage(p.SetImage, p.Tables[0]) != 0) {
            panel2(l, u"Set the data validation is invalid");
            finish(l);
            break;
        }
        send(l, kFnWriteParams,
             WriteSettingsBody(p.Tables[0].BlockSize, save ? kWriteFlagSave : kWriteFlagUpdate, p.SetImage),
             save ? kSaveLimits : kUpdateLimits);
        l.StateWord = 1;
        break;
    case 1: // the device's answer
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0) {
            panel2(l, u"Communication fails");
        } else if (replyByte(l, kReplyStatusAt) != 0) {
            panel2(l, save ? u"Save Settings data failed" : u"Setting the update data failed");
        } else {
            panel2(l, save ? u"Save Settings data successfully" : u"Update the set data successfully");
            ++p.SetImageLoads;
            // Only the cell last edited turns black; other red cells stay red.
            GridModel &g = p.MSFG[0];
            g.setFore(g.currentRow(), g.currentCol(), qRgb(0, 0, 0));
        }
        finish(l);
        break;
    default:
        l.StateWord = 0;
        break;
    }
}

void DeviceInfoStep(ParamOps &ops)
{
    Link &l = *ops.link;
    switch (l.StateWord) {
    case 0: // ask for the information block
        send(l, kFnReadMemory, ReadInfoBody(), kReadLimits);
        l.StateWord = 1;
        break;
    case 1: // take it; a failure says nothing
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0) {
            finish(l);
            break;
        }
        // A short reply leaves the bytes it lacks as they were.
        copyReplyData(l, ops.BitInfBytes, kInfoSize);
        readBitInfRec(ops.BitInfBytes, 0, &ops.BitInf);
        l.view.NotesTxt[5] = ops.BitInf.OrderId;
        ++ops.infoReads;
        // Judged once: while the window is open the word says so, and a tick
        // that comes meanwhile finds nothing to do.
        l.StateWord = 2;
        if (ops.showBitInfForm)
            ops.showBitInfForm(ops);
        finish(l);
        break;
    case 2: // the window is open
        break;
    default:
        l.StateWord = 0;
        break;
    }
}

void WatchStep(ParamOps &ops)
{
    Link &l = *ops.link;
    Params &p = *ops.params;
    switch (l.StateWord) {
    case 0: // where does the device keep its running values?
        ops.DisplayAddr = 0;
        send(l, kFnDisplayAddress, DisplayAddressBody(), kReadLimits);
        l.StateWord = 1;
        break;
    case 1: // an address in RAM, or ask again
        if (l.MBStep != 0)
            break;
        if (l.MBResult == 0) {
            const int32_t addr = int32_t(getLe32(l.MBRxBuf, kReplyAddrAt));
            if (addr > int32_t(kDisplayAddrFloor)) {
                ops.DisplayAddr = addr;
                l.StateWord = 2;
                break;
            }
        }
        l.StateWord = 0;
        break;
    case 2: // read the running values
        send(l, kFnReadMemory, ReadDisplayBody(ops.DisplayAddr, p.Tables[1].BlockSize), kReadLimits);
        l.StateWord = 3;
        break;
    case 3: // show them, and read again
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0) {
            panel2(l, u"Read the data failure");
        } else {
            copyReplyData(l, p.DisplayImage, blockSize(p.Tables[1]));
            panel2(l, u"Successful reading data set");
            DecodeBlock(p.MSFG[1], p.DisplayImage, p.DisplayRows, p.Tables[1], l.prompter);
            ++ops.displayPolls;
            if (ops.onDisplayDecoded)
                ops.onDisplayDecoded(ops);
        }
        l.StateWord = 2;
        break;
    default:
        // The address is known already: a stray word goes back to reading.
        l.StateWord = 2;
        break;
    }
}

void InstallParamOps(Link &link, Params &params, ParamOps &ops)
{
    ops.link = &link;
    ops.params = &params;
    ParamOps *o = &ops;
    link.modeStep[2] = [o] { EraseStep(*o); };
    link.modeStep[3] = [o] { ReadSettingsStep(*o); };
    link.modeStep[4] = [o] { WriteSettingsStep(*o); };
    link.modeStep[5] = [o] { WriteSettingsStep(*o); };
    link.modeStep[6] = [o] { DeviceInfoStep(*o); };
    link.modeStep[7] = [o] { WatchStep(*o); };
}

// --- the image buttons -------------------------------------------------------

void MenuImgClick(ParamOps &ops, int index)
{
    Link &l = *ops.link;
    // A running burn (request 1) is never displaced from here.
    const bool burning = l.ModeRequest == 1;
    switch (index) {
    case 0: // erase settings, restore defaults
        if (!l.MBMC || !l.MBMC->isOpen()) {
            l.view.SB[1] = QStringLiteral("请先打开串口！");
            return;
        }
        if (!l.prompter
            || !l.prompter->question(QStringLiteral("确认擦除设置参数，恢复默认设置吗？"), QStringLiteral("警告")))
            return;
        if (l.ModeRequest == 1)
            return;
        ops.link->view.frontGrid = 0;
        l.ModeRequest = 2;
        break;
    case 1: // read
    case 2: // update
    case 3: // save
        if (burning)
            return;
        ops.link->view.frontGrid = 0;
        l.ModeRequest = uint8_t(index + 2);
        break;
    case 5: // watch running values
        if (burning)
            return;
        ops.link->view.frontGrid = 1;
        l.ModeRequest = 7;
        break;
    case 6: // device information
        if (burning)
            return;
        l.ModeRequest = 6;
        break;
    default:
        break;
    }
}

} // namespace pyro
