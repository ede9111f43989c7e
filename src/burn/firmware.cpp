#include "burn.h"
#include "fileguard.h"
#include "infoblock.h"
#include "params.h"

#include <QFileInfo>
#include <limits>

namespace pyro {

namespace {

const QString kRemark = QStringLiteral("K700操作员");
constexpr int kOrderChars = 30;
constexpr int kShortestPath = 6;
constexpr int kSettingsCopyAt[] = {2048, 3072};

QString startFolder(const QString &notes)
{
    // The dialog starts beside the file NotesTxt(2) names, if it names one.
    if (notes.isEmpty() || !QFileInfo(notes).isFile())
        return {};
    const int cut = int(std::max(notes.lastIndexOf(QLatin1Char('\\')), notes.lastIndexOf(QLatin1Char('/'))));
    return cut > 0 ? notes.left(cut) : QString();
}

// A running burn ends without a cancel line; BurnBegun stays. The chip in
// hand gets its record line all the same.
void endBurnForLoad(Link &l, Burn &b)
{
    ChipLogEnd(l, b, QStringLiteral("cut short"));
    l.view.Command4Caption = QStringLiteral("Program");
    l.ModeRequest = 0;
    l.BurnArmed = 0;
}

int16_t refuse(int16_t result, QString *reason, const QString &why)
{
    if (reason)
        *reason = why;
    return result;
}

} // namespace

void Command3Click(Link &l, Burn &b)
{
    l.view.Command3Enabled = false;
    const QString start = startFolder(l.view.NotesTxt[2]);
    const QString name = l.prompter
        ? l.prompter->openFile(QStringLiteral("Open"), QStringLiteral("File(*.BIN)|*.BIN"), start)
        : QString();
    ChooseFile(l, b, name);
}

void ChooseFile(Link &l, Burn &b, const QString &name)
{
    l.view.Command3Enabled = false;
    if (name.size() < kShortestPath) {
        // A cancelled dialog forgets the file chosen before.
        l.BinPath.clear();
        b.BinLen = 0;
        l.view.Command4Enabled = false;
    } else {
        // Only a look: a FIFO or a device chosen here must not block the click.
        if (!CheckRegularFile(name, std::numeric_limits<qint64>::max())) {
            // The path and Program stay as they were, but a running burn ends
            // as after any Load File click: left running on a length of 0 it
            // would close each new chip's image after one blank page.
            l.view.Command3Enabled = true;
            b.BinLen = 0;
            endBurnForLoad(l, b);
            return;
        }
        b.BinLen = int32_t(std::min<qint64>(QFileInfo(name).size(), INT32_MAX));
        l.BinPath = name;
        AddLog(l, QStringLiteral(" File path：") + name);
        AddLog(l, QStringLiteral(" File size：") + QString::number(b.BinLen) + QStringLiteral("(Byte)"));
        l.view.Command4Enabled = true;
    }
    ShowProgress(l.view, l.BinPath, 0);
    endBurnForLoad(l, b);
}

int16_t PrepareImage(Link &l, Burn &b, const QString &path, QString *reason)
{
    if (path.size() < kShortestPath || !QFileInfo::exists(path))
        return refuse(kPrepareNoFile, reason, QStringLiteral(" No such file：") + path);
    QString why;
    if (!CheckRegularFile(path, std::numeric_limits<qint64>::max(), &why))
        return refuse(kPrepareNoFile, reason, QStringLiteral(" Cannot read：") + why);
    const qint64 size = QFileInfo(path).size();
    b.BinLen = int32_t(std::min<qint64>(size, INT32_MAX));
    b.BinData.clear();
    // The burn's counters are 16-bit: a longer image is never read, let alone sent.
    if (size > kMaxImageLen)
        return refuse(kPrepareTooLong, reason,
                      QStringLiteral(" Image too long：%1(Byte), at most %2(Byte)").arg(size).arg(kMaxImageLen));
    QByteArray data;
    if (!ReadWholeFile(path, kMaxImageLen, &data, &why) || data.size() != size)
        return refuse(kPrepareNoFile, reason, QStringLiteral(" Cannot read：") + (why.isEmpty() ? path : why));
    // One element more than the file, as the loader's buffer has; never burned.
    b.BinData = data + QByteArray(1, '\0');

    BitInfRec rec;
    if (!readBitInfRec(data, kInfoOffset, &rec))
        return refuse(kPrepareNotBlank, reason,
                      QStringLiteral(" Image too short：%1(Byte), the information block needs %2(Byte)")
                          .arg(size).arg(kInfoOffset + kInfoSize));
    if (rec.DeviceId != -1)
        return refuse(kPrepareNotBlank, reason,
                      QStringLiteral(" Information block not blank：Device ID %1").arg(rec.DeviceId));
    // KeepInF jumps from offset 2048 to 4096; a shorter image would end inside the jump.
    if (l.view.Check1[1] && b.BinLen < kKeepTo)
        return refuse(kPrepareKeepTooShort, reason,
                      QStringLiteral(" KeepInF needs an image of at least %1(Byte)").arg(kKeepTo));

    if (l.view.Check1[2]) {
        if (!b.params || StampImage(b.params->SetImage, b.params->Tables[0]) > 0)
            return refuse(kPrepareSettingsBad, reason, QStringLiteral(" Settings block refused"));
        const int n = b.params->Tables[0].BlockSize;
        if (n <= 0 || n > kFlashPageSize || n > b.params->SetImage.size()
            || kSettingsCopyAt[1] + n > b.BinLen)
            return refuse(kPrepareSettingsBad, reason, QStringLiteral(" Settings block does not fit the image"));
        const QByteArray block = b.params->SetImage.left(n);
        for (int at : kSettingsCopyAt)
            b.BinData.replace(at, n, block);
    }

    rec.DeviceId = -1;
    rec.DeviceId2 = -1;
    rec.DateUpdated = dateUpdatedText(l.now().date());
    rec.OrderId = l.view.NotesTxt[5].left(kOrderChars).leftJustified(kOrderChars, QLatin1Char(' '));
    rec.RemarkStamp = kRemark;
    b.BinData.replace(kInfoOffset, kInfoSize, writeBitInfRec(rec));
    return kPrepareOk;
}

} // namespace pyro
