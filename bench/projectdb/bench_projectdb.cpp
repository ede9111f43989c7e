// Times the project database on 10,000 items in a realistic tree: 50 product
// lines, 8 models each, 24 variants per model (10,050 items in all). Prints
// the time of a full load into the tree model and of one AddChild at the end,
// one DeleteNode of a model with its variants and one MoveCutNode, which
// rebuilds the whole tree from the file and so costs about a load; then a
// click on an item (load, check, decode into the grid) and a save of it.
#include "items.h"
#include "link.h"
#include "params.h"
#include "projectdb.h"
#include "prompter.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTextStream>

using namespace pyro;

namespace {

QTextStream out(stdout);

void report(const char *what, qint64 ns, double goalMs)
{
    const double ms = ns / 1e6;
    out << QString::fromLatin1(what).leftJustified(34) << QString::number(ms, 'f', 2).rightJustified(9)
        << " ms   (goal " << goalMs << " ms" << (ms <= goalMs ? ", met)" : ", MISSED)") << "\n";
    out.flush();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("Bench.MPK"));
    ScriptedPrompter prompter;
    ProjectDb db;
    db.prompter = &prompter;
    CreateDb(db, path);
    db.CurrentPath = db.TreePath = path;
    db.DbOpen = true;

    // Building goes through the file operations too; it is timed only as a whole.
    QElapsedTimer t;
    t.start();
    constexpr int kLines = 50, kModels = 8, kVariants = 24;
    QList<int32_t> models;
    for (int l = 0; l < kLines; ++l) {
        db.tree.Selected.clear();
        AddTopLevel(db);
        const int32_t line = db.WorkRecord.SelfRec;
        for (int m = 0; m < kModels; ++m) {
            db.tree.Selected = NodeKeyText(line);
            AddChild(db);
            const int32_t model = db.WorkRecord.SelfRec;
            models << model;
            db.tree.Selected = NodeKeyText(model);
            for (int v = 0; v < kVariants; ++v)
                AddChild(db);
        }
    }
    const int items = NodeCount(db.tree);
    out << "built " << items << " items, " << QFileInfo(path).size() / kRecordSize << " records, "
        << QFileInfo(path).size() / 1024 << " KiB in " << t.elapsed() << " ms\n";
    if (!prompter.shown.isEmpty()) {
        out << "unexpected messages: " << prompter.shown.join("; ") << "\n";
        return 1;
    }

    t.restart();
    const int16_t rc = LoadDb(db, path);
    report("LoadDb (full tree)", t.nsecsElapsed(), 1000);
    if (rc != 0 || NodeCount(db.tree) != items) {
        out << "load failed: " << rc << " " << prompter.shown.join("; ") << "\n";
        return 1;
    }

    // A new variant under the last model: FindFreeRec scans the whole file.
    db.tree.Selected = NodeKeyText(models.last());
    t.restart();
    AddChild(db);
    report("AddChild at the end", t.nsecsElapsed(), 50);

    // A model in the middle with its 24 variants.
    db.tree.Selected = NodeKeyText(models[models.size() / 2]);
    t.restart();
    DeleteNode(db);
    report("DeleteNode (subtree of 25)", t.nsecsElapsed(), 50);

    // The first model of the first line, with its variants, moved ahead of
    // the last line.
    db.tree.Selected = NodeKeyText(models.first());
    MarkCutNode(db);
    db.tree.Selected = NodeKeyText(KeyToRec(NodeKey(db.tree.model->item(kLines - 1))));
    t.restart();
    PasteCutNode(db);
    report("MoveCutNode (with the rebuild)", t.nsecsElapsed(), 1000);

    // An item with a good settings block of the demo tables, clicked and saved
    // the way the window does it; the worst of 20 rounds counts.
    Params params;
    Link link;
    link.prompter = &prompter;
    if (LoadProtocolTable(params.MSFG[0], PYRO_DATA_DIR "/Config.For", params.SetRows, params.Tables[0]) != 0) {
        out << "Config.For did not load\n";
        return 1;
    }
    const int block = params.Tables[0].BlockSize;
    params.SetImage = QByteArray(block + 1, '\x01');
    for (int i = 0; i < 4; ++i)
        params.SetImage[20 + i] = char(((block - 32) >> (8 * i)) & 0xFF);
    StampImage(params.SetImage, params.Tables[0]);
    const QString item = NodeKeyText(models[models.size() / 3] + 5);
    db.tree.Selected = item;
    SaveItem(db, params, link.view, item);
    qint64 click = 0, save = 0;
    for (int round = 0; round < 20; ++round) {
        t.restart();
        const int shown = TreeNodeClick(db, params, link, item);
        click = std::max(click, t.nsecsElapsed());
        if (shown != 0 || params.MSFG[0].text(1, 3).isEmpty()) {
            out << "the click did not show the item: " << link.view.SB[2] << "\n";
            return 1;
        }
        link.view.MenuImgEnabled[4] = true;
        t.restart();
        MenuImg4Click(db, params, link);
        save = std::max(save, t.nsecsElapsed());
        if (link.view.SB[2] != kStAllSaved) {
            out << "the save failed: " << link.view.SB[2] << "\n";
            return 1;
        }
    }
    report("node click (load, check, decode)", click, 50);
    report("save button (stamp, save)", save, 50);

    const QStringList problems = CheckDb(path);
    out << (problems.isEmpty() ? "file sound after the operations\n" : "PROBLEMS: " + problems.join("; ") + "\n");
    return problems.isEmpty() && prompter.shown.isEmpty() ? 0 : 1;
}
