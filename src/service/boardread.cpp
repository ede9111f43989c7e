#include "boardread.h"
#include "frame.h"
#include "image.h"
#include "paramops.h"

namespace pyro {

void InstallBoardRead(Link &link, Params &params, BoardRead &r)
{
    r.link = &link;
    r.params = &params;
    link.modeStep[kBoardReadMode] = [&r] { BoardReadStep(r); };
}

bool RequestBoardRead(BoardRead &r)
{
    Link &l = *r.link;
    if (!l.MBMC || !l.MBMC->isOpen()) {
        r.error = QStringLiteral("the port is closed");
        return false;
    }
    // A burn keeps the line; the image buttons don't displace it either.
    if (l.ModeRequest == 1) {
        r.error = QStringLiteral("a burn has the line");
        return false;
    }
    l.ModeRequest = kBoardReadMode;
    r.pending = true;
    r.error.clear();
    return true;
}

void BoardReadStep(BoardRead &r)
{
    Link &l = *r.link;
    const Params &p = *r.params;
    const int size = qMax<int>(0, p.Tables[0].BlockSize);
    auto finish = [&](const QString &error) {
        r.error = error;
        if (!error.isEmpty())
            r.block.clear();   // nothing stale passes for what the board holds now
        r.pending = false;
        ++r.reads;
        l.StateWord = 0;
        l.ModeRequest = 0;
    };
    switch (l.StateWord) {
    case 0: // ask for the settings block
        MBBuildFrame(l, kFnReadMemory, ReadSettingsBody(p.Tables[0].BlockSize));
        MBSend(l, 3, 100, 50);
        l.StateWord = 1;
        break;
    case 1: { // take it and test it
        if (l.MBStep != 0)
            break;
        if (l.MBResult != 0) {
            finish(QStringLiteral("no good answer from the board"));
            break;
        }
        QByteArray b = l.MBRxBuf.mid(kReplyDataAt, size);
        if (b.size() < size || CheckImage(b, p.Tables[0]) != 0) {
            finish(QStringLiteral("the board's block is not one of this table (its length or CRC is wrong)"));
            break;
        }
        r.block = b;
        finish(QString());
        break;
    }
    default:
        l.StateWord = 0;
        break;
    }
}

} // namespace pyro
