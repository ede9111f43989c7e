#include "chiphistory.h"
#include "burn.h"
#include "pgstore.h"
#include "prompter.h"
#include "sqlitestore.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QFile>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QSaveFile>
#include <QTableView>
#include <QVBoxLayout>

namespace pyro {

// --- the picture ---------------------------------------------------------------------

HourChart::HourChart(QWidget *parent) : QWidget(parent)
{
    setMinimumHeight(110);
}

void HourChart::setHours(const QList<HourCount> &hours)
{
    m_hours = hours;
    update();
}

void HourChart::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.fillRect(rect(), palette().base());
    const QRect area = rect().adjusted(40, 8, -8, -20);
    p.setPen(palette().color(QPalette::Mid));
    p.drawRect(area);
    if (m_hours.isEmpty()) {
        p.setPen(palette().color(QPalette::Text));
        p.drawText(area, Qt::AlignCenter, tr("No chips in this span"));
        return;
    }
    // One bar per hour from the first to the last; where hours outnumber the
    // pixels, neighbouring hours share a bar.
    const qint64 first = m_hours.first().hourMs, last = m_hours.last().hourMs;
    const qint64 hours = (last - first) / 3600000 + 1;
    const int bars = int(std::min<qint64>(hours, std::max(1, area.width())));
    QList<qint64> good(bars, 0), bad(bars, 0);
    for (const HourCount &h : m_hours) {
        const int i = int((h.hourMs - first) / 3600000 * bars / hours);
        good[i] += h.good;
        bad[i] += h.failed;
    }
    qint64 top = 1;
    for (int i = 0; i < bars; ++i)
        top = std::max(top, good[i] + bad[i]);
    const double w = double(area.width()) / bars;
    for (int i = 0; i < bars; ++i) {
        const double x = area.left() + i * w;
        const double hg = double(good[i]) / top * area.height();
        const double hb = double(bad[i]) / top * area.height();
        p.fillRect(QRectF(x + 0.5, area.bottom() - hg, std::max(1.0, w - 1), hg), QColor(0x3A, 0x8F, 0x4C));
        p.fillRect(QRectF(x + 0.5, area.bottom() - hg - hb, std::max(1.0, w - 1), hb), QColor(0xC8, 0x3C, 0x32));
    }
    p.setPen(palette().color(QPalette::Text));
    p.drawText(QRect(0, area.top() - 4, 36, 16), Qt::AlignRight, QString::number(top));
    p.drawText(QRect(0, area.bottom() - 12, 36, 16), Qt::AlignRight, QStringLiteral("0"));
    const QString from = QDateTime::fromMSecsSinceEpoch(first).toString(QStringLiteral("yyyy-MM-dd HH:00"));
    const QString to = QDateTime::fromMSecsSinceEpoch(last).toString(QStringLiteral("yyyy-MM-dd HH:00"));
    p.drawText(QRect(area.left(), area.bottom() + 2, area.width(), 16), Qt::AlignLeft, from);
    p.drawText(QRect(area.left(), area.bottom() + 2, area.width(), 16), Qt::AlignRight, to);
    p.drawText(QRect(area.left(), area.bottom() + 2, area.width(), 16), Qt::AlignHCenter,
               tr("chips an hour: good (green), not done (red)"));
}

// --- the writer's side in the window ---------------------------------------------------

ChipRecords::ChipRecords(Burn &burn, const QString &recordFolder, QWidget *parent, const QString &appDir)
    : QObject(parent), m_choice(ChooseRecords(recordFolder, appDir))
{
    noticeParent = parent;
    if (!m_choice.notice.isEmpty())
        QTimer::singleShot(0, this, [this] { notify(m_choice.notice); emit news(); });
    const QString station = DefaultStation();
    burn.chipLog.toStore = [this, station](const ChipRecord &r) {
        // The first chip starts the writer: a run that burns nothing leaves no store.
        if (!m_writer) {
            m_writer = std::make_unique<ChipWriter>(ChipWriterOptions(m_choice));
            m_writer->start();
            m_poll.start();
        }
        m_writer->append(ChipRowFromRecord(r, station, QCoreApplication::applicationVersion()));
    };
    m_poll.setInterval(250);
    connect(&m_poll, &QTimer::timeout, this, &ChipRecords::poll);
}

ChipRecords::~ChipRecords()
{
    if (m_writer)
        m_writer->stop();
}

void ChipRecords::poll()
{
    if (!m_writer)
        return;
    const ChipWriter::Events e = m_writer->take();
    if (e.messages.isEmpty() && e.met.isEmpty() && e.stored == 0)
        return;
    met += e.met;
    for (const QString &m : e.messages)
        notify(m);
    emit news();
}

