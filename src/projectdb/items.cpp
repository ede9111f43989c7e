// An item's stored settings and notes, in and out of the window, and the
// clipboard between items. The boxes and SetImage are a working copy: only
// SaveItem writes the record.
#include "items.h"
#include "dbinternal.h"

#include "link.h"
#include "params.h"
#include "prompter.h"

#include <algorithm>

namespace pyro {

const std::array<NoteBox, 7> kNoteBoxes{{
    {QString(), QString(), 0, true},
    {QStringLiteral("         程  序  功  能  描  述 "), QStringLiteral("最多512个字"), kFunctionLimit, true},
    {QStringLiteral("程序文件:"), QStringLiteral("双击选择目标文件"), kProgramLimit, false},
    {QStringLiteral("配置文件:"), QStringLiteral("保留"), kNoteLimit, false},
    {QStringLiteral("显示文件:"), QStringLiteral("保留"), kNoteLimit, false},
    {QStringLiteral("订单编号:"), QString(), kNoteLimit, false},
    {QStringLiteral("备注信息:"), QStringLiteral("最多5个字"), kNoteLimit, false},
}};

namespace {

// The record fields of boxes 1..6, in the order they are read and written.
std::array<QByteArray *, 7> noteFields(DbRecord &r)
{
    return {nullptr, &r.FunctionText, &r.ProgramFile, &r.ConfigFile, &r.DisplayFile, &r.OrderNumber, &r.Remark};
}

int blockSize(const Params &p)
{
    return std::max<int>(0, p.Tables[0].BlockSize);
}

// A good block hands the line back to the monitor, as a read from the device
// does; a running burn is left alone, as the strip buttons leave it.
void releaseLine(Link &l)
{
    if (l.ModeRequest != 1)
        l.ModeRequest = 0;
}

// The settings just taken into SetImage, checked and shown.
int showStoredSettings(ProjectDb &db, Params &p, Link &l)
{
    if (CheckImage(p.SetImage, p.Tables[0]) >= 1) {
        l.view.SB[2] = kStItemBad;
        return 1;
    }
    l.view.SB[2] = kStGotItem;
    DecodeBlock(p.MSFG[0], p.SetImage, p.SetRows, p.Tables[0], db.prompter);
    releaseLine(l);
    return 0;
}

} // namespace

QByteArray GbkCut(const QString &text, int limit)
{
    QByteArray b = toGbk(text);
    if (b.size() <= limit)
        return b;
    // A GBK lead byte (0x81..0xFE) starts a two-byte character.
    int end = 0;
    while (end < b.size()) {
        const uint8_t c = uint8_t(b[end]);
        const int step = c >= 0x81 && c <= 0xFE ? 2 : 1;
        if (end + step > limit)
            break;
        end += step;
    }
    b.truncate(end);
    return b;
}

int LoadItem(ProjectDb &db, Params &p, View &v, const QString &key)
{
    for (QString &t : v.NotesTxt)
        t.clear();
    if (db.TreePath.isEmpty()) {
        Report(db, kMsgNoDatabase);
        return 1;
    }
    DbFile f;
    if (!OpenDbFile(f, db.TreePath, DbMode::Read)) {
        Report(db, kMsgIoFailed + f.error);
        return 1;
    }
    const bool got = GetItem(f, KeyToRec(key), db.WorkRecord);
    CloseDbFile(f);
    if (!got) {
        Report(db, kMsgOpStopped + f.error);
        return 1;
    }
    UnpackImage(db.WorkRecord.ParamImage, p.SetImage, blockSize(p));
    const auto fields = noteFields(db.WorkRecord);
    for (int i = 1; i < int(fields.size()); ++i)
        v.NotesTxt[i] = UnpackField(*fields[i], db.LoginKey, kNoteBoxes[i].limit);
    return 0;
}

int SaveItem(ProjectDb &db, const Params &p, const View &v, const QString &key)
{
    if (key.isEmpty() || !FindNode(db.tree, key)) {
        Report(db, kMsgNoObject);
        return 1;
    }
    // Only the database that opened soundly takes edits: a refused or damaged
    // file on screen is never written.
    if (!TreeEditable(db)) {
        Report(db, kMsgNoDatabase);
        return 1;
    }
    DbFile f;
    if (!OpenDbFile(f, db.CurrentPath, DbMode::ReadWrite)) {
        Report(db, kMsgIoFailed + f.error);
        return 1;
    }
    // A cut-off file is damaged: it is left as it is, not written into.
    if (!WholeRecords(f)) {
        Report(db, kMsgOpStopped + QStringLiteral("文件长度 %1 不是 %2 的整数倍").arg(f.length).arg(kRecordSize));
        CloseDbFile(f);
        return 1;
    }
    const int32_t r = KeyToRec(key);
    if (!GetItem(f, r, db.WorkRecord)) {
        Report(db, kMsgOpStopped + f.error);
        CloseDbFile(f);
        return 1;
    }
    PackImage(db.WorkRecord.ParamImage, p.SetImage, blockSize(p));
    const auto fields = noteFields(db.WorkRecord);
    for (int i = 1; i < int(fields.size()); ++i) {
        const int limit = kNoteBoxes[i].limit;
        PackField(*fields[i], fromGbk(GbkCut(v.NotesTxt[i], limit)), db.LoginKey, limit);
    }
    const bool written = PutRec(f, r, db.WorkRecord);
    if (!written)
        Report(db, kMsgWriteBroken + f.error);
    CloseDbFile(f);
    return written ? 0 : 1;
}

int TreeNodeClick(ProjectDb &db, Params &p, Link &l, const QString &key)
{
    db.tree.Selected = key;
    const int n = std::min<int>(blockSize(p), p.SetImage.size());
    for (int i = 0; i < n; ++i)
        p.SetImage[i] = char(0xFF);
    GridModel &grid = p.MSFG[0];
    for (int row = 1; row < grid.rows(); ++row) {
        grid.setFore(row, kValueCol, qRgb(0, 0, 0));
        grid.setText(row, kValueCol, QString());
    }
    LoadItem(db, p, l.view, key);
    ++p.SetImageLoads;
    return showStoredSettings(db, p, l);
}

void Mcopydata(ProjectDb &db, const Params &p)
{
    db.ImageClip = p.SetImage.left(blockSize(p) + 1);
    db.ImageClip.resize(blockSize(p) + 1, '\0');
    db.Medite.MPaseteData.enabled = true;
}

int MPaseteData(ProjectDb &db, Params &p, Link &l)
{
    if (!db.Medite.MPaseteData.enabled || db.ImageClip.isEmpty()) {
        l.view.SB[2] = kStNothingToPaste;
        return 1;
    }
    const int n = std::min<int>(db.ImageClip.size(), p.SetImage.size());
    for (int i = 0; i < n; ++i)
        p.SetImage[i] = db.ImageClip[i];
    ++p.SetImageLoads;
    db.Medite.MPaseteData.enabled = false;   // one copy, one paste
    if (showStoredSettings(db, p, l) != 0)
        return 1;
    l.view.MenuImgEnabled[4] = true;
    return 0;
}

bool MenuImg4Click(ProjectDb &db, Params &p, Link &l)
{
    // A disabled image gets no mouse event: nothing to save.
    if (!l.view.MenuImgEnabled[4])
        return false;
    const bool yes = db.prompter && db.prompter->question(kMsgSaveQuestion, kHintTitle);
    if (!yes) {
        l.view.SB[2] = kStSaveDeclined;
    } else {
        const int16_t stamped = StampImage(p.SetImage, p.Tables[0]);
        ++p.SetImageLoads;
        if (SaveItem(db, p, l.view, db.tree.Selected) != 0) {
            l.view.SB[2] = kStNothingSaved;
        } else if (stamped < 1) {
            l.view.SB[2] = kStAllSaved;
        } else {
            // The item is written all the same; the second text is the one that stands.
            l.view.SB[2] = kStSettingsBad;
            l.view.SB[2] = kStNotesSaved;
        }
    }
    l.view.MenuImgEnabled[4] = false;
    return yes;
}

void NotesTxtKeyUp(View &v, int index, const QString &text)
{
    if (index < 0 || index >= int(v.NotesTxt.size()))
        return;
    v.NotesTxt[index] = text;
    v.MenuImgEnabled[4] = true;
}

void NotesTxtDblClick(Link &l, int index)
{
    if (index != 2 || !l.prompter)
        return;
    const QString name = l.prompter->openFile(QStringLiteral("Open"), kBinFilter, QString());
    if (name.isEmpty())
        return;
    l.view.NotesTxt[2] = name;
    l.view.MenuImgEnabled[4] = true;
}

void NotesTxtMouseMove(View &v, int index)
{
    if (index >= 0 && index < int(kNoteBoxes.size()))
        MouseHint(v, kNoteBoxes[index].toolTip);
}

} // namespace pyro
