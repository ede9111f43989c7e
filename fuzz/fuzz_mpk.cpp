// A project database (.MPK) as a user could open it, followed by edits of
// the tree on what the loader accepted.
//
// Input: one byte n, then n & 63 edit bytes, then the file. An edit byte
// selects a node by its place in the tree (high five bits, 31: none) and
// names the edit (low three bits).
//
// With n & 64 the file is given in short form, so that the links of many
// records change with few bytes: 4 bytes of FirstRec for a sound header,
// then 24 bytes a record: its numbers as the file holds them (22 bytes), a
// byte that spells its keys, a byte for its expanded state. The rest of each
// record is left empty.
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

// NodeKey and ParentKey spellings: the right one, and others that a loose
// reading of a key would take for the same record.
QByteArray spelledKey(int32_t rec, int style)
{
    const QString n = QString::number(rec);
    switch (style & 3) {
    case 0: return pyro::PadFixedText(pyro::NodeKeyText(rec));
    case 1: return pyro::PadFixedText(QLatin1Char(' ') + n + QStringLiteral("KEY"));
    case 2: return pyro::PadFixedText(n + QStringLiteral(" key x"));
    default: return pyro::PadFixedText(QStringLiteral(" 0") + n + QStringLiteral("key"));
    }
}

QByteArray expand(fuzz::Reader &in)
{
    pyro::DbRecord h = pyro::NewHeader(fuzz::fixedNow());
    pyro::FirstRec(h) = int32_t(in.word() | (uint32_t(in.word()) << 16));
    QByteArray file = pyro::EncodeRecord(h);
    for (int32_t no = 2; !in.done(); ++no) {
        const QByteArray nums = in.bytes(22).leftJustified(22, '\0');
        const uint8_t keys = in.byte();
        pyro::DbRecord r = pyro::DecodeRecord(nums + QByteArray(pyro::kRecordSize - 22, '\0'));
        r.NodeKey = spelledKey((keys & 4) ? r.SelfRec : no, keys);
        r.ParentKey = r.ParentRec >= 1 ? spelledKey(r.ParentRec, keys >> 3) : pyro::PadFixedText(QString());
        if (keys & 32)
            r.ParentKey = pyro::PadFixedText(QString());
        r.Expanded = int16_t(int8_t(in.byte()));
        pyro::PackField(r.Caption, QStringLiteral("n%1").arg(no), QString(), pyro::kCaptionLimit);
        file += pyro::EncodeRecord(r);
    }
    return file;
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
    if (size == 0)
        return 0;
    const int edits = in.byte() & 63;
    const QByteArray script = in.bytes(size_t(edits));
    const bool shortForm = data[0] & 64;
    const QString path = fuzz::writeTemp(QStringLiteral("Fuzz.MPK"), shortForm ? expand(in) : in.rest());

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
    const QStringList problems = pyro::CheckDb(path);
    // PYRO_FUZZ_TRACE=1 shows what a run came to, for checking seeds.
    static const bool trace = qEnvironmentVariableIsSet("PYRO_FUZZ_TRACE");
    if (trace)
        fprintf(stderr, "opened %d, sound at open %d, nodes %d, boxes:\n%s\nproblems now:\n%s\n", db.DbOpen,
                sound, pyro::NodeCount(db.tree), qPrintable(prompter.shown.join('\n')),
                qPrintable(problems.join('\n')));
    return 0;
}
