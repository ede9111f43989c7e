#include "comparewindow.h"

#include "fileguard.h"
#include "frame.h"
#include "gridedit.h"
#include "image.h"
#include "itemstore.h"
#include "projectdb.h"
#include "prompter.h"
#include "settingsfile.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QFileInfo>
#include <QStandardItem>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableView>
#include <QVBoxLayout>

namespace pyro {

namespace {

enum { ColRow, ColGroup, ColItem, ColUnit, ColFirst };
const QString kFilter = QStringLiteral("Settings (*.json *.csv)|*.json;*.csv|Block (*.bin)|*.bin");

const struct {
    CompareSourceKind kind;
    const char *text;
} kKinds[] = {
    {CompareSourceKind::None, "(none)"},
    {CompareSourceKind::Board, "Board (read now)"},
    {CompareSourceKind::Working, "Working copy"},
    {CompareSourceKind::Item, "Project item (selected)"},
    {CompareSourceKind::File, "Settings file..."},
    {CompareSourceKind::Defaults, "Table defaults"},
};

} // namespace

// --- the model -------------------------------------------------------------------

int CompareModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int CompareModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColFirst + int(m_heads.size());
}

QVariant CompareModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const RowCompare &r = m_rows[index.row()];
    if (role == Qt::DisplayRole) {
        switch (index.column()) {
        case ColRow: return r.row.row;
        case ColGroup: return r.row.group;
        case ColItem: return r.row.caption;
        case ColUnit: return r.row.unit;
        default: {
            const SettingValue &v = r.values.value(index.column() - ColFirst);
            if (v.stored.isEmpty())
                return QString();
            return v.hasShown ? v.shown : QStringLiteral("(%1)").arg(v.stored);
        }
        }
    }
    if (role == Qt::ToolTipRole && index.column() >= ColFirst)
        return QStringLiteral("stored %1").arg(r.values.value(index.column() - ColFirst).stored);
    if (role == Qt::BackgroundRole && r.differs)
        return QColor(255, 215, 215);
    return {};
}

QVariant CompareModel::headerData(int section, Qt::Orientation o, int role) const
{
    if (o != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, o, role);
    static const char *fixed[] = {"No.", "Group", "Item", "Unit"};
    if (section < ColFirst)
        return QString::fromLatin1(fixed[section]);
    return m_heads.value(section - ColFirst);
}

void CompareModel::show(const QList<CompareSource> &sources, bool onlyDiffering)
{
    beginResetModel();
    m_heads.clear();
    QList<QByteArray> blocks;
    for (const CompareSource &s : sources) {
        if (s.kind == CompareSourceKind::None)
            continue;
        m_heads << s.label;
        blocks << s.block;
    }
    m_rows.clear();
    m_differing = 0;
    for (const RowCompare &c : CompareBlocks(m_p, blocks)) {
        m_differing += c.differs;
        if (c.differs || !onlyDiffering)
            m_rows << c;
    }
    endResetModel();
}

// --- the window ------------------------------------------------------------------

