#pragma once
#include "dbfile.h"
#include "dbrecord.h"
#include "dbtree.h"

#include <QDateTime>
#include <QStringList>
#include <functional>

namespace pyro {

class Prompter;
struct View;
struct Link;

inline const QString kHintTitle = QStringLiteral("提示");
inline const QString kMsgOverwrite = QStringLiteral("文件已存在，确定覆盖原文件吗？");
inline const QString kMsgTypeMismatch = QStringLiteral("文件类型不匹配！");
inline const QString kMsgEmptyDb = QStringLiteral("空文件，无数据记录！");
inline const QString kMsgNoNode = QStringLiteral("没有选择节点！");
inline const QString kNewCaption = QStringLiteral("单击修改标题");
inline const QString kTreeToolTip = QStringLiteral("右键选择功能操作");
// Messages of this implementation for what the format leaves unreported.
inline const QString kMsgDamaged = QStringLiteral("数据库文件已损坏，只显示了完好的部分：");
inline const QString kMsgIoFailed = QStringLiteral("数据库文件读写失败：");
inline const QString kMsgOpStopped = QStringLiteral("数据库操作没有执行：");
inline const QString kMsgWriteBroken = QStringLiteral("数据库写入中断，文件可能只改了一半：");
inline const QString kMsgWriteUndone = QStringLiteral("数据库写入失败，操作没有执行，文件保持原样：");
inline const QString kMsgTooDeep = QStringLiteral("节点层数不能超过 %1 层，操作没有执行！");
inline const QString kMsgMoveIntoSelf = QStringLiteral("不能把节点移到它自己或它的子节点前面！");

struct MenuItemState {
    bool enabled = true;
    bool visible = true;
};

// The popup Medite as plain state; the window shows what stands here.
struct MediteMenu {
    MenuItemState MAddRecord, Maddsub, Minsertback, Mdelect;
    MenuItemState Mcopydata;
    MenuItemState MPaseteData{false, true};
    MenuItemState MNodeCut;
    MenuItemState MnodePast{false, true};
    MenuItemState MDeleData{true, false};
};

// The open project database: the three record buffers, the tree and the
// words of opening. Nothing of the file is kept here beyond them.
struct ProjectDb {
    QString DbPath;          // set at the start of every open, refused ones too
    bool DbOpen = false;
    QString LoginUser;
    QString LoginKey;
    bool LoginPassed = false;

    DbRecord HeaderRecord;
    DbRecord WorkRecord;
    DbRecord CutRecord;

    // The database that edits go to: the last one that opened soundly. A
    // refused or damaged file never becomes it, so it is never written.
    QString CurrentPath;
    // The file the tree shows. Edits run only while it is CurrentPath.
    QString TreePath;

    DbTree tree;
    MediteMenu Medite;
    bool TreeBusy = false;
    // Record number of the node marked by MNodeCut; -1 = none. A move keeps
    // the record number, so it stays a valid reference across edits.
    int32_t CutIndex = -1;
    // A full disk and power cuts, for tests; nothing in the program sets them.
    DbFaults faults;
    // The clipboard of Mcopydata and MPaseteData, for the run of the program;
    // not the system's clipboard.
    QByteArray ImageClip;

    Prompter *prompter = nullptr;
    View *view = nullptr;
    std::function<QDateTime()> now = [] { return QDateTime::currentDateTime(); };
};

// Takes the prompter, the window state and the clock of the link.
void AttachDb(ProjectDb &db, Link &l);

// --- the file (one operation = one open and close) ---------------------------

// Record 1 of a new database, stamped with when.
DbRecord NewHeader(const QDateTime &when);
void CreateDb(ProjectDb &db, const QString &path);
// 0 loaded or empty, 1 type mismatch, 2 damaged (the sound part is shown),
// 3 the file could not be read. Anything but 0 for the current database ends
// it as the current one.
int16_t LoadDb(ProjectDb &db, const QString &path);
// Fills the tree from a chain; problems found on the way are appended.
void LoadChain(ProjectDb &db, DbFile &f, int32_t start, QStringList &problems);
// 0 stamped; 1 failed (reported).
int TouchDb(ProjectDb &db, const QString &path);
int RefreshTwin(ProjectDb &db, const QString &path);
QString TwinPath(const QString &path);
// True when both names lead to one file.
bool SameFile(const QString &a, const QString &b);

// Levels of the tree that a load shows. The tree model checks every node
// against its whole line of parents, so a file nested thousands deep (only a
// damaged or made-up one is) would take minutes to show and overflow the stack
// when the tree is cleared; deeper levels are reported as damage instead.
constexpr int kMaxTreeDepth = 1000;

// Walks every chain from start depth first, children before the next
// sibling, and calls visit(record, parent record or -1, depth) for each
// record that can be shown, with SelfRec set to the number it was reached by.
// Damage that hurts goes to problems: a link out of the file or to a cut-off
// record, a chain through a free record, a record reached twice (a loop), a
// tree deeper than kMaxTreeDepth. Back links and keys that disagree with the
// chains go to notes. Nothing loops, nothing reads outside the file.
void WalkChains(DbFile &f, int32_t start,
                const std::function<void(const DbRecord &, int32_t, int)> &visit,
                QStringList &problems, QStringList *notes = nullptr);
// The problems of a file, as the loader finds them; empty for a sound file.
// notes gets what is harmless: stale back links, keys, records in use that no
// chain reaches, a cut-off last record that no link names.
QStringList CheckDb(const QString &path, QStringList *notes = nullptr);

// --- tree operations -----------------------------------------------------------

int AddTopLevel(ProjectDb &db);
int AddChild(ProjectDb &db);
int InsertBefore(ProjectDb &db);
int DeleteNode(ProjectDb &db);
int FreeSubtree(ProjectDb &db, DbFile &f, int32_t start);
// MNodeCut: marks the selected node.
void MarkCutNode(ProjectDb &db);
// MnodePast: the frame around MoveCutNode.
int PasteCutNode(ProjectDb &db);
int MoveCutNode(ProjectDb &db);
// Takes the marked node out of the file and the tree.
int UnlinkNode(ProjectDb &db, DbFile &f);
void BeginRename(ProjectDb &db);
int RenameNode(ProjectDb &db, const QString &text);
int SetExpanded(ProjectDb &db, const QString &key, bool expanded);
// Right-button release over the tree: sets the popup's items, true when it shows.
bool TreeMouseUp(ProjectDb &db);
// True while edits of the tree go to the database the tree shows.
bool TreeEditable(const ProjectDb &db);

// --- opening -------------------------------------------------------------------

void GuardedOpen(ProjectDb &db, const QString &path, const QString &text, const QString &title);
void OpenPro(ProjectDb &db);
void CreatNewPro(ProjectDb &db);
// Start-up: Config.MPK in the application folder. 0 opened, 1 no such file,
// 2 refused or not opened.
int OpenStartupDb(ProjectDb &db, const QString &appDir);

} // namespace pyro
