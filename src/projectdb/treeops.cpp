// The edit popup of the project tree: every operation changes the file first,
// record by record in a fixed order, and the tree after it. All reads an
// operation needs are done before its first write, so a damaged link stops
// it before anything has changed.
#include "dbinternal.h"

#include <QList>
#include <vector>

namespace pyro {

namespace {

const QString kMsgNoDb = QStringLiteral("没有打开数据库！");

// Opens the current database for an edit and reads record 1 afresh.
bool openForEdit(ProjectDb &db, DbFile &f)
{
    if (!TreeEditable(db)) {
        Report(db, kMsgNoDb);
        return false;
    }
    if (!OpenDbFile(f, db.CurrentPath, DbMode::ReadWrite)) {
        Report(db, kMsgIoFailed + f.error);
        return false;
    }
    if (!WholeRecords(f) || f.length == 0) {
        Report(db, kMsgOpStopped + QStringLiteral("文件长度 %1 不是 %2 的整数倍").arg(f.length).arg(kRecordSize));
        CloseDbFile(f);
        return false;
    }
    if (!GetRec(f, 1, db.HeaderRecord)) {
        Report(db, kMsgIoFailed + f.error);
        CloseDbFile(f);
        return false;
    }
    return true;
}

// Ends an operation that stopped on f.error. Before any write the file is as
// it was; after one, the tree is rebuilt so that it shows what the file holds.
int failEdit(ProjectDb &db, DbFile &f)
{
    const bool wrote = f.puts > 0;
    Report(db, (wrote ? kMsgWriteBroken : kMsgOpStopped) + f.error);
    CloseDbFile(f);
    if (wrote) {
        const QString selected = db.tree.Selected;
        LoadDb(db, db.CurrentPath);
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

// The record number for a new item. A header marked free would be handed
// out as record 1 and overwritten; that file is refused with a reason.
int32_t newRecNo(DbFile &f)
{
    const int32_t no = FindFreeRec(f);
    if (no == 1)
        f.error = QStringLiteral("文件头（记录 1）的 Used 是 0");
    return no;
}

QString newTitle(const ProjectDb &db)
{
    return UnpackField(db.WorkRecord.Caption, db.LoginKey, kCaptionLimit);
}

// Items at the far ends of a record's links, got before anything is written.
struct Neighbours {
    DbRecord prev, next, parent;
    bool hasPrev = false, hasNext = false, hasParent = false;
};

bool getNeighbours(DbFile &f, const DbRecord &s, Neighbours &n, bool wantNext)
{
    n.hasPrev = s.PrevRec > 0;
    n.hasNext = wantNext && s.NextRec > 0;
    n.hasParent = s.ParentRec >= 1;   // below 1 is the top level
    if (n.hasPrev && !GetItem(f, s.PrevRec, n.prev))
        return false;
    if (n.hasNext && !GetItem(f, s.NextRec, n.next))
        return false;
    if (n.hasParent && !GetItem(f, s.ParentRec, n.parent))
        return false;
    return true;
}

// Writes r as record no ahead of s, then mends the one link that pointed at
// s: the previous sibling's (before s), else the parent's first child (after
// s), else FirstRec (after s). InsertBefore and MoveCutNode write in this
// order, which fixes what an interrupted one leaves.
bool putAhead(ProjectDb &db, DbFile &f, int32_t no, DbRecord &r, DbRecord &s, Neighbours &n)
{
    r.PrevRec = n.hasPrev ? s.PrevRec : -1;
    r.NextRec = s.SelfRec;
    if (!PutRec(f, no, r))
        return false;
    s.PrevRec = no;
    if (n.hasPrev) {
        n.prev.NextRec = no;
        return PutRec(f, n.prev.SelfRec, n.prev) && PutRec(f, s.SelfRec, s);
    }
    if (n.hasParent) {
        n.parent.ChildRec = no;
        return PutRec(f, s.SelfRec, s) && PutRec(f, n.parent.SelfRec, n.parent);
    }
    bool ok = PutRec(f, s.SelfRec, s) && GetRec(f, 1, db.HeaderRecord);
    FirstRec(db.HeaderRecord) = no;
    return ok && PutRec(f, 1, db.HeaderRecord);
}

// Takes s out of its sibling chain (DeleteNode and UnlinkNode alike).
bool unlinkFromChain(ProjectDb &db, DbFile &f, const DbRecord &s, Neighbours &n)
{
    if (n.hasPrev && n.hasNext) {
        n.prev.NextRec = n.next.SelfRec;
        n.next.PrevRec = n.prev.SelfRec;
        return PutRec(f, n.prev.SelfRec, n.prev) && PutRec(f, n.next.SelfRec, n.next);
    }
    if (n.hasPrev) {
        n.prev.NextRec = 0;
        return PutRec(f, n.prev.SelfRec, n.prev);
    }
    if (!n.hasParent) {
        if (n.hasNext) {
            n.next.PrevRec = -1;
            if (!PutRec(f, n.next.SelfRec, n.next))
                return false;
        }
        if (!GetRec(f, 1, db.HeaderRecord))
            return false;
        FirstRec(db.HeaderRecord) = n.hasNext ? s.NextRec : -1;
        return PutRec(f, 1, db.HeaderRecord);
    }
    n.parent.ChildRec = n.hasNext ? s.NextRec : 0;
    if (n.hasNext) {
        n.next.PrevRec = -1;
        if (!PutRec(f, n.next.SelfRec, n.next))
            return false;
    }
    return PutRec(f, n.parent.SelfRec, n.parent);
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

// Appends WorkRecord's new item at the end of the top-level chain.
bool appendTopLevel(ProjectDb &db, DbFile &f, int32_t no, bool clearImage)
{
    const int32_t first = FirstRec(db.HeaderRecord);
    buildNewItem(db, no, clearImage);
    DbRecord &w = db.WorkRecord;
    w.ParentRec = -1;
    w.NextRec = 0;
    w.ParentKey = QByteArray(rec::FixedWidth, ' ');
    if (first > 0) {
        const int32_t last = LastSibling(f, first);
        DbRecord l;
        if (last == 0 || !GetItem(f, last, l))
            return false;
        w.PrevRec = last;
        if (!PutRec(f, no, w))
            return false;
        l.NextRec = no;
        return PutRec(f, last, l);
    }
    w.PrevRec = -1;
    if (!PutRec(f, no, w))
        return false;
    FirstRec(db.HeaderRecord) = no;
    return PutRec(f, 1, db.HeaderRecord);
}

// A node taken out for a move that cannot be put back: the failure reloads
// the tree, so its keys must not point into it any longer.
void forgetTaken(ProjectDb &db, std::unique_ptr<QStandardItem> &taken)
{
    if (taken)
        PutNodeBefore(db.tree, std::move(taken), QString());
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
        if (no < 2 || !appendTopLevel(db, f, no, true))
            return failEdit(db, f);
        AddNode(db.tree, QString(), NodeKeyText(no), newTitle(db));
        CloseDbFile(f);
        return 0;
    });
}

int AddChild(ProjectDb &db)
{
    return editFrame(db, [&] {
        DbFile f;
        if (!openForEdit(db, f))
            return 1;
        const int32_t no = newRecNo(f);
        if (no < 2)
            return failEdit(db, f);
        QStandardItem *sel = selectedNode(db);
        DbRecord &w = db.WorkRecord;
        if (!sel) {
            if (FirstRec(db.HeaderRecord) > 0) {
                // Items exist but none is selected: append at the top level
                // rather than cut the chain off by a new FirstRec.
                if (!appendTopLevel(db, f, no, false))
                    return failEdit(db, f);
            } else {
                FirstRec(db.HeaderRecord) = no;
                if (!PutRec(f, 1, db.HeaderRecord))
                    return failEdit(db, f);
                buildNewItem(db, no, false);
                w.ParentRec = -1;
                w.PrevRec = -1;
                w.NextRec = 0;
                w.ParentKey = QByteArray(rec::FixedWidth, ' ');
                if (!PutRec(f, no, w))
                    return failEdit(db, f);
            }
            QStandardItem *node = AddNode(db.tree, QString(), NodeKeyText(no), newTitle(db));
            SetNodeExpanded(node, w.Expanded != 0);
            SetNodeColor(node, w.NodeColor);
            db.tree.Selected = NodeKeyText(no);
            CloseDbFile(f);
            return 0;
        }
        DbRecord s;
        if (!GetItem(f, KeyToRec(NodeKey(sel)), s))
            return failEdit(db, f);
        DbRecord last;
        if (s.ChildRec != 0) {
            const int32_t l = LastSibling(f, s.ChildRec);
            if (l == 0 || !GetItem(f, l, last))
                return failEdit(db, f);
        }
        buildNewItem(db, no, false);
        w.ParentRec = s.SelfRec;
        w.NextRec = 0;
        w.ParentKey = s.NodeKey;
        if (s.ChildRec != 0) {
            last.NextRec = no;
            if (!PutRec(f, last.SelfRec, last))
                return failEdit(db, f);
            w.PrevRec = last.SelfRec;
        } else {
            s.ChildRec = no;
            if (!PutRec(f, s.SelfRec, s))
                return failEdit(db, f);
            w.PrevRec = -1;
        }
        if (!PutRec(f, no, w))
            return failEdit(db, f);
        QStandardItem *node = AddNode(db.tree, NodeKey(sel), NodeKeyText(no), newTitle(db));
        SetNodeExpanded(node, w.Expanded != 0);
        SetNodeColor(node, w.NodeColor);
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
        DbRecord s;
        Neighbours n;
        if (!GetItem(f, KeyToRec(NodeKey(sel)), s) || !getNeighbours(f, s, n, false))
            return failEdit(db, f);
        const int32_t no = newRecNo(f);
        if (no < 2)
            return failEdit(db, f);
        buildNewItem(db, no, true);
        DbRecord &w = db.WorkRecord;
        w.ParentRec = n.hasParent ? s.ParentRec : -1;
        w.ParentKey = s.ParentKey;
        if (!putAhead(db, f, no, w, s, n))
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
        DbRecord s;
        Neighbours n;
        QList<int32_t> subtree;
        if (!GetItem(f, KeyToRec(NodeKey(sel)), s) || !getNeighbours(f, s, n, true)
            || !collectSubtree(f, s.ChildRec, subtree))
            return failEdit(db, f);
        if (!unlinkFromChain(db, f, s, n) || !freeRecords(f, subtree))
            return failEdit(db, f);
        const int32_t no = s.SelfRec;
        clearDeleted(s);
        if (!PutRec(f, no, s))
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

int UnlinkNode(ProjectDb &db, DbFile &f, std::unique_ptr<QStandardItem> *taken)
{
    QStandardItem *cut = db.CutIndex > 0 ? FindNode(db.tree, NodeKeyText(db.CutIndex)) : nullptr;
    if (!cut) {
        Report(db, kMsgNoNode);
        return 1;
    }
    DbRecord r;
    Neighbours n;
    if (!GetItem(f, db.CutIndex, r) || !getNeighbours(f, r, n, true))
        return failEdit(db, f);
    db.CutRecord = r;
    if (!unlinkFromChain(db, f, r, n))
        return failEdit(db, f);
    r.Used = 0;   // free for this moment; the record keeps all else
    if (!PutRec(f, r.SelfRec, r))
        return failEdit(db, f);
    if (taken)
        *taken = TakeNode(db.tree, NodeKey(cut));
    else
        RemoveNode(db.tree, NodeKey(cut));
    return 0;
}

int MoveCutNode(ProjectDb &db)
{
    QStandardItem *sel = selectedNode(db);
    if (!sel) {
        Report(db, kMsgNoNode);
        return 1;
    }
    const QString targetKey = NodeKey(sel);
    const int32_t target = KeyToRec(targetKey);
    if (db.CutIndex <= 0 || !FindNode(db.tree, NodeKeyText(db.CutIndex))) {
        Report(db, kMsgNoNode);
        return 1;
    }
    // Ahead of itself or of one of its own descendants the subtree would be
    // linked into itself and lost from the tree.
    if (InSubtree(db.tree, NodeKeyText(db.CutIndex), targetKey)) {
        Report(db, kMsgMoveIntoSelf);
        return 1;
    }
    DbFile f;
    if (!openForEdit(db, f))
        return 1;
    // The target and the records its links name must be sound before the
    // marked node is taken out, or the node would be left unlinked.
    {
        DbRecord s;
        Neighbours n;
        if (!GetItem(f, target, s) || !getNeighbours(f, s, n, false))
            return failEdit(db, f);
        for (int32_t up = s.ParentRec, steps = 0; up >= 1; ++steps) {
            DbRecord p;
            if (up == db.CutIndex) {
                Report(db, kMsgMoveIntoSelf);
                CloseDbFile(f);
                return 1;
            }
            if (steps > RecordCount(f) || !GetItem(f, up, p))
                return failEdit(db, f);
            up = p.ParentRec;
        }
    }
    std::unique_ptr<QStandardItem> moving;
    if (UnlinkNode(db, f, &moving) != 0)
        return 1;
    const int32_t c = db.CutRecord.SelfRec;
    DbRecord s;
    Neighbours n;
    if (!GetItem(f, target, s) || !getNeighbours(f, s, n, false)) {
        forgetTaken(db, moving);
        return failEdit(db, f);
    }
    DbRecord &cr = db.CutRecord;
    cr.Used = 1;
    cr.ParentRec = n.hasParent ? s.ParentRec : -1;
    cr.ParentKey = n.hasParent ? s.ParentKey : QByteArray(rec::FixedWidth, ' ');
    cr.SelfRec = c;
    if (!putAhead(db, f, c, cr, s, n)) {
        forgetTaken(db, moving);
        return failEdit(db, f);
    }
    CloseDbFile(f);
    // The node moves within the tree as it moved in the file: the same as a
    // rebuild from the file, without reading ten thousand records again.
    if (!PutNodeBefore(db.tree, std::move(moving), targetKey)) {
        LoadDb(db, db.CurrentPath);
        if (FindNode(db.tree, targetKey))
            db.tree.Selected = targetKey;
    }
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
    if (!PutRec(f, r, db.WorkRecord))
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
    if (!OpenDbFile(f, db.CurrentPath, DbMode::ReadWrite)) {
        Report(db, kMsgIoFailed + f.error);
        return 1;
    }
    const int32_t r = KeyToRec(key);
    if (!GetItem(f, r, db.WorkRecord))
        return failEdit(db, f);
    db.WorkRecord.Expanded = expanded ? -1 : 0;
    if (!PutRec(f, r, db.WorkRecord))
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
