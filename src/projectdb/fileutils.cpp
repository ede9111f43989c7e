// The two firmware file utilities of the File menu: merging a boot part and a
// main part, and saving the image that Program would burn. Each output goes
// to a temporary file that replaces the old one only when it is complete, so
// a failure leaves nothing half-written.
#include "items.h"

#include "burn.h"
#include "fileguard.h"
#include "link.h"
#include "prompter.h"

namespace pyro {

namespace {

const QString kMergeTitle = QStringLiteral("合并文件");
const QString kSaveProTitle = QStringLiteral("保存程序");
// A merged file must still be burnable: the burn takes at most kMaxImageLen bytes.
constexpr qint64 kMaxMainPart = kMaxImageLen - kMergeSplit;
constexpr int kShortestOutput = 6;

// Reports why nothing was written; 1, the result of such an operation.
int refuse(Link &l, const QString &text)
{
    if (l.prompter)
        l.prompter->message(text, kHintTitle);
    return 1;
}

// Writes bytes to path through a temporary file; false with the reason shown.
bool writeWhole(Link &l, const QString &path, const QByteArray &bytes, const QString &what)
{
    QString why;
    if (WriteFileWhole(path, bytes, &why))
        return true;
    refuse(l, QStringLiteral("%1：无法写入 %2（%3），原文件没有改动。").arg(what, path, why));
    return false;
}

// The first head bytes of a file that passes the guard; a read that comes up
// short of the file's length (it changed meanwhile) is refused.
bool readHead(const QString &path, qint64 head, QByteArray *out, QString *reason)
{
    if (!CheckRegularFile(path, kMaxImageLen, reason))
        return false;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        *reason = QStringLiteral("can't be opened (%1): %2").arg(f.errorString(), path);
        return false;
    }
    const qint64 want = std::min(head, f.size());
    *out = f.read(want);
    if (out->size() != want || f.error() != QFileDevice::NoError) {
        *reason = QStringLiteral("changed or failed while read: %1").arg(path);
        return false;
    }
    return true;
}

} // namespace

int MCompFile(Link &l)
{
    if (!l.prompter)
        return 1;
    const QString boot = l.prompter->openFile(kMergeTitle + QStringLiteral("：引导程序（前 8192 字节）"), kBinFilter, QString());
    if (boot.isEmpty())
        return 1;
    QByteArray merged;
    QString reason;
    // One byte past the boot part is read, as the merge always has: the main
    // part overwrites it, and an empty main part drops it.
    if (!readHead(boot, kMergeSplit + 1, &merged, &reason))
        return refuse(l, QStringLiteral("合并文件：第一个文件不能用（%1）。").arg(reason));
    if (merged.isEmpty())
        return refuse(l, QStringLiteral("合并文件：第一个文件是空的：%1").arg(boot));

    const QString main = l.prompter->openFile(kMergeTitle + QStringLiteral("：主程序（从 0x2000 起）"), kBinFilter, QString());
    if (main.isEmpty())
        return 1;
    QByteArray mainPart;
    if (!ReadWholeFile(main, kMaxMainPart, &mainPart, &reason))
        return refuse(l, QStringLiteral("合并文件：第二个文件不能用（%1）。").arg(reason));
    if (mainPart.isEmpty())
        return refuse(l, QStringLiteral("合并文件：第二个文件是空的：%1").arg(main));

    // Zeros behind a short boot part, then the main part at 0x2000.
    merged.resize(kMergeSplit, '\0');
    merged += mainPart;

    const QString target = l.prompter->saveFile(kMergeTitle, kBinFilter, QString());
    if (target.size() < kShortestOutput)
        return 1;
    if (!writeWhole(l, target, merged, kMergeTitle))
        return 1;
    l.view.SB[2] = QStringLiteral("文件已合并：%1（%2 字节）").arg(target).arg(merged.size());
    return 0;
}

int SavePro(Link &l, const Burn &b)
{
    // A burn of its own: the running burn's BinData and BinLen stay as they are.
    Burn scratch;
    scratch.params = b.params;
    QString reason;
    if (PrepareImage(l, scratch, l.BinPath, &reason) != kPrepareOk) {
        AddLog(l, QStringLiteral("Data error!"));
        if (!reason.isEmpty())
            AddLog(l, reason);
        return 1;
    }
    if (!l.prompter)
        return 1;
    const QString target = l.prompter->saveFile(kSaveProTitle, kBinFilter, QString());
    if (target.isEmpty())
        return 1;
    // The image as long as the file it came from: BinData's extra element
    // is the loader's, never burned.
    const QByteArray image = scratch.BinData.left(scratch.BinLen);
    if (!writeWhole(l, target, image, kSaveProTitle))
        return 1;
    l.view.SB[2] = QStringLiteral("程序已保存：%1（%2 字节）").arg(target).arg(image.size());
    return 0;
}

} // namespace pyro