void ChipRecords::notify(const QString &m)
{
    messages << m;
    if (!boxes || !noticeParent)
        return;
    // Not modal: the line goes on while the box waits for the operator.
    auto *box = new QMessageBox(QMessageBox::Warning, tr("Chip store"), m, QMessageBox::Ok, noticeParent);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setModal(false);
    box->show();
}

bool ChipRecords::lineDown() const
{
    return m_writer && m_writer->lineFaulty();
}

// --- the window --------------------------------------------------------------------------

ChipHistoryWindow::ChipHistoryWindow(ChipRecords &records, Prompter *prompter, QWidget *parent)
    : QWidget(parent, Qt::Window), m_records(records), m_prompter(prompter)
{
    const RecordsChoice choice = records.choice();
    const QString path = records.storePath();
    // Each connection its own store of the same kind, each on its own
    // thread: the table's and the summary's.
    auto makeStore = [choice, path]() -> std::unique_ptr<ChipStore> {
        if (choice.line.isSet()) {
            PgChipStore::Options po;
            po.create = false;
            return std::make_unique<PgChipStore>(choice.line, po);
        }
        return std::make_unique<SqliteChipStore>(path, SqliteChipStore::Options{false, false, 250});
    };
    m_rows = std::make_unique<ChipStoreThread>(makeStore);
    // The summary of a million rows takes a while: it is worked out beside
    // the window, which pages its table from its own connection meanwhile.
    m_stats = new ChipStatsWorker(makeStore, this);
    connect(m_stats, &ChipStatsWorker::ready, this, &ChipHistoryWindow::showStats);
    setObjectName(QStringLiteral("ChipHistory"));
    setWindowTitle(tr("Chip history"));
    resize(1000, 640);
    auto *layout = new QVBoxLayout(this);
    auto *filters = new QHBoxLayout;
    auto edit = [&](const QString &label, const QString &hint, int width) {
        filters->addWidget(new QLabel(label, this));
        auto *e = new QLineEdit(this);
        e->setPlaceholderText(hint);
        e->setClearButtonEnabled(true);
        e->setMaximumWidth(width);
        filters->addWidget(e);
        connect(e, &QLineEdit::textChanged, this, [this] { m_typing.start(); });
        return e;
    };
    m_chip = edit(tr("Identity"), tr("first hex digits"), 230);
    m_order = edit(tr("Order"), tr("beginning"), 120);
    m_day = edit(tr("Day"), tr("yyyy-MM-dd"), 110);
    m_port = edit(tr("Port"), tr("beginning"), 110);
    filters->addWidget(new QLabel(tr("Result"), this));
    m_result = new QComboBox(this);
    m_result->addItems({tr("all"), QStringLiteral("done"), QStringLiteral("failed"), QStringLiteral("stopped"),
                        QStringLiteral("interrupted"), QStringLiteral("port lost"), QStringLiteral("timed out")});
    filters->addWidget(m_result);
    connect(m_result, &QComboBox::currentIndexChanged, this, [this] { applyFilter(); });
    filters->addStretch();
    auto *exportButton = new QPushButton(tr("Export CSV..."), this);
    exportButton->setObjectName(QStringLiteral("ExportCsv"));
    filters->addWidget(exportButton);
    layout->addLayout(filters);

    m_model = new ChipTableModel(this);
    m_model->setStoreThread(m_rows.get());
    connect(m_model, &ChipTableModel::firstPage, this, &ChipHistoryWindow::pageArrived);
    connect(m_model, &ChipTableModel::arrived, this, [this] { refreshSummary(); });
    m_table = new QTableView(this);
    m_table->setModel(m_model);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->verticalHeader()->setDefaultSectionSize(m_table->fontMetrics().height() + 4);
    m_table->verticalHeader()->hide();
    m_table->horizontalHeader()->setStretchLastSection(true);
    const int widths[] = {140, 90, 90, 200, 80, 200, 60, 60, 50, 80};
    for (int i = 0; i < ChipTableModel::ColumnCount; ++i)
        m_table->setColumnWidth(i, widths[i]);
    layout->addWidget(m_table, 1);
    m_summary = new QLabel(this);
    m_summary->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_summary);
    m_chart = new HourChart(this);
    layout->addWidget(m_chart);
    m_notice = new QLabel(this);
    m_notice->setWordWrap(true);
    m_notice->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_notice);

    m_typing.setSingleShot(true);
    m_typing.setInterval(250);
    connect(&m_typing, &QTimer::timeout, this, &ChipHistoryWindow::applyFilter);
    m_follow.setInterval(1000);
    connect(&m_follow, &QTimer::timeout, this, &ChipHistoryWindow::follow);
    connect(&records, &ChipRecords::news, this, [this] {
        showNews();
        follow();
    });
    connect(exportButton, &QPushButton::clicked, this, [this] {
        if (!m_prompter)
            return;
        const QString path = m_prompter->saveFile(tr("Export the chips shown"), tr("CSV files (*.csv)"), QString());
        if (!path.isEmpty())
            exportCsv(path);
    });
}

