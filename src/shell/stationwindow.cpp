#include "stationwindow.h"
#include "burn.h"
#include "chipwriter.h"
#include "prompter.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QFileInfo>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QVBoxLayout>

namespace pyro {

namespace {

QFont sized(const QFont &base, double points, bool bold)
{
    QFont f = base;
    f.setPointSizeF(points);
    f.setBold(bold);
    return f;
}

void setText(QLabel *l, const QString &text)
{
    if (l->text() != text)
        l->setText(text);
}

void setColours(QWidget *w, QColor bg, QColor fg)
{
    const QString style = QStringLiteral("background:%1; color:%2; border-radius:6px;").arg(bg.name(), fg.name());
    if (w->styleSheet() != style)
        w->setStyleSheet(style);
}

} // namespace

StationWindow::StationWindow(Prompter *prompter, QWidget *parent)
    : QWidget(parent)
    , m_prompter(prompter)
{
    setWindowTitle(QStringLiteral("Production station"));
    station.recordFolder = RecordFolder();
    // Every chip also goes to the chip store beside the day's records; the
    // first chip starts its writer, so a station that burns nothing leaves none.
    station.toStore = [this](const ChipRecord &r) {
        if (station.recordFolder.isEmpty())
            return;
        if (!m_writer) {
            // The store is chosen with the first chip, when the application
            // folder is known: records.conf there may name the line's.
            const RecordsChoice choice = ChooseRecords(station.recordFolder, station.appDir);
            if (!choice.notice.isEmpty())
                say(choice.notice);
            m_writer = std::make_unique<ChipWriter>(ChipWriterOptions(choice));
            m_writer->start();
        }
        m_writer->append(ChipRowFromRecord(r, DefaultStation(), QCoreApplication::applicationVersion()));
    };
    station.appDir = QCoreApplication::applicationDirPath();

    auto *top = new QVBoxLayout(this);
    // The image and what goes with it.
    auto *image = new QHBoxLayout;
    m_load = new QPushButton(QStringLiteral("Load File"), this);
    m_recent = new QComboBox(this);
    m_recent->setMinimumWidth(320);
    m_recent->setToolTip(QStringLiteral("The image for the next Start, and the last ones loaded"));
    m_order = new QLineEdit(this);
    m_order->setPlaceholderText(QStringLiteral("order"));
    m_order->setMaxLength(30);
    m_frameLen = new QComboBox(this);
    m_frameLen->addItems(kStationFrameLens);
    m_frameLen->setToolTip(QStringLiteral("Bytes per write frame"));
    image->addWidget(m_load);
    image->addWidget(m_recent, 1);
    image->addWidget(new QLabel(QStringLiteral("Order"), this));
    image->addWidget(m_order);
    image->addWidget(new QLabel(QStringLiteral("Frame"), this));
    image->addWidget(m_frameLen);
    top->addLayout(image);

    auto *run = new QHBoxLayout;
    m_autoLoad = new QCheckBox(QStringLiteral("AutoLoad"), this);
    m_keepInF = new QCheckBox(QStringLiteral("KeepInF"), this);
    m_fastLine = new QCheckBox(QStringLiteral("Fast line"), this);
    m_sound = new QCheckBox(QStringLiteral("Sound"), this);
    m_chips = new QSpinBox(this);
    m_chips->setRange(0, 1000000);
    m_chips->setSpecialValueText(QStringLiteral("no limit"));
    m_chips->setToolTip(QStringLiteral("Good chips in all, over every port"));
    m_start = new QPushButton(QStringLiteral("Start"), this);
    m_stop = new QPushButton(QStringLiteral("Stop all"), this);
    for (QPushButton *b : {m_start, m_stop})
        b->setFont(sized(font(), 12, true));
    run->addWidget(m_autoLoad);
    run->addWidget(m_keepInF);
    run->addWidget(m_fastLine);
    run->addWidget(m_sound);
    run->addWidget(new QLabel(QStringLiteral("Chips"), this));
    run->addWidget(m_chips);
    run->addStretch(1);
    m_portBox = new QComboBox(this);
    m_portBox->setEditable(true);
    for (int n = 1; n <= 30; ++n)
        m_portBox->addItem(QStringLiteral("COM%1").arg(n));
    m_add = new QPushButton(QStringLiteral("Add port"), this);
    run->addWidget(m_portBox);
    run->addWidget(m_add);
    run->addSpacing(20);
    run->addWidget(m_start);
    run->addWidget(m_stop);
    top->addLayout(run);

    auto *area = new QScrollArea(this);
    area->setWidgetResizable(true);
    auto *inner = new QWidget(area);
    m_rowsLayout = new QVBoxLayout(inner);
    m_rowsLayout->addStretch(1);
    area->setWidget(inner);
    top->addWidget(area, 1);

    auto *foot = new QHBoxLayout;
    m_message = new QLabel(this);
    m_message->setFont(sized(font(), 11, false));
    m_totals = new QLabel(this);
    m_totals->setFont(sized(font(), 14, true));
    foot->addWidget(m_message, 1);
    foot->addWidget(m_totals);
    top->addLayout(foot);

    connect(m_load, &QPushButton::clicked, this, [this] { loadFile(); refresh(); });
    connect(m_recent, &QComboBox::activated, this, [this](int i) {
        QString why;
        if (!StationLoadFile(station, m_recent->itemText(i), &why))
            say(why);
        refresh();
    });
    connect(m_add, &QPushButton::clicked, this, [this] { addPort(); refresh(); });
    connect(m_start, &QPushButton::clicked, this, [this] { start(); refresh(); });
    connect(m_stop, &QPushButton::clicked, this, [this] { StationStop(station); refresh(); });
    connect(m_sound, &QCheckBox::toggled, this, [this](bool on) { sound = on; });

    m_tick.setTimerType(Qt::PreciseTimer);
    m_tick.setInterval(15);
    connect(&m_tick, &QTimer::timeout, this, &StationWindow::tick);
    m_tick.start();
    resize(1100, 520);
    refresh();
}

StationWindow::~StationWindow()
{
    // The program ending with the window still open: the same as a close.
    m_tick.stop();
    StationStop(station);
    StationWriteRecord(station);
    if (m_writer)
        m_writer->stop();
}

void StationWindow::say(const QString &text)
{
    station.message = text;
}

void StationWindow::addPort()
{
    addPortNamed(m_portBox->currentText());
}

void StationWindow::addPortNamed(const QString &name)
{
    QString why;
    if (!StationAddPort(station, name, &why)) {
        say(why);
        return;
    }
    say(QStringLiteral("%1 added").arg(station.ports.back()->name));
    rebuildRows();
    refresh();
}

void StationWindow::loadFile()
{
    if (StationRunning(station)) {
        say(QStringLiteral("Stop every row before loading another image"));
        return;
    }
    const QString start = station.binPath.isEmpty() ? QString() : QFileInfo(station.binPath).absolutePath();
    const QString name = m_prompter ? m_prompter->openFile(QStringLiteral("Open"), QStringLiteral("File(*.BIN)|*.BIN"), start)
                                    : QString();
    if (!name.isEmpty())
        loadFileNamed(name);
}

void StationWindow::loadFileNamed(const QString &path)
{
    QString why;
    if (!StationLoadFile(station, path, &why))
        say(why);
    refresh();
}

void StationWindow::start()
{
    // What the operator set, taken at the click: read-only while the rows run.
    station.order = m_order->text();
    station.frameLen = m_frameLen->currentText();
    station.autoLoad = m_autoLoad->isChecked();
    station.keepInF = m_keepInF->isChecked();
    station.fastLine = m_fastLine->isChecked();
    station.chipsTarget = m_chips->value();
    StationStart(station);
}

void StationWindow::tick()
{
    StationTick(station);
    if (m_writer) {
        const ChipWriter::Events e = m_writer->take();
        for (const QString &m : e.messages)
            say(m);
        for (const ChipMet &m : e.met)
            say(ChipMetText(m));
    }
    refresh();
}

void StationWindow::rebuildRows()
{
    for (Row &r : m_rows)
        delete r.frame;
    m_rows.clear();
    m_lastVerdict.assign(station.ports.size(), Verdict::None);
    QWidget *inner = m_rowsLayout->parentWidget();
    for (size_t i = 0; i < station.ports.size(); ++i) {
        Row r;
        auto *frame = new QFrame(inner);
        frame->setFrameShape(QFrame::StyledPanel);
        r.frame = frame;
        auto *g = new QGridLayout(frame);
        r.port = new QLabel(frame);
        r.port->setFont(sized(font(), 16, true));
        r.lamp = new QLabel(frame);
        r.lamp->setFixedSize(22, 22);
        r.state = new QLabel(frame);
        r.state->setFont(sized(font(), 11, false));
        r.state->setFixedWidth(300);
        r.state->setWordWrap(true);
        r.chip = new QLabel(frame);
        r.chip->setFont(QFont(QStringLiteral("monospace"), 10));
        r.chip->setTextInteractionFlags(Qt::TextSelectableByMouse);
        r.counters = new QLabel(frame);
        r.counters->setFont(sized(font(), 12, true));
        r.bar = new QProgressBar(frame);
        r.bar->setRange(0, 100);
        r.bar->setFixedWidth(220);
        r.verdict = new QLabel(frame);
        r.verdict->setFont(sized(font(), 34, true));
        r.verdict->setAlignment(Qt::AlignCenter);
        r.verdict->setFixedSize(200, 72);
        r.reason = new QLabel(frame);
        r.reason->setFont(sized(font(), 12, true));
        r.reason->setWordWrap(true);
        r.warning = new QLabel(frame);
        r.warning->setFont(sized(font(), 11, true));
        r.warning->setStyleSheet(QStringLiteral("color:#b35c00;"));
        r.warning->setWordWrap(true);
        r.stop = new QPushButton(QStringLiteral("Stop"), frame);
        r.remove = new QPushButton(QStringLiteral("Remove"), frame);
        g->addWidget(r.lamp, 0, 0);
        g->addWidget(r.port, 0, 1);
        g->addWidget(r.state, 1, 0, 1, 2);
        g->addWidget(r.bar, 0, 2);
        g->addWidget(r.chip, 1, 2);
        g->addWidget(r.counters, 2, 0, 1, 3);
        g->addWidget(r.verdict, 0, 3, 3, 1);
        g->addWidget(r.reason, 0, 4);
        g->addWidget(r.warning, 1, 4, 2, 1);
        g->addWidget(r.stop, 0, 5);
        g->addWidget(r.remove, 1, 5);
        g->setColumnStretch(4, 1);
        g->setColumnMinimumWidth(1, 270);
        const int row = int(i);
        connect(r.stop, &QPushButton::clicked, this, [this, row] { StationStopRow(station, row); refresh(); });
        connect(r.remove, &QPushButton::clicked, this, [this, row] {
            QString why;
            if (StationRemovePort(station, row, &why))
                rebuildRows();
            else
                say(why);
            refresh();
        });
        m_rowsLayout->insertWidget(int(i), frame);
        m_rows.push_back(r);
    }
}

void StationWindow::refresh()
{
    if (m_rows.size() != station.ports.size())
        rebuildRows();
    const bool running = StationRunning(station);
    for (size_t i = 0; i < m_rows.size(); ++i) {
        const StationPort &p = *station.ports[i];
        const Row &r = m_rows[i];
        setText(r.port, p.name);
        const QColor lamp = QColor::fromRgb(StationLamp(p));
        setColours(r.lamp, lamp, lamp);
        setText(r.state, p.state);
        if (r.bar->value() != p.percent)
            r.bar->setValue(p.percent);
        setText(r.chip, p.chipKnown ? ChipIdText(p.chipId) : QString());
        setText(r.counters, QStringLiteral("good %1   failed %2   total %3").arg(p.good).arg(p.failed).arg(p.good + p.failed));
        switch (p.verdict) {
        case Verdict::Pass:
            setText(r.verdict, QStringLiteral("PASS"));
            setColours(r.verdict, QColor(0, 150, 40), Qt::white);
            break;
        case Verdict::Fail:
            setText(r.verdict, QStringLiteral("FAIL"));
            setColours(r.verdict, QColor(210, 0, 0), Qt::white);
            break;
        case Verdict::None:
            setText(r.verdict, p.running && p.burn.chipLog.active ? QStringLiteral("%1%").arg(p.percent) : QStringLiteral("—"));
            setColours(r.verdict, QColor(225, 228, 235), QColor(60, 60, 70));
            break;
        }
        // The verdict is the last chip's; while the next one burns, the words say so.
        const QString last = p.running && p.burn.chipLog.active ? QStringLiteral("last chip: ") : QString();
        setText(r.reason, p.verdict == Verdict::Fail ? last + p.reason
                          : p.verdict == Verdict::Pass && !last.isEmpty() ? last + QStringLiteral("PASS") : QString());
        setText(r.warning, p.warning);
        r.stop->setEnabled(p.running);
        r.remove->setEnabled(!running);
        // A sound once per verdict, if asked for.
        if (i < m_lastVerdict.size() && p.verdict != m_lastVerdict[i]) {
            if (sound && p.verdict != Verdict::None) {
                QApplication::beep();
                if (p.verdict == Verdict::Fail)
                    QTimer::singleShot(250, [] { QApplication::beep(); });
            }
            m_lastVerdict[i] = p.verdict;
        }
    }
    // The recent list: the current image first.
    QStringList items = station.recent;
    QStringList shown;
    for (int i = 0; i < m_recent->count(); ++i)
        shown << m_recent->itemText(i);
    if (shown != items) {
        m_recent->clear();
        m_recent->addItems(items);
    }
    if (!station.binPath.isEmpty() && m_recent->currentText() != station.binPath)
        m_recent->setCurrentText(station.binPath);
    m_load->setEnabled(!running);
    m_recent->setEnabled(!running);
    m_add->setEnabled(!running);
    bool idleRow = false;
    for (const auto &p : station.ports)
        idleRow = idleRow || !p->running;
    m_start->setEnabled(idleRow && !station.binPath.isEmpty());
    m_stop->setEnabled(running);
    for (QWidget *w : std::initializer_list<QWidget *>{m_order, m_frameLen, m_autoLoad, m_keepInF, m_fastLine, m_chips})
        w->setEnabled(!running);
    setText(m_message, station.message);
    setText(m_totals, QStringLiteral("good %1   failed %2").arg(station.good).arg(station.failed));
}

void StationWindow::closeEvent(QCloseEvent *e)
{
    // What runs ends, and its lines go to the day's record.
    StationStop(station);
    StationWriteRecord(station);
    refresh();
    e->accept();
}

} // namespace pyro
