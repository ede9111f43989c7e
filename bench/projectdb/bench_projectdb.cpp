// Times the project database on 10,000 items in a realistic tree: 50 product
// lines, 8 models each, 24 variants per model (10,050 items in all). Prints
// the time of a full load into the tree model and of one AddChild at the end,
// one DeleteNode of a model with its variants and one MoveCutNode, which
// rebuilds the whole tree from the file and so costs about a load.
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

    const QStringList problems = CheckDb(path);
    out << (problems.isEmpty() ? "file sound after the operations\n" : "PROBLEMS: " + problems.join("; ") + "\n");
    return problems.isEmpty() && prompter.shown.isEmpty() ? 0 : 1;
}