CompareWindow::CompareWindow(Link &link, Params &params, ProjectDb &db, Prompter *prompter, QWidget *parent)
    : QWidget(parent), m_link(link), m_params(params), m_db(db), m_prompter(prompter)
{
    setWindowTitle(QStringLiteral("Compare settings"));
    resize(900, 600);
    InstallBoardRead(link, params, m_read);

    auto *top = new QHBoxLayout;
    for (int i = 0; i < kColumns; ++i) {
        auto *box = new QComboBox(this);
        box->setObjectName(QStringLiteral("source%1").arg(i));
        for (const auto &k : kKinds)
            if (i == kColumns - 1 || k.kind != CompareSourceKind::None)
                box->addItem(QString::fromLatin1(k.text), int(k.kind));
        top->addWidget(new QLabel(QString(QChar('A' + i)) + QLatin1Char(':'), this));
        top->addWidget(box);
        m_box[size_t(i)] = box;
    }
    m_box[0]->setCurrentIndex(m_box[0]->findData(int(CompareSourceKind::Working)));
    m_box[1]->setCurrentIndex(m_box[1]->findData(int(CompareSourceKind::Defaults)));
    m_only = new QCheckBox(QStringLiteral("Only rows that differ"), this);
    top->addWidget(m_only);
    top->addStretch();

    m_model = new CompareModel(params, this);
    m_table = new QTableView(this);
    m_table->setModel(m_model);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->verticalHeader()->hide();
    m_table->verticalHeader()->setDefaultSectionSize(m_table->fontMetrics().height() + 6);
    m_table->horizontalHeader()->setStretchLastSection(true);

    auto *buttons = new QHBoxLayout;
    auto *refresh = new QPushButton(QStringLiteral("Refresh"), this);
    refresh->setObjectName(QStringLiteral("refresh"));
    auto *exportA = new QPushButton(QStringLiteral("Export A..."), this);
    exportA->setObjectName(QStringLiteral("export"));
    auto *import = new QPushButton(QStringLiteral("Import into working copy..."), this);
    import->setObjectName(QStringLiteral("import"));
    m_status = new QLabel(this);
    m_status->setWordWrap(true);
    buttons->addWidget(refresh);
    buttons->addWidget(exportA);
    buttons->addWidget(import);
    buttons->addStretch();

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(m_table, 1);
    layout->addWidget(m_status);
    layout->addLayout(buttons);

    for (int i = 0; i < kColumns; ++i)
        connect(m_box[size_t(i)], &QComboBox::activated, this, [this, i] {
            take(i);
            showRows();
        });
    connect(m_only, &QCheckBox::toggled, this, [this] { showRows(); });
    connect(refresh, &QPushButton::clicked, this, [this] { refreshSources(); });
    connect(exportA, &QPushButton::clicked, this, [this] { exportColumn(0); });
    connect(import, &QPushButton::clicked, this, [this] { importToWorking(); });
    // The board's answer comes on a later tick.
    m_poll.setInterval(100);
    connect(&m_poll, &QTimer::timeout, this, [this] {
        if (m_read.reads == m_readsSeen)
            return;
        m_readsSeen = m_read.reads;
        for (CompareSource &s : m_src)
            if (s.kind == CompareSourceKind::Board) {
                s.block = m_read.block;
                s.error = m_read.error;
            }
        showRows();
    });
    m_poll.start();
    refreshSources();
}

CompareWindow::~CompareWindow()
{
    m_link.modeStep[kBoardReadMode] = {};
    if (m_link.ModeRequest == kBoardReadMode)
        m_link.ModeRequest = 0;
}

void CompareWindow::refreshSources()
{
    for (int i = 0; i < kColumns; ++i)
        take(i);
    showRows();
}

void CompareWindow::take(int i)
{
    CompareSource &s = m_src[size_t(i)];
    const auto kind = CompareSourceKind(m_box[size_t(i)]->currentData().toInt());
    const QString oldPath = s.kind == CompareSourceKind::File ? s.path : QString();
    s = CompareSource();
    s.kind = kind;
    const int size = m_params.Tables[0].BlockSize;
    switch (kind) {
    case CompareSourceKind::None:
        break;
    case CompareSourceKind::Board:
        s.label = QStringLiteral("Board");
        s.block = m_read.block;          // the last read stands until the next ends
        if (!RequestBoardRead(m_read))
            s.error = m_read.error;
        else
            s.error = QStringLiteral("reading...");
        break;
    case CompareSourceKind::Working:
        s.label = QStringLiteral("Working copy");
        s.block = m_params.SetImage.left(size);
        // The working copy's CRC goes stale with every edit; only the length
        // must fit for its rows to mean anything.
        if (s.block.size() < size || int32_t(getLe32(s.block, kImageLengthAt)) != size - kImageHeaderSize) {
            s.block.clear();
            s.error = QStringLiteral("holds no settings block yet");
        }
        break;
    case CompareSourceKind::Item: {
        const QString key = m_db.tree.Selected;
        s.label = QStringLiteral("Item");
        if (key.isEmpty() || m_db.TreePath.isEmpty()) {
            s.error = QStringLiteral("no project item is selected");
            break;
        }
        if (const QStandardItem *node = FindNode(m_db.tree, key))
            s.label = QStringLiteral("Item %1").arg(node->text());
        if (!ReadItemSettingsByKey(m_db.TreePath, key, size, &s.block, &s.error) || !GoodBlock(m_params, s.block, &s.error))
            s.block.clear();
        break;
    }
    case CompareSourceKind::File: {
        s.path = oldPath.isEmpty() && m_prompter ? m_prompter->openFile(QStringLiteral("Settings file"), kFilter, QString())
                                                  : oldPath;
        s.label = QStringLiteral("File %1").arg(QFileInfo(s.path).fileName());
        if (s.path.isEmpty())
            s.error = QStringLiteral("no file chosen");
        else if (!ReadSettingsSource(m_params, s.path, &s.block, &s.error))
            s.block.clear();
        break;
    }
    case CompareSourceKind::Defaults:
        s.label = QStringLiteral("Table defaults");
        s.block = DefaultsBlock(m_params);
        break;
    }
}

