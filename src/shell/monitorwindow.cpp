#include "monitorwindow.h"

#include "fileguard.h"
#include "prompter.h"

#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDateTime>
#include <QFile>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeySequence>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QShortcut>
#include <QTableView>
#include <QVBoxLayout>
#include <algorithm>

namespace pyro {

// --- the model -------------------------------------------------------------------

MonitorModel::MonitorModel(const ExchangeLog &log, QObject *parent) : QAbstractTableModel(parent), m_log(log) {}

int MonitorModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int MonitorModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

const MonitorRecord &MonitorModel::record(int row) const
{
    return m_log.at(int(m_rows[size_t(row)] - m_log.first()));
}

QVariant MonitorModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= int(m_rows.size()))
        return {};
    const MonitorRecord &r = record(index.row());
    if (role == Qt::DisplayRole) {
        switch (index.column()) {
        case Time: return QDateTime::fromMSecsSinceEpoch(r.msecs).toString(QStringLiteral("HH:mm:ss.zzz"));
        case Tick: return r.tick;
        case Dir: return r.direction == ExchangeRecord::Sent ? QStringLiteral(">>") : QStringLiteral("<<");
        case Function: return QStringLiteral("%1").arg(r.function, 2, 16, QLatin1Char('0')).toUpper();
        case Length: return int(r.frame.size());
        case Bytes: return QString::fromLatin1(r.frame.toHex(' ').toUpper());
        case Text: return FrameText(r.frame);
        case Outcome: return OutcomeWords(r);
        default: return {};
        }
    }
    if (role == Qt::ToolTipRole && index.column() == Bytes && r.frame.size() > 14)
        return QString::fromLatin1(r.frame.left(256).toHex(' ').toUpper()) + (r.frame.size() > 256 ? QStringLiteral(" ...") : QString());
    if (role == Qt::ForegroundRole && r.direction == ExchangeRecord::Received && r.outcome != 0)
        return QColor(200, 0, 0);
    if (role == Qt::ForegroundRole && r.direction == ExchangeRecord::Sent)
        return QColor(0, 0, 160);
    if (role == Qt::TextAlignmentRole && (index.column() == Tick || index.column() == Length))
        return int(Qt::AlignRight | Qt::AlignVCenter);
    return {};
}

QVariant MonitorModel::headerData(int section, Qt::Orientation o, int role) const
{
    if (o != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, o, role);
    static const char *names[] = {"Time", "Tick", "Dir", "Fn", "Len", "Bytes", "Text", "Outcome"};
    return section >= 0 && section < ColumnCount ? QString::fromLatin1(names[section]) : QVariant();
}

void MonitorModel::sync()
{
    if (m_log.total() < m_synced) {      // the log was cleared
        beginResetModel();
        m_rows.clear();
        m_synced = 0;
        endResetModel();
    }
    // What the ring dropped goes first, then what came in.
    const qint64 first = m_log.first();
    size_t gone = 0;
    while (gone < m_rows.size() && m_rows[gone] < first)
        ++gone;
    if (gone > 0) {
        beginRemoveRows({}, 0, int(gone) - 1);
        m_rows.erase(m_rows.begin(), m_rows.begin() + qsizetype(gone));
        endRemoveRows();
    }
    std::vector<qint64> fresh;
    for (qint64 s = std::max(m_synced, first); s < m_log.total(); ++s) {
        const MonitorRecord &r = m_log.at(int(s - first));
        m_seen[r.function] = true;
        if (Matches(m_filter, r))
            fresh.push_back(s);
    }
    m_synced = m_log.total();
    if (!fresh.empty()) {
        beginInsertRows({}, int(m_rows.size()), int(m_rows.size() + fresh.size()) - 1);
        m_rows.insert(m_rows.end(), fresh.begin(), fresh.end());
        endInsertRows();
    }
}

