#include "dbtree.h"

#include <QBrush>
#include <QColor>

namespace pyro {

void ClearTree(DbTree &t)
{
    t.model->clear();
    t.nodes.clear();
    t.Selected.clear();
    t.Editing.clear();
}

QStandardItem *FindNode(const DbTree &t, const QString &key)
{
    return t.nodes.value(key, nullptr);
}

int NodeCount(const DbTree &t)
{
    return int(t.nodes.size());
}

QStandardItem *AddNode(DbTree &t, const QString &parentKey, const QString &key,
                       const QString &title, const QString &beforeKey)
{
    if (key.isEmpty() || t.nodes.contains(key))
        return nullptr;
    QStandardItem *parent = t.model->invisibleRootItem();
    if (!parentKey.isEmpty()) {
        parent = FindNode(t, parentKey);
        if (!parent)
            return nullptr;
    }
    int row = parent->rowCount();
    if (!beforeKey.isEmpty()) {
        QStandardItem *before = FindNode(t, beforeKey);
        if (!before || (before->parent() ? before->parent() : t.model->invisibleRootItem()) != parent)
            return nullptr;
        row = before->row();
    }
    auto *item = new QStandardItem(title);
    item->setData(key, kKeyRole);
    item->setData(false, kExpandedRole);
    item->setEditable(true);
    parent->insertRow(row, item);
    t.nodes.insert(key, item);
    return item;
}

static void forgetSubtree(DbTree &t, QStandardItem *node)
{
    // Iterative: a damaged file may nest deeper than the stack would like.
    QList<QStandardItem *> todo{node};
    while (!todo.isEmpty()) {
        QStandardItem *n = todo.takeLast();
        const QString key = NodeKey(n);
        t.nodes.remove(key);
        if (t.Selected == key)
            t.Selected.clear();
        if (t.Editing == key)
            t.Editing.clear();
        for (int i = 0; i < n->rowCount(); ++i)
            todo.append(n->child(i));
    }
}

void RemoveNode(DbTree &t, const QString &key)
{
    QStandardItem *node = FindNode(t, key);
    if (!node)
        return;
    forgetSubtree(t, node);
    QStandardItem *parent = node->parent() ? node->parent() : t.model->invisibleRootItem();
    parent->removeRow(node->row());
}

void SetNodeExpanded(QStandardItem *node, bool expanded)
{
    if (node)
        node->setData(expanded, kExpandedRole);
}

bool NodeExpanded(const QStandardItem *node)
{
    return node && node->data(kExpandedRole).toBool();
}

void SetNodeColor(QStandardItem *node, int32_t color)
{
    if (!node)
        return;
    const uint32_t c = uint32_t(color);
    node->setForeground(QBrush(QColor(c & 0xFF, (c >> 8) & 0xFF, (c >> 16) & 0xFF)));
}

QString NodeKey(const QStandardItem *node)
{
    return node ? node->data(kKeyRole).toString() : QString();
}

QString ParentKeyOf(const QStandardItem *node)
{
    return node && node->parent() ? NodeKey(node->parent()) : QString();
}

bool InSubtree(const DbTree &t, const QString &node, const QString &key)
{
    for (QStandardItem *n = FindNode(t, key); n; n = n->parent())
        if (NodeKey(n) == node)
            return true;
    return false;
}

} // namespace pyro
