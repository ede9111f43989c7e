// A project database (.MPK) as a user could open it, followed by edits of
// the tree on what the loader accepted.
//
// Input: one byte n, then n & 63 edit bytes, then the file. An edit byte
// selects a node by its place in the tree (high five bits, 31: none) and
// names the edit (low three bits).
//
// With PYRO_FUZZ_STRICT set in the environment a sound file must stay sound
// through every edit, and the tree must equal what a fresh load shows.
#include "fuzzcommon.h"

#include "projectdb.h"
#include "prompter.h"

#include <QStandardItem>

namespace {

const QString kTitles[] = {
    QStringLiteral("BinArray"),
    QStringLiteral("一二三四五六七八九十一二三四五六七八九十x"),   // 41 bytes in GBK
    QString(),
    QStringLiteral("Motor A"),
    QString(300, QLatin1Char('w')),
    QStringLiteral("\u00e9\u20ac\U0001F600"),                    // not all in GBK
};

void collectKeys(QStandardItem *parent, QStringList &keys)
{
    for (int i = 0; i < parent->rowCount(); ++i) {
        QStandardItem *n = parent->child(i);
        keys << pyro::NodeKey(n);
        collectKeys(n, keys);
    }
}

// The tree in order, for selection by place and for comparing trees: the
// key index of the tree is a hash, and its order differs from run to run.
QStringList treeKeys(const pyro::DbTree &t)
{
    QStringList keys;
    collectKeys(t.model->invisibleRootItem(), keys);
    return keys;
}

// The shape of a tree: keys indented by depth.
void describe(QStandardItem *parent, int depth, QStringList &out)
{
    for (int i = 0; i < parent->rowCount(); ++i) {
        QStandardItem *n = parent->child(i);
        out << QString(depth, QLatin1Char(' ')) + pyro::NodeKey(n);
        describe(n, depth + 1, out);
    }
}

bool strict()
{
    static const bool on = qEnvironmentVariableIsSet("PYRO_FUZZ_STRICT");
    return on;
}

void check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "fuzz_mpk: %s\n", what);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Reader in(data, size);
    const int edits = in.byte() & 63;
    const QByteArray script = in.bytes(size_t(edits));
    const QString path = fuzz::writeTemp(QStringLiteral("Fuzz.MPK"), in.rest());

    pyro::ScriptedPrompter prompter;
    pyro::ProjectDb db;
    db.prompter = &prompter;
    db.now = fuzz::fixedNow;
    pyro::CheckDb(path);
    pyro::GuardedOpen(db, path, QStringLiteral("refused"), QStringLiteral("Hint"));
    bool sound = db.DbOpen && pyro::CheckDb(path).isEmpty();

    for (const char e : script) {
        const QStringList keys = treeKeys(db.tree);
        const int place = uint8_t(e) >> 3;
        db.tree.Selected = place == 31 || keys.isEmpty() ? QString() : keys[place % keys.size()];
        switch (uint8_t(e) & 7) {
        case 0: pyro::AddTopLevel(db); break;
        case 1: pyro::AddChild(db); break;
        case 2: pyro::InsertBefore(db); break;
        case 3: pyro::DeleteNode(db); break;
        case 4: pyro::MarkCutNode(db); break;
        case 5: pyro::PasteCutNode(db); break;
        case 6:
            pyro::BeginRename(db);
            pyro::RenameNode(db, kTitles[size_t(place) % std::size(kTitles)]);
            break;
        case 7:
            if (!db.tree.Selected.isEmpty()) {
                QStandardItem *n = pyro::FindNode(db.tree, db.tree.Selected);
                pyro::SetExpanded(db, db.tree.Selected, n && !pyro::NodeExpanded(n));
            } else {
                pyro::TreeMouseUp(db);
            }
            break;
        }
        if (strict() && sound) {
            check(pyro::CheckDb(path).isEmpty(), "an edit left a sound file damaged");
            QStringList shown;
            describe(db.tree.model->invisibleRootItem(), 0, shown);
            pyro::ProjectDb fresh;
            pyro::LoadDb(fresh, path);
            QStringList loaded;
            describe(fresh.tree.model->invisibleRootItem(), 0, loaded);
            check(shown == loaded, "the tree differs from a fresh load");
        }
    }
    // What the edits wrote is read back the way the next run would read it.
    pyro::GuardedOpen(db, path, QStringLiteral("refused"), QStringLiteral("Hint"));
    pyro::CheckDb(path);
    return 0;
}
