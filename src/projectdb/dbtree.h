#pragma once
#include <QHash>
#include <QStandardItemModel>
#include <QString>
#include <memory>

namespace pyro {

// The project tree as the window shows it: one item per database record, with
// its 20-character key, its title, its expanded state and its text colour.
// The key index makes "the node with key K" one look-up, as in a tree control.
struct DbTree {
    std::unique_ptr<QStandardItemModel> model = std::make_unique<QStandardItemModel>();
    QHash<QString, QStandardItem *> nodes;
    QString Selected;   // key of the selected node; empty = none
    QString Editing;    // key of the node whose title is being edited; empty = none
};

enum DbTreeRole {
    kKeyRole = Qt::UserRole + 1,
    kExpandedRole,      // bool
};

void ClearTree(DbTree &t);
QStandardItem *FindNode(const DbTree &t, const QString &key);
int NodeCount(const DbTree &t);

// Adds a node: under parentKey (empty = top level), at the end of its
// siblings or, with beforeKey, directly ahead of that sibling. Null if the
// key is taken or the parent or sibling is not in the tree.
QStandardItem *AddNode(DbTree &t, const QString &parentKey, const QString &key,
                       const QString &title, const QString &beforeKey = {});
// Removes the node and its subtree; clears selection and edit marks inside it.
void RemoveNode(DbTree &t, const QString &key);

void SetNodeExpanded(QStandardItem *node, bool expanded);
bool NodeExpanded(const QStandardItem *node);
// A colour value as the database stores it: red in the low byte, blue in the third.
void SetNodeColor(QStandardItem *node, int32_t color);

QString NodeKey(const QStandardItem *node);
QString ParentKeyOf(const QStandardItem *node);   // empty at the top level
// True when key names node or one of its descendants.
bool InSubtree(const DbTree &t, const QString &node, const QString &key);

} // namespace pyro