ChipHistoryWindow::~ChipHistoryWindow() = default;

void ChipHistoryWindow::showEvent(QShowEvent *)
{
    m_follow.start();
    applyFilter();
    showNews();
}

ChipQuery ChipHistoryWindow::currentQuery() const
{
    ChipQuery q;
    q.prefix = true;
    q.chipId = m_chip->text().trimmed().toUpper();
    q.order = m_order->text().trimmed();
    q.port = m_port->text().trimmed();
    if (m_result->currentIndex() > 0)
        q.result = m_result->currentText();
    const QDate day = QDate::fromString(m_day->text().trimmed(), QStringLiteral("yyyy-MM-dd"));
    if (day.isValid()) {
        q.since = QDateTime(day, QTime(0, 0)).toMSecsSinceEpoch();
        q.until = QDateTime(day.addDays(1), QTime(0, 0)).toMSecsSinceEpoch();
    }
    return q;
}

void ChipHistoryWindow::applyFilter()
{
    m_typing.stop();
    const bool dayOk = m_day->text().trimmed().isEmpty()
        || QDate::fromString(m_day->text().trimmed(), QStringLiteral("yyyy-MM-dd")).isValid();
    m_day->setStyleSheet(dayOk ? QString() : QStringLiteral("color: #B02020"));
    m_model->setQuery(currentQuery());
}

// The first page of a query is in, or the store could not give it.
void ChipHistoryWindow::pageArrived()
{
    if (!m_model->lastError().isEmpty()) {
        // A server that can't be reached is asked again after a while, or
        // when a filter is typed; the bench's own file at the next follow,
        // as it is made by the first chip stored.
        if (m_records.choice().line.isSet())
            m_nextTry = QDateTime::currentMSecsSinceEpoch() + 15000;
        m_summary->setText(tr("No chips to show: %1").arg(m_model->lastError()));
        return;
    }
    m_summary->setText(tr("Summing up the chips shown..."));
    refreshSummary();
}

void ChipHistoryWindow::refreshSummary()
{
    m_stats->request(m_model->query());
}

void ChipHistoryWindow::showStats(const ChipStats &stats)
{
    if (!stats.error.isEmpty()) {
        m_summary->setText(stats.error);
        return;
    }
    const ChipSummary &s = stats.summary;
    m_summary->setText(tr("%1 chips, %2 good, %3 not done, yield %4%, %5 chips an hour, median %6 s, %7 retries")
                           .arg(s.chips).arg(s.good).arg(s.failed)
                           .arg(s.yield() * 100.0, 0, 'f', 1)
                           .arg(s.chipsAnHour(), 0, 'f', 1)
                           .arg(double(s.medianDurationMs) / 1000.0, 0, 'f', 3)
                           .arg(s.retries));
    m_chart->setHours(stats.hours);
}

void ChipHistoryWindow::follow()
{
    if (!isVisible() || !m_model->settled())
        return;
    if (!m_model->lastError().isEmpty()) {
        if (m_records.lineDown() || QDateTime::currentMSecsSinceEpoch() < m_nextTry)
            return;
        applyFilter();
        return;
    }
    m_model->followNew();
}

void ChipHistoryWindow::showNews()
{
    QStringList lines;
    for (int i = std::max(0, int(m_records.met.size()) - 5); i < m_records.met.size(); ++i)
        lines << ChipMetText(m_records.met[i]);
    if (!m_records.messages.isEmpty())
        lines << m_records.messages.last();
    m_notice->setText(lines.join(QLatin1Char('\n')));
}

void ChipHistoryWindow::exportCsv(const QString &path)
{
    const ChipQuery q = m_model->query();
    // The thread ends before the window, and an answer to a window gone is
    // dropped by Qt.
    m_rows->post([this, path, q](ChipStore *store, const QString &openError) {
        QString error = openError;
        QSaveFile f(path);
        bool ok = store != nullptr && f.open(QIODevice::WriteOnly);
        if (ok) {
            f.write((CsvJoin(ChipRowHeader()) + QStringLiteral("\r\n")).toUtf8());
            ok = store->select(q, [&](const ChipRow &r) {
                return f.write((CsvJoin(ChipRowFields(r)) + QStringLiteral("\r\n")).toUtf8()) > 0;
            }, &error);
            ok = ok && f.commit();
        }
        if (!ok && error.isEmpty())
            error = f.errorString();
        QMetaObject::invokeMethod(this, [this, path, ok, error] {
            if (!ok && m_prompter)
                m_prompter->message(tr("Could not write %1: %2").arg(path, error), QStringLiteral("Hint"));
            emit exported(ok);
        }, Qt::QueuedConnection);
    });
}

} // namespace pyro
