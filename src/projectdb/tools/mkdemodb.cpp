// Writes the demo project database: a few product lines, their models and
// customer variants, each with notes and the simulated board's factory
// settings block. Run through the build target `demodb`, which writes
// data/Config.MPK.
#include "projectdb.h"
#include "prompter.h"
#include "samplevalues.h"

#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

using namespace pyro;

namespace {

struct Item {
    int depth;
    const char *title;
    const char *function;
    const char *program;
    const char *order;
    const char *remark;
};

// One line per item, children under their parent by depth.
const Item kItems[] = {
    {0, "MC-2200 驱动器", "48V 永磁电机驱动器产品线，出厂参数基准。", "", "", "基准"},
    {1, "MC-2200 标准型 1.5kW", "标准型，速度闭环，额定电流 32A。", "D:\\Firmware\\MC2200_STD_V2.1.BIN", "", "已验证"},
    {2, "客户A 电动叉车", "叉车行走电机，加速时间放长，限速 3000rpm。", "D:\\Firmware\\MC2200_STD_V2.1.BIN", "SO-2026-0117", "量产"},
    {2, "客户B 清洗机", "清洗机刷盘电机，低速大扭矩。", "D:\\Firmware\\MC2200_STD_V2.1.BIN", "SO-2026-0203", "试产"},
    {1, "MC-2200 重载型 3kW", "重载型，双电流环，额定电流 65A。", "D:\\Firmware\\MC2200_HD_V1.4.BIN", "", "已验证"},
    {2, "K700 出口版", "出口版本，英文面板，过压点 60V。", "D:\\Firmware\\MC2200_HD_V1.4.BIN", "EX-K700-0042", "出口"},
    {0, "MC-1100 伺服", "小功率伺服产品线。", "", "", ""},
    {1, "MC-1100 400W", "400W 伺服，位置模式。", "D:\\Firmware\\MC1100_V3.0.BIN", "", ""},
    {1, "MC-1100 750W 带刹车", "750W 伺服，带抱闸输出。", "D:\\Firmware\\MC1100_V3.0.BIN", "SO-2025-1188", "停产"},
    {0, "维修备件", "售后维修用的参数集。", "", "", ""},
    {1, "返修板 出厂默认", "返修后恢复出厂设置用。", "D:\\Firmware\\MC2200_STD_V2.1.BIN", "", "维修"},
};

bool writeNotes(const QString &path, int32_t no, const Item &it, const QByteArray &image)
{
    DbFile f;
    DbRecord r;
    if (!OpenDbFile(f, path, DbMode::ReadWrite) || !GetItem(f, no, r))
        return false;
    PackImage(r.ParamImage, image, int(image.size()));
    PackField(r.FunctionText, QString::fromUtf8(it.function), QString(), kFunctionLimit);
    PackField(r.ProgramFile, QString::fromUtf8(it.program), QString(), kProgramLimit);
    PackField(r.ConfigFile, QStringLiteral("Config.For"), QString(), kNoteLimit);
    PackField(r.DisplayFile, QStringLiteral("Display.For"), QString(), kNoteLimit);
    PackField(r.OrderNumber, QString::fromUtf8(it.order), QString(), kNoteLimit);
    PackField(r.Remark, QString::fromUtf8(it.remark), QString(), kNoteLimit);
    const bool ok = PutRec(f, no, r);
    CloseDbFile(f);
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream err(stderr);
    if (argc != 2) {
        err << "usage: pyrolink-mkdemodb OUT.MPK\n";
        return 2;
    }
    const QString path = QString::fromLocal8Bit(argv[1]);
    QFile::remove(path);

    ScriptedPrompter prompter;   // collects any message for the error line
    ProjectDb db;
    db.prompter = &prompter;
    // A fixed stamp, so that a regenerated file differs only where it should.
    db.now = [] { return QDateTime(QDate(2026, 1, 5), QTime(8, 30, 0)); };
    CreateDb(db, path);
    // Current without an open: an open would stamp it again and leave a twin beside it.
    db.CurrentPath = db.TreePath = path;
    db.DbOpen = true;

    const QByteArray image = SampleSettingsBlock();
    QList<int32_t> parents;   // record of the last item at each depth
    for (const Item &it : kItems) {
        const int depth = std::min<int>(it.depth, int(parents.size()));
        db.tree.Selected = depth == 0 ? QString() : NodeKeyText(parents[depth - 1]);
        const int rc = depth == 0 ? AddTopLevel(db) : AddChild(db);
        const int32_t no = db.WorkRecord.SelfRec;
        if (rc != 0 || no < 2) {
            err << "adding \"" << it.title << "\" failed: " << prompter.shown.join("; ") << "\n";
            return 1;
        }
        db.tree.Selected = NodeKeyText(no);
        if (RenameNode(db, QString::fromUtf8(it.title)) != 0 || !writeNotes(path, no, it, image)) {
            err << "writing \"" << it.title << "\" failed: " << prompter.shown.join("; ") << "\n";
            return 1;
        }
        parents.resize(depth);
        parents.append(no);
    }
    const QStringList problems = CheckDb(path);
    if (!problems.isEmpty()) {
        err << problems.join("\n") << "\n";
        return 1;
    }
    QTextStream(stdout) << "wrote " << path << ": " << std::size(kItems) << " items, settings block of "
                        << image.size() << " bytes\n";
    return 0;
}