void CompareWindow::showRows()
{
    m_model->show(QList<CompareSource>(m_src.begin(), m_src.end()), m_only->isChecked());
    QStringList notes;
    for (int i = 0; i < kColumns; ++i)
        if (m_src[size_t(i)].kind != CompareSourceKind::None && !m_src[size_t(i)].error.isEmpty())
            notes << QStringLiteral("%1 %2: %3").arg(QChar('A' + i)).arg(m_src[size_t(i)].label, m_src[size_t(i)].error);
    notes.prepend(QStringLiteral("%1 of %2 rows differ").arg(m_model->differing()).arg(SettingRows(m_params).size()));
    m_status->setText(notes.join(QStringLiteral("\n")));
    m_table->resizeColumnsToContents();
}

void CompareWindow::exportColumn(int i)
{
    const CompareSource &s = m_src[size_t(i)];
    // An edited working copy carries a stale CRC: the file gets it stamped.
    QByteArray block = s.block + QByteArray(1, '\0');
    StampImage(block, m_params.Tables[0]);
    block.chop(1);
    if (s.block.isEmpty() || !GoodBlock(m_params, block)) {
        if (m_prompter)
            m_prompter->message(QStringLiteral("%1 holds no settings block to export.").arg(s.label), QStringLiteral("Hint"));
        return;
    }
    const QString path = m_prompter ? m_prompter->saveFile(QStringLiteral("Export settings"), kFilter, QString()) : QString();
    if (path.isEmpty())
        return;
    const SettingsFormat format = path.endsWith(QLatin1String(".csv"), Qt::CaseInsensitive) ? SettingsFormat::Csv : SettingsFormat::Json;
    QString why;
    if (!WriteFileWhole(path, ExportSettings(m_params, block, format, s.label), &why)) {
        if (m_prompter)
            m_prompter->message(QStringLiteral("%1 can't be written: %2").arg(path, why), QStringLiteral("Hint"));
        return;
    }
    m_status->setText(QStringLiteral("%1 written to %2").arg(s.label, path));
}

void CompareWindow::importToWorking()
{
    const QString path = m_prompter ? m_prompter->openFile(QStringLiteral("Import settings"), kFilter, QString()) : QString();
    if (path.isEmpty())
        return;
    const int size = m_params.Tables[0].BlockSize;
    // Onto the working copy when it holds a block, so its header stays.
    QByteArray base = m_params.SetImage.left(size);
    if (!GoodBlock(m_params, base)) {
        QByteArray stamped = m_params.SetImage;
        base = StampImage(stamped, m_params.Tables[0]) == 0 ? stamped.left(size) : QByteArray();
    }
    QByteArray bytes, block;
    QString error;
    ImportDiag diag;
    if (!ReadWholeFile(path, 4 << 20, &bytes, &error) || !ImportSettings(m_params, bytes, base, block, diag)) {
        if (m_prompter)
            m_prompter->message(QStringLiteral("%1: %2\nNothing was changed.").arg(path, error.isEmpty() ? diag.text() : error),
                                QStringLiteral("Hint"));
        return;
    }
    // The cells that change are marked as edits are; the save button comes on.
    const QList<RowCompare> rows = CompareBlocks(m_params, {base.isEmpty() ? BlankBlock(m_params) : base, block});
    m_params.SetImage.replace(0, size, block);
    ++m_params.SetImageLoads;
    GridModel &g = m_params.MSFG[0];
    DecodeBlock(g, m_params.SetImage, m_params.SetRows, m_params.Tables[0], m_link.prompter);
    int changed = 0;
    for (const RowCompare &c : rows)
        if (c.differs) {
            g.setFore(c.row.row, kValueCol, kEditedFore);
            ++changed;
        }
    m_link.view.MenuImgEnabled[4] = true;
    refreshSources();
    m_status->setText(m_status->text() + QStringLiteral("\n%1 imported into the working copy: %2 rows changed").arg(path).arg(changed));
}

} // namespace pyro