void MonitorModel::setFilter(const MonitorFilter &f)
{
    beginResetModel();
    m_filter = f;
    m_rows.clear();
    for (int i = 0; i < m_log.size(); ++i) {
        if (Matches(m_filter, m_log.at(i)))
            m_rows.push_back(m_log.first() + i);
    }
    m_synced = m_log.total();
    endResetModel();
}

// --- the window ------------------------------------------------------------------

MonitorWindow::MonitorWindow(Link &link, Prompter *prompter, QWidget *parent)
    : QWidget(parent, Qt::Window), m_link(link), m_prompter(prompter)
{
    setObjectName(QStringLiteral("LineMonitor"));
    setWindowTitle(QStringLiteral("Line monitor"));
    m_model = new MonitorModel(log, this);

    m_pause = new QCheckBox(QStringLiteral("Pause"), this);
    m_pause->setObjectName(QStringLiteral("MonitorPause"));
    auto *clearButton = new QPushButton(QStringLiteral("Clear"), this);
    m_function = new QComboBox(this);
    m_function->setObjectName(QStringLiteral("MonitorFunction"));
    m_function->addItem(QStringLiteral("All functions"), -1);
    m_function->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    m_outcome = new QComboBox(this);
    m_outcome->setObjectName(QStringLiteral("MonitorOutcome"));
    m_outcome->addItem(QStringLiteral("All outcomes"), -1);
    const QStringList names = OutcomeNames();
    for (int i = 0; i < names.size(); ++i)
        m_outcome->addItem(names[i], i);
    auto *copyButton = new QPushButton(QStringLiteral("Copy"), this);
    auto *saveButton = new QPushButton(QStringLiteral("Save all..."), this);
    m_count = new QLabel(this);

    auto *bar = new QHBoxLayout;
    bar->addWidget(m_pause);
    bar->addWidget(clearButton);
    bar->addSpacing(12);
    bar->addWidget(new QLabel(QStringLiteral("Function:"), this));
    bar->addWidget(m_function);
    bar->addWidget(new QLabel(QStringLiteral("Outcome:"), this));
    bar->addWidget(m_outcome);
    bar->addSpacing(12);
    bar->addWidget(copyButton);
    bar->addWidget(saveButton);
    bar->addStretch();
    bar->addWidget(m_count);

    m_table = new QTableView(this);
    m_table->setModel(m_model);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setWordWrap(false);
    m_table->verticalHeader()->hide();
    // Fixed row heights and column widths: no measuring of 100,000 rows.
    m_table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    m_table->verticalHeader()->setDefaultSectionSize(m_table->fontMetrics().height() + 4);
    m_table->horizontalHeader()->setStretchLastSection(true);
    QFont mono(QStringLiteral("Monospace"));
    mono.setStyleHint(QFont::TypeWriter);
    m_table->setFont(mono);
    const int ch = QFontMetrics(mono).horizontalAdvance(QLatin1Char('0'));
    const int widths[] = {12, 6, 3, 3, 4, 38, 16, 18};
    for (int c = 0; c < MonitorModel::ColumnCount; ++c)
        m_table->setColumnWidth(c, widths[c] * ch + 12);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(bar);
    layout->addWidget(m_table);
    resize(1180, 600);

    connect(clearButton, &QPushButton::clicked, this, &MonitorWindow::clear);
    connect(copyButton, &QPushButton::clicked, this, &MonitorWindow::copySelected);
    connect(saveButton, &QPushButton::clicked, this, &MonitorWindow::saveAll);
    auto *copyKey = new QShortcut(QKeySequence::Copy, m_table);
    copyKey->setContext(Qt::WidgetShortcut);
    connect(copyKey, &QShortcut::activated, this, &MonitorWindow::copySelected);
    auto refilter = [this] {
        m_model->setFilter({m_function->currentData().toInt(), m_outcome->currentData().toInt()});
        m_table->scrollToBottom();
    };
    connect(m_function, &QComboBox::currentIndexChanged, this, refilter);
    connect(m_outcome, &QComboBox::currentIndexChanged, this, refilter);

    // The view catches up a few times a second; the log itself takes each
    // exchange as it happens, at the cost of one copy into the ring.
    m_timer.setInterval(200);
    connect(&m_timer, &QTimer::timeout, this, &MonitorWindow::sync);
    m_count->setText(QStringLiteral("0 exchanges"));
}

