// The edit popup of the project tree: every operation changes the file first,
// record by record in a fixed order, and the tree after it.
//
// An operation finds its way by the tree: the previous sibling, the next one
// and the parent of a node are the tree's, and the tree is what the chain walk
// of the last load gave, kept in step by every edit. The records an operation
// will write are read and checked against the tree before its first write, so
// a file changed behind the program's back stops the edit unwritten. The back
// links PrevRec and ParentRec are written as the write orders say but never
// followed: an interrupted edit leaves them stale, and the file must stay
// editable. A write that fails is undone, so a full disk leaves the file as it
// was.
#include "dbinternal.h"

#include <QList>
#include <vector>

namespace pyro {

namespace {

const QString kMsgNoDb = QStringLiteral("没有打开数据库！");

int32_t recOf(const QStandardItem *n)
{
    return n ? KeyToRec(NodeKey(n)) : 0;
}

QStandardItem *childrenOf(const DbTree &t, QStandardItem *n)
{
    return n ? n : t.model->invisibleRootItem();
}

// Levels above a node: 0 at the top level.
int depthOf(const QStandardItem *n)
{
    int d = 0;
    for (const QStandardItem *up = n->parent(); up; up = up->parent())
        ++d;
    return d;
}

// Levels below a node: 0 for a node without children.
int heightOf(QStandardItem *n)
{
    int height = 0;
    QList<QPair<QStandardItem *, int>> todo{{n, 0}};
    while (!todo.isEmpty()) {
        const auto [item, d] = todo.takeLast();
        height = std::max(height, d);
        for (int i = 0; i < item->rowCount(); ++i)
            todo.append({item->child(i), d + 1});
    }
    return height;
}

QByteArray parentKeyField(int32_t parent)
{
    return parent > 0 ? PadFixedText(NodeKeyText(parent)) : QByteArray(rec::FixedWidth, ' ');
}

// Where a node stands, by record number (0 = none), as the tree shows it.
struct Place {
    int32_t self = 0, prev = 0, next = 0, parent = 0;
};

Place placeOf(const DbTree &t, QStandardItem *n)
{
    QStandardItem *up = childrenOf(t, n->parent());
    const int row = n->row();
    Place p;
    p.self = recOf(n);
    p.parent = recOf(n->parent());
    p.prev = row > 0 ? recOf(up->child(row - 1)) : 0;
    p.next = row + 1 < up->rowCount() ? recOf(up->child(row + 1)) : 0;
    return p;
}

// The records around a place, as read from the file.
struct Around {
    DbRecord self, prev, next, parent;
};

bool differs(DbFile &f, int32_t rec)
{
    f.error = QStringLiteral("记录 %1 在文件中的链接与树上不同（文件在别处被改过）").arg(rec);
    return false;
}

// Reads the records an edit at p needs and checks that the file links them as
// the tree shows: p.self is named by its previous sibling, else its parent,
// else the header, and names p.next as its next.
bool readAround(ProjectDb &db, DbFile &f, const Place &p, Around &a, bool wantNext)
{
    if (!GetItem(f, p.self, a.self))
        return false;
    int32_t namedBy = 0;
    if (p.prev) {
        if (!GetItem(f, p.prev, a.prev))
            return false;
        namedBy = a.prev.NextRec;
    } else if (p.parent) {
        if (!GetItem(f, p.parent, a.parent))
            return false;
        namedBy = a.parent.ChildRec;
    } else {
        if (!GetRec(f, 1, db.HeaderRecord))
            return false;
        namedBy = FirstRec(db.HeaderRecord);
    }
    if (namedBy != p.self || a.self.NextRec != p.next)
        return differs(f, p.self);
    return !wantNext || !p.next || GetItem(f, p.next, a.next);
}

// Opens the current database for an edit and reads record 1 afresh.
bool openForEdit(ProjectDb &db, DbFile &f)
{
    if (!TreeEditable(db)) {
        Report(db, kMsgNoDb);
        return false;
    }
    f.faults = &db.faults;
    if (!OpenDbFile(f, db.CurrentPath, DbMode::ReadWrite)) {
        Report(db, kMsgIoFailed + f.error);
        return false;
    }
    // A cut-off last record is what a full disk or a power cut left of a new
    // record. The tree comes from a sound load, so no link names it.
    if (!CutPartialTail(f) || !GetRec(f, 1, db.HeaderRecord)) {
        Report(db, kMsgIoFailed + f.error);
        CloseDbFile(f);
        return false;
    }
    return true;
}

// Ends an operation that stopped on f.error. A write already made is undone;
// if that fails too, or the file turned out not to be what the tree shows,
// the tree is loaded afresh, which also ends a damaged file as the current one.
int failEdit(ProjectDb &db, DbFile &f, bool treeChanged = false)
{
    bool reload = true;
    if (f.undo.isEmpty() && f.length == f.startLength) {
        Report(db, kMsgOpStopped + f.error);
    } else if (RollBack(f)) {
        Report(db, kMsgWriteUndone + f.error);
        reload = treeChanged;
    } else {
        Report(db, kMsgWriteBroken + f.error);
    }
    CloseDbFile(f);
    if (reload) {
        const QString selected = db.tree.Selected;
        const QString path = db.CurrentPath;
        LoadDb(db, path);
        if (FindNode(db.tree, selected))
            db.tree.Selected = selected;
    }
    return 1;
}

QStandardItem *selectedNode(const ProjectDb &db)
{
    return db.tree.Selected.isEmpty() ? nullptr : FindNode(db.tree, db.tree.Selected);
}

// The new item as every adding operation builds it in WorkRecord. The bytes
// behind the cleared first bytes stay as the buffer held them.
void buildNewItem(ProjectDb &db, int32_t no, bool clearImage)
{
    DbRecord &w = db.WorkRecord;
    w.Used = 1;
    w.ChildRec = 0;
    w.SelfRec = no;
    w.NodeKey = PadFixedText(NodeKeyText(no));
    PackField(w.Caption, kNewCaption, db.LoginKey, kCaptionLimit);
    w.Reserved1 = 0;
    w.Expanded = 1;
    w.NodeColor = 0;
    if (clearImage)
        w.ParamImage.replace(0, kFunctionLimit + 1, QByteArray(kFunctionLimit + 1, '\0'));
    else
        w.ParamImage[0] = '\0';
    for (QByteArray *t : {&w.FunctionText, &w.ProgramFile, &w.ConfigFile, &w.DisplayFile,
                          &w.OrderNumber, &w.Remark, &w.Reserved2})
        (*t)[0] = '\0';
    w.Reserved3 = 0;
}

// The record number for a new item, 0 with a reason when there is none. A
// header marked free would be handed out as record 1 and overwritten.
int32_t newRecNo(DbFile &f)
{
    const int32_t no = FindFreeRec(f);
    if (no == 1)
        f.error = QStringLiteral("文件头（记录 1）的 Used 是 0");
    else if (no > kMaxRecords)
        f.error = QStringLiteral("数据库已有 %1 个记录，不能再添加").arg(kMaxRecords);
    return no >= 2 && no <= kMaxRecords ? no : 0;
}

QString newTitle(const ProjectDb &db)
{
    return UnpackField(db.WorkRecord.Caption, db.LoginKey, kCaptionLimit);
}

// Writes r as record no ahead of p.self, then mends the one link that named
// p.self: the previous sibling's (before p.self), else the parent's first
// child (after p.self), else FirstRec (after p.self). InsertBefore and
// MoveCutNode write in this order, which fixes what an interrupted one leaves.
bool linkAhead(ProjectDb &db, DbFile &f, int32_t no, DbRecord &r, const Place &p, Around &a)
{
    r.ParentRec = p.parent ? p.parent : -1;
    r.ParentKey = parentKeyField(p.parent);
    r.PrevRec = p.prev ? p.prev : -1;
    r.NextRec = p.self;
    if (!PutItem(f, no, r))
        return false;
    a.self.PrevRec = no;
    if (p.prev) {
        a.prev.NextRec = no;
        return PutItem(f, p.prev, a.prev) && PutItem(f, p.self, a.self);
    }
    if (p.parent) {
        a.parent.ChildRec = no;
        return PutItem(f, p.self, a.self) && PutItem(f, p.parent, a.parent);
    }
    if (!PutItem(f, p.self, a.self) || !GetRec(f, 1, db.HeaderRecord))
        return false;
    FirstRec(db.HeaderRecord) = no;
    return PutRec(f, 1, db.HeaderRecord);
}

// Takes p.self out of its sibling chain (DeleteNode and UnlinkNode alike).
bool unlinkChain(ProjectDb &db, DbFile &f, const Place &p, Around &a)
{
    if (p.prev && p.next) {
        a.prev.NextRec = p.next;
        a.next.PrevRec = p.prev;
        return PutItem(f, p.prev, a.prev) && PutItem(f, p.next, a.next);
    }
    if (p.prev) {
        a.prev.NextRec = 0;
        return PutItem(f, p.prev, a.prev);
    }
    if (p.next) {
        a.next.PrevRec = -1;
        if (!PutItem(f, p.next, a.next))
            return false;
    }
    if (p.parent) {
        a.parent.ChildRec = p.next;
        return PutItem(f, p.parent, a.parent);
    }
    if (!GetRec(f, 1, db.HeaderRecord))
        return false;
    FirstRec(db.HeaderRecord) = p.next ? p.next : -1;
    return PutRec(f, 1, db.HeaderRecord);
}

// Appends WorkRecord's new item as the last child of parent (nullptr: the top
// level). The new record is written first and the one link that names it
// last, so that an interrupted add leaves an unlinked record, never a link to
// a record that is not there.
bool appendLast(ProjectDb &db, DbFile &f, int32_t no, QStandardItem *parent)
{
    QStandardItem *up = childrenOf(db.tree, parent);
    const int32_t parentNo = recOf(parent);
    DbRecord &w = db.WorkRecord;
    w.ParentRec = parentNo ? parentNo : -1;
    w.ParentKey = parentKeyField(parentNo);
    w.NextRec = 0;
    w.PrevRec = -1;
    DbRecord holder;   // the record whose link will name the new one
    int32_t holderNo = 1;
    if (up->rowCount() > 0) {
        holderNo = recOf(up->child(up->rowCount() - 1));
        if (!GetItem(f, holderNo, holder))
            return false;
        if (holder.NextRec != 0)
            return differs(f, holderNo);
        w.PrevRec = holderNo;
        holder.NextRec = no;
    } else if (parentNo) {
        holderNo = parentNo;
        if (!GetItem(f, holderNo, holder))
            return false;
        if (holder.ChildRec != 0)
            return differs(f, holderNo);
        holder.ChildRec = no;
    } else {
        if (FirstRec(db.HeaderRecord) > 0)
            return differs(f, FirstRec(db.HeaderRecord));
        holder = db.HeaderRecord;
        FirstRec(holder) = no;
    }
    if (!PutItem(f, no, w))
        return false;
    if (holderNo > 1)
        return PutItem(f, holderNo, holder);
    db.HeaderRecord = holder;
    return PutRec(f, 1, holder);
}

// Record numbers of a subtree in the order FreeSubtree frees them: for each
// record of a chain its children first, then itself, then the next sibling.
bool collectSubtree(DbFile &f, int32_t start, QList<int32_t> &order)
{
    struct Step {
        int32_t rec;
        int32_t next = 0;
        bool childrenDone = false;
    };
    const int32_t count = RecordCount(f);
    std::vector<char> seen(size_t(count) + 1, 0);
    QList<Step> todo;
    if (start > 0)
        todo.append(Step{start});
    DbRecord r;
    while (!todo.isEmpty()) {
        Step &s = todo.last();
        if (s.childrenDone) {
            const int32_t next = s.next;
            order.append(s.rec);
            todo.removeLast();
            if (next > 0)
                todo.append(Step{next});
            continue;
        }
        if (s.rec <= count && s.rec >= 1 && seen[size_t(s.rec)]) {
            f.error = QStringLiteral("记录 %1 在子树中出现两次（链成环）").arg(s.rec);
            return false;
        }
        if (!GetItem(f, s.rec, r))
            return false;
        seen[size_t(s.rec)] = 1;
        s.childrenDone = true;
        s.next = r.NextRec;
        if (r.ChildRec != 0)
            todo.append(Step{r.ChildRec});
    }
    return true;
}

bool freeRecords(DbFile &f, const QList<int32_t> &order)
{
    DbRecord r;
    for (int32_t n : order) {
        if (!GetRec(f, n, r))
            return false;
        r.Used = 0;   // only Used changes: the rest stays until reuse
        if (!PutRec(f, n, r))
            return false;
    }
    return true;
}

void clearDeleted(DbRecord &s)
{
    s.Used = 0;
    s.ParentRec = s.PrevRec = -1;
    s.NextRec = s.ChildRec = s.SelfRec = 0;
    s.ParentKey = s.NodeKey = QByteArray(rec::FixedWidth, ' ');
    s.Caption[0] = '\0';
    s.Reserved1 = s.Expanded = 0;
    s.NodeColor = 0;
    s.ParamImage.replace(0, kFunctionLimit + 1, QByteArray(kFunctionLimit + 1, '\0'));
    for (QByteArray *t : {&s.FunctionText, &s.ProgramFile, &s.ConfigFile, &s.DisplayFile,
                          &s.OrderNumber, &s.Remark, &s.Reserved2})
        (*t)[0] = '\0';
    s.Reserved3 = 0;
}

// Frame of the four editing items: busy, paste disabled, mark forgotten.
template <typename Op>
int editFrame(ProjectDb &db, Op op)
{
    db.TreeBusy = true;
    db.Medite.MnodePast.enabled = false;
    db.CutIndex = -1;
    const int rc = op();
    db.TreeBusy = false;
    return rc;
}

} // namespace

bool TreeEditable(const ProjectDb &db)
{
    return !db.CurrentPath.isEmpty() && db.TreePath == db.CurrentPath;
}

int AddTopLevel(ProjectDb &db)
{
    return editFrame(db, [&] {
        DbFile f;
        if (!openForEdit(db, f))
            return 1;
        const int32_t no = newRecNo(f);
        if (!no)
            return failEdit(db, f);
        buildNewItem(db, no, true);
        if (!appendLast(db, f, no, nullptr))
            return failEdit(db, f);
        AddNode(db.tree, QString(), NodeKeyText(no), newTitle(db));
        CloseDbFile(f);
        return 0;
    });
}

int AddChild(ProjectDb &db)
{
    return editFrame(db, [&] {
        // With nothing selected the item goes to the top level: as the first
        // item of an empty tree, or behind the others rather than cutting the
        // top-level chain off by a new FirstRec.
        QStandardItem *sel = selectedNode(db);
        if (sel && depthOf(sel) + 1 >= kMaxTreeDepth) {
            Report(db, kMsgTooDeep.arg(kMaxTreeDepth));
            return 1;
        }
        DbFile f;
        if (!openForEdit(db, f))
            return 1;
        const int32_t no = newRecNo(f);
        if (!no)
            return failEdit(db, f);
        buildNewItem(db, no, false);
        if (!appendLast(db, f, no, sel))
            return failEdit(db, f);
        QStandardItem *node = AddNode(db.tree, NodeKey(sel), NodeKeyText(no), newTitle(db));
        SetNodeExpanded(node, db.WorkRecord.Expanded != 0);
        SetNodeColor(node, db.WorkRecord.NodeColor);
        if (!sel)
            db.tree.Selected = NodeKeyText(no);
        CloseDbFile(f);
        return 0;
    });
}

int InsertBefore(ProjectDb &db)
{
    return editFrame(db, [&] {
        QStandardItem *sel = selectedNode(db);
        if (!sel) {
            Report(db, kMsgNoNode);
            return 1;
        }
        DbFile f;
        if (!openForEdit(db, f))
            return 1;
        const Place p = placeOf(db.tree, sel);
        Around a;
        if (!readAround(db, f, p, a, false))
            return failEdit(db, f);
        const int32_t no = newRecNo(f);
        if (!no)
            return failEdit(db, f);
        buildNewItem(db, no, true);
        if (!linkAhead(db, f, no, db.WorkRecord, p, a))
            return failEdit(db, f);
        AddNode(db.tree, ParentKeyOf(sel), NodeKeyText(no), newTitle(db), NodeKey(sel));
        CloseDbFile(f);
        return 0;
    });
}

int FreeSubtree(ProjectDb &, DbFile &f, int32_t start)
{
    QList<int32_t> order;
    return collectSubtree(f, start, order) && freeRecords(f, order) ? 0 : 1;
}

int DeleteNode(ProjectDb &db)
{
    return editFrame(db, [&] {
        QStandardItem *sel = selectedNode(db);
        if (!sel) {
            Report(db, kMsgNoNode);
            return 1;
        }
        DbFile f;
        if (!openForEdit(db, f))
            return 1;
        const Place p = placeOf(db.tree, sel);
        Around a;
        QList<int32_t> subtree;
        if (!readAround(db, f, p, a, true) || !collectSubtree(f, a.self.ChildRec, subtree))
            return failEdit(db, f);
        if (!unlinkChain(db, f, p, a) || !freeRecords(f, subtree))
            return failEdit(db, f);
        clearDeleted(a.self);
        if (!PutRec(f, p.self, a.self))
            return failEdit(db, f);
        RemoveNode(db.tree, NodeKey(sel));
        CloseDbFile(f);
        return 0;
    });
}

void MarkCutNode(ProjectDb &db)
{
    db.TreeBusy = true;
    if (QStandardItem *sel = selectedNode(db)) {
        db.CutIndex = KeyToRec(NodeKey(sel));
        db.Medite.MnodePast.enabled = true;
    } else {
        Report(db, kMsgNoNode);
    }
    db.TreeBusy = false;
}

int PasteCutNode(ProjectDb &db)
{
    db.TreeBusy = true;
    const int rc = MoveCutNode(db);
    db.TreeBusy = false;
    db.Medite.MnodePast.enabled = false;
    return rc;
}

int UnlinkNode(ProjectDb &db, DbFile &f)
{
    QStandardItem *cut = db.CutIndex > 0 ? FindNode(db.tree, NodeKeyText(db.CutIndex)) : nullptr;
    if (!cut) {
        Report(db, kMsgNoNode);
        return 1;
    }
    const Place p = placeOf(db.tree, cut);
    Around a;
    if (!readAround(db, f, p, a, true))
        return failEdit(db, f);
    db.CutRecord = a.self;
    if (!unlinkChain(db, f, p, a))
        return failEdit(db, f);
    DbRecord local = a.self;
    local.Used = 0;   // free for this moment; the record keeps all else
    if (!PutRec(f, p.self, local))
        return failEdit(db, f);
    RemoveNode(db.tree, NodeKey(cut));
    return 0;
}

int MoveCutNode(ProjectDb &db)
{
    QStandardItem *sel = selectedNode(db);
    QStandardItem *cut = db.CutIndex > 0 ? FindNode(db.tree, NodeKeyText(db.CutIndex)) : nullptr;
    if (!sel || !cut) {
        Report(db, kMsgNoNode);
        return 1;
    }
    // Ahead of itself or of one of its own descendants the subtree would be
    // linked into itself and lost from the tree.
    if (InSubtree(db.tree, NodeKey(cut), NodeKey(sel))) {
        Report(db, kMsgMoveIntoSelf);
        return 1;
    }
    if (depthOf(sel) + heightOf(cut) >= kMaxTreeDepth) {
        Report(db, kMsgTooDeep.arg(kMaxTreeDepth));
        return 1;
    }
    DbFile f;
    if (!openForEdit(db, f))
        return 1;
    // The target must be where the tree shows it before the marked node is
    // taken out, or the node would be left unlinked.
    Around a;
    if (!readAround(db, f, placeOf(db.tree, sel), a, false))
        return failEdit(db, f);
    if (UnlinkNode(db, f) != 0)
        return 1;
    // Taking the node out may have rewritten the target's neighbours, and
    // the tree no longer holds it: the target's place is read afresh.
    const Place p = placeOf(db.tree, sel);
    if (!readAround(db, f, p, a, false))
        return failEdit(db, f, true);
    DbRecord &cr = db.CutRecord;
    cr.Used = 1;
    if (!linkAhead(db, f, db.CutIndex, cr, p, a))
        return failEdit(db, f, true);
    CloseDbFile(f);
    // What the user sees after a move is what a fresh load gives.
    const QString path = db.CurrentPath;
    LoadDb(db, path);
    return 0;
}

void BeginRename(ProjectDb &db)
{
    db.tree.Editing = db.tree.Selected;
}

int RenameNode(ProjectDb &db, const QString &text)
{
    const QString key = db.tree.Editing.isEmpty() ? db.tree.Selected : db.tree.Editing;
    db.tree.Editing.clear();
    QStandardItem *node = key.isEmpty() ? nullptr : FindNode(db.tree, key);
    if (!node)
        return 1;
    DbFile f;
    if (!openForEdit(db, f))
        return 1;
    const int32_t r = KeyToRec(key);
    if (!GetItem(f, r, db.WorkRecord))
        return failEdit(db, f);
    PackField(db.WorkRecord.Caption, text, db.LoginKey, kCaptionLimit);
    if (!PutItem(f, r, db.WorkRecord))
        return failEdit(db, f);
    CloseDbFile(f);
    // The tree keeps the text as typed, even past what the file holds.
    node->setText(text);
    return 0;
}

int SetExpanded(ProjectDb &db, const QString &key, bool expanded)
{
    QStandardItem *node = FindNode(db.tree, key);
    SetNodeExpanded(node, expanded);
    // Events raised while an operation changes the tree must not write.
    if (db.TreeBusy || !node || !TreeEditable(db))
        return 0;
    DbFile f;
    if (!openForEdit(db, f))
        return 1;
    const int32_t r = KeyToRec(key);
    if (!GetItem(f, r, db.WorkRecord))
        return failEdit(db, f);
    db.WorkRecord.Expanded = expanded ? -1 : 0;
    if (!PutItem(f, r, db.WorkRecord))
        return failEdit(db, f);
    CloseDbFile(f);
    return 0;
}

bool TreeMouseUp(ProjectDb &db)
{
    const bool any = NodeCount(db.tree) > 0;
    db.Medite.Minsertback.enabled = any;
    db.Medite.Mdelect.enabled = any;
    return db.DbOpen && TreeEditable(db);
}

} // namespace pyro
