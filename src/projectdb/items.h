#pragma once
// What an item of the project tree carries into the window and back: its
// stored settings block and six note texts, the clipboard between items, the
// save button, and the two firmware file utilities of the File menu.
#include "projectdb.h"

#include <QByteArray>
#include <QString>
#include <array>
#include <cstdint>

namespace pyro {

struct Burn;
struct Link;
struct Params;
struct View;

// The seven note boxes NotesTxt(0..6). Box 0 is a scratch box that is blanked
// on every load and never stored; boxes 1..6 are stored in their fields,
// cut to limit bytes of GBK text.
struct NoteBox {
    QString label;      // Label1(i - 1) beside the box; none for box 0
    QString toolTip;    // also the hint of panel 3
    int limit;          // bytes stored; 0 for box 0
    bool multiLine;
};
extern const std::array<NoteBox, 7> kNoteBoxes;

inline const QString kMsgNoObject = QStringLiteral("请选择对象!");
inline const QString kMsgSaveQuestion = QStringLiteral("确认保存新数据到数据库！");
inline const QString kStGotItem = QStringLiteral("成功获取保存数据");
inline const QString kStItemBad = QStringLiteral("保存数据校验无效");
inline const QString kStSaveDeclined = QStringLiteral("放弃数据保存");
inline const QString kStAllSaved = QStringLiteral("全部数据已保存");
inline const QString kStSettingsBad = QStringLiteral("设置数据校验无效");
inline const QString kStNotesSaved = QStringLiteral("备注信息已保存");
// Texts of this implementation where the menu leaves a case unspoken.
inline const QString kStNothingToPaste = QStringLiteral("没有复制的数据可粘贴");
inline const QString kStNothingSaved = QStringLiteral("数据没有保存");
inline const QString kMsgNoDatabase = QStringLiteral("没有打开数据库！");
inline const QString kBinFilter = QStringLiteral("文件(*.BIN)|*.BIN");

// The GBK bytes of text, cut to at most limit bytes at the last whole
// character, so no half character reaches a record.
QByteArray GbkCut(const QString &text, int limit);

// --- the item in the window -----------------------------------------------------

// The record of the tree key (in the file the tree shows) into WorkRecord,
// the settings block into SetImage and the six texts into boxes 1..6; box 0
// is blanked. 0 loaded; 1 when the record can't be read (reported, the boxes
// blanked, SetImage untouched).
int LoadItem(ProjectDb &db, Params &p, View &v, const QString &key);

// SetImage and boxes 1..6 into the record of the tree key. The record is read
// first and written back whole, so its links, keys, title, expanded state and
// colour stay. 0 written; 1 nothing written: no node ("请选择对象!"), no
// database that takes edits, or a record that can't be read or written
// (each reported).
int SaveItem(ProjectDb &db, const Params &p, const View &v, const QString &key);

// A click on a tree node: blanks the stored values of the grid, loads the
// item and shows its settings when they check out. 0 when they do (the
// window gives MSFG(0) the focus); 1 when not, with "保存数据校验无效".
int TreeNodeClick(ProjectDb &db, Params &p, Link &l, const QString &key);

// Mcopydata: SetImage, the spare byte included, into ImageClip; enables
// MPaseteData.
void Mcopydata(ProjectDb &db, const Params &p);
// MPaseteData: ImageClip back into SetImage, once per copy. 0 pasted and
// shown (the window gives MSFG(0) the focus); 1 a bad block (kept in
// SetImage) or nothing to paste.
int MPaseteData(ProjectDb &db, Params &p, Link &l);

// Strip button 4, the save: asks, stamps, stores the selected node, says
// what was stored in panel 2 and disables the button. True when the
// question got a Yes (the strip then hides its highlight).
bool MenuImg4Click(ProjectDb &db, Params &p, Link &l);

// The note boxes' events. The window passes the box's text after a key.
void NotesTxtKeyUp(View &v, int index, const QString &text);
// Box 2 chooses a program file; the other boxes ignore a double click.
void NotesTxtDblClick(Link &l, int index);
void NotesTxtMouseMove(View &v, int index);

// --- firmware file utilities (File menu) -------------------------------------------

// The boot part ends and the main part begins at this offset of a merged file.
constexpr int kMergeSplit = 0x2000;

// "合并文件": the first 8192 bytes of a boot part (zeros behind a shorter
// one) and a whole main part at 8192, into a file chosen last. 0 written;
// 1 cancelled or refused: nothing is written, and the old file of that name
// stays as it was.
int MCompFile(Link &l);

// "保存程序": the firmware of Load File, prepared and stamped as Program
// would burn it, into a file. A refused image gives "Data error!" and its
// reason in the log pane. 0 written; 1 nothing written. The burn's own image
// is not touched, so it may run meanwhile.
int SavePro(Link &l, const Burn &b);

} // namespace pyro