MonitorWindow::~MonitorWindow()
{
    hook(false);
}

void MonitorWindow::hook(bool on)
{
    if (on == m_hooked)
        return;
    m_hooked = on;
    if (on) {
        m_before = m_link.onExchange;
        m_link.onExchange = [this](const ExchangeRecord &r) {
            if (m_before)
                m_before(r);
            if (!m_pause->isChecked())
                log.append(r);
        };
        m_timer.start();
    } else {
        m_link.onExchange = m_before;
        m_before = nullptr;
        m_timer.stop();
    }
}

void MonitorWindow::showEvent(QShowEvent *e)
{
    hook(true);
    QWidget::showEvent(e);
}

void MonitorWindow::hideEvent(QHideEvent *e)
{
    // A minimised monitor goes on recording; a closed one lets go.
    if (!isMinimized())
        hook(false);
    QWidget::hideEvent(e);
}

bool MonitorWindow::paused() const
{
    return m_pause->isChecked();
}

void MonitorWindow::setPaused(bool on)
{
    m_pause->setChecked(on);
}

void MonitorWindow::clear()
{
    log.clear();
    m_model->sync();
    m_count->setText(QStringLiteral("0 exchanges"));
}

void MonitorWindow::fillFunctions()
{
    const auto &seen = m_model->seen();
    int n = 0;
    for (bool s : seen)
        n += s;
    if (n == m_functionsListed)
        return;
    m_functionsListed = n;
    const int current = m_function->currentData().toInt();
    QSignalBlocker block(m_function);
    m_function->clear();
    m_function->addItem(QStringLiteral("All functions"), -1);
    for (int f = 0; f < 256; ++f) {
        if (seen[size_t(f)])
            m_function->addItem(QStringLiteral("%1").arg(f, 2, 16, QLatin1Char('0')).toUpper(), f);
    }
    m_function->setCurrentIndex(std::max(0, m_function->findData(current)));
}

void MonitorWindow::sync()
{
    QScrollBar *bar = m_table->verticalScrollBar();
    const bool atEnd = bar->value() >= bar->maximum() - 2;
    m_model->sync();
    fillFunctions();
    m_count->setText(QStringLiteral("%1 exchanges kept, %2 shown").arg(log.size()).arg(m_model->rowCount()));
    if (atEnd)
        m_table->scrollToBottom();
}

QString MonitorWindow::selectedText() const
{
    QList<int> rows;
    for (const QModelIndex &i : m_table->selectionModel()->selectedRows())
        rows << i.row();
    std::sort(rows.begin(), rows.end());
    QString out;
    for (int r : rows)
        out += MonitorLine(m_model->record(r)) + QLatin1Char('\n');
    return out;
}

void MonitorWindow::copySelected()
{
    const QString text = selectedText();
    if (!text.isEmpty())
        QApplication::clipboard()->setText(text);
}

void MonitorWindow::saveAll()
{
    if (!m_prompter)
        return;
    const QString path = m_prompter->saveFile(QStringLiteral("Save the line monitor"),
                                              QStringLiteral("Text (*.txt);;All files (*)"), QString());
    if (path.isEmpty())
        return;
    const QByteArray text = MonitorText(log, m_model->filter()).toUtf8();
    QString why;
    if (!WriteFileWhole(path, text, &why))
        m_prompter->message(QStringLiteral("Could not write %1: %2").arg(path, why),
                            QStringLiteral("Line monitor"));
}

} // namespace pyro
