#include "plotwindow.h"

#include "fileguard.h"
#include "codec.h"
#include "fonts.h"
#include "paramops.h"
#include "params.h"
#include "prompter.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QFile>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QSplitter>
#include <QVBoxLayout>
#include <QWheelEvent>
#include <algorithm>
#include <climits>
#include <cmath>

namespace pyro {

namespace {

const QColor kColors[] = {QColor(0, 90, 200), QColor(200, 40, 30), QColor(20, 140, 40), QColor(150, 60, 170),
                          QColor(210, 120, 0), QColor(0, 140, 150), QColor(120, 90, 40), QColor(90, 90, 90)};

QString valueText(double v)
{
    return QString::number(v, 'g', 7);
}

} // namespace

// --- the canvas ------------------------------------------------------------------

PlotCanvas::PlotCanvas(const SampleStore &store, QWidget *parent) : QWidget(parent), m_store(store)
{
    setObjectName(QStringLiteral("PlotCanvas"));
    setMinimumSize(400, 240);
    setAutoFillBackground(true);
    QPalette pal = palette();
    pal.setColor(QPalette::Window, Qt::white);
    setPalette(pal);
}

void PlotCanvas::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing, true);
    const QFontMetrics fm = p.fontMetrics();
    const int axisH = fm.height() + 8;
    const int left = 8;
    const int right = width() - std::max(110, fm.horizontalAdvance(QStringLiteral("-0.0000000")) + 30);
    const int plotW = std::max(10, right - left);
    const qint64 shown = std::max<qint64>(200, qint64(double(spanMs) / zoom));
    const qint64 t1 = endMs;
    const qint64 t0 = t1 - shown;
    auto xOf = [&](qint64 t) { return left + double(t - t0) * plotW / double(shown); };

    // The time axis along the bottom: seconds before the right edge.
    const int axisY = height() - axisH;
    p.setPen(QColor(120, 120, 120));
    p.drawLine(left, axisY, right, axisY);
    const double stepS = [&] {
        const double seconds = shown / 1000.0;
        for (double s : {0.5, 1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0})
            if (seconds / s <= 10)
                return s;
        return 600.0;
    }();
    for (double s = 0; s <= shown / 1000.0 + 1e-9; s += stepS) {
        const double x = xOf(t1 - qint64(s * 1000));
        p.setPen(QColor(235, 235, 235));
        p.drawLine(QPointF(x, 0), QPointF(x, axisY));
        p.setPen(QColor(90, 90, 90));
        const QString label = s == 0 ? QStringLiteral("now") : QStringLiteral("-%1 s").arg(s);
        // The oldest label stays inside the picture.
        const double lx = std::max(0.0, x - 40);
        p.drawText(QRectF(lx, axisY + 2, 80, axisH - 2), (lx > 0 ? Qt::AlignHCenter : Qt::AlignLeft) | Qt::AlignTop,
                   label);
    }

    if (curves.isEmpty()) {
        p.setPen(QColor(120, 120, 120));
        p.drawText(rect().adjusted(0, 0, 0, -axisH), Qt::AlignCenter,
                   QStringLiteral("Tick rows on the left to plot them"));
        return;
    }

    const int bands = int(curves.size());
    const double bandH = double(axisY) / bands;
    for (int c = 0; c < bands; ++c) {
        const Curve &cv = curves[c];
        const QColor color = kColors[c % std::size(kColors)];
        const double top = c * bandH;
        const double plotTop = top + fm.height() + 4;
        const double plotBottom = top + bandH - 6;
        p.setPen(QColor(200, 200, 200));
        if (c > 0)
            p.drawLine(QPointF(0, top), QPointF(width(), top));
        p.setPen(color);
        p.drawText(QPointF(left + 2, top + fm.ascent() + 2), cv.name);

        const std::deque<Sample> &all = m_store.samples(cv.row);
        // The samples on screen, and the one before them for a line that
        // enters from the left.
        auto from = std::lower_bound(all.begin(), all.end(), t0,
                                     [](const Sample &s, qint64 t) { return s.msecs < t; });
        if (from != all.begin())
            --from;
        auto to = std::upper_bound(from, all.end(), t1, [](qint64 t, const Sample &s) { return t < s.msecs; });
        if (from == to) {
            p.setPen(QColor(150, 150, 150));
            p.drawText(QRectF(left, plotTop, plotW, plotBottom - plotTop), Qt::AlignCenter,
                       QStringLiteral("no samples yet"));
            continue;
        }
        double lo = from->value, hi = from->value;
        for (auto it = from; it != to; ++it) {
            lo = std::min(lo, it->value);
            hi = std::max(hi, it->value);
        }
        if (hi - lo < 1e-12) {
            lo -= 1;
            hi += 1;
        } else {
            const double pad = (hi - lo) * 0.08;
            lo -= pad;
            hi += pad;
        }
        auto yOf = [&](double v) { return plotBottom - (v - lo) * (plotBottom - plotTop) / (hi - lo); };
        // The band's scale, small and grey inside its right edge; the
        // current value goes outside it, where nothing else is written.
        p.setPen(QColor(140, 140, 140));
        const QRectF scaleBox(left, plotTop, plotW - 4, plotBottom - plotTop);
        if (!cv.step) {
            p.drawText(scaleBox, Qt::AlignRight | Qt::AlignTop, QString::number(hi, 'g', 4));
            p.drawText(scaleBox, Qt::AlignRight | Qt::AlignBottom, QString::number(lo, 'g', 4));
        } else {
            // A step row's levels by name, where they lie.
            for (auto it = cv.labels.cbegin(); it != cv.labels.cend(); ++it) {
                if (it.key() >= lo && it.key() <= hi)
                    p.drawText(QRectF(left, yOf(it.key()) - fm.height(), plotW - 4, fm.height()),
                               Qt::AlignRight | Qt::AlignBottom, it.value());
            }
        }

        // Many samples to a pixel column: keep the first, lowest, highest and
        // last of each column, so a ten-minute span draws as fast as ten seconds.
        QPolygonF line;
        line.reserve(4 * plotW + 4);
        double prevY = 0;
        int col = INT_MIN;
        double cFirst = 0, cMin = 0, cMax = 0, cLast = 0;
        auto flush = [&] {
            if (col != INT_MIN)
                line << QPointF(col, yOf(cFirst)) << QPointF(col, yOf(cMin)) << QPointF(col, yOf(cMax))
                     << QPointF(col, yOf(cLast));
        };
        for (auto it = from; it != to; ++it) {
            const double x = std::clamp(xOf(it->msecs), double(left), double(right));
            if (cv.step) {
                // A level holds until the next change.
                const double y = yOf(it->value);
                if (!line.isEmpty() && y == prevY)
                    continue;
                if (!line.isEmpty())
                    line << QPointF(x, prevY);
                line << QPointF(x, y);
                prevY = y;
                continue;
            }
            if (int(x) == col) {
                cMin = std::min(cMin, it->value);
                cMax = std::max(cMax, it->value);
                cLast = it->value;
                continue;
            }
            flush();
            col = int(x);
            cFirst = cMin = cMax = cLast = it->value;
        }
        flush();
        const Sample &last = *(to - 1);
        const double lastX = std::clamp(xOf(last.msecs), double(left), double(right));
        if (cv.step)
            line << QPointF(std::max(lastX, std::min(xOf(t1), double(right))), yOf(last.value));
        p.setPen(QPen(color, 1.6));
        p.drawPolyline(line);
        p.setBrush(color);
        p.drawEllipse(QPointF(lastX, yOf(last.value)), 2.5, 2.5);
        p.setBrush(Qt::NoBrush);

        // The current value beside the curve's end.
        QFont bold = p.font();
        bold.setBold(true);
        p.setFont(bold);
        const double ly = std::clamp(yOf(last.value) + fm.ascent() / 2.0 - 1, plotTop + fm.ascent(), plotBottom);
        p.setPen(color);
        const QString name = cv.labels.value(last.value);
        p.drawText(QPointF(right + 6, ly), name.isEmpty() ? valueText(last.value)
                                                        : QStringLiteral("%1 (%2)").arg(name, valueText(last.value)));
        p.setFont(font());
    }
}

void PlotCanvas::wheelEvent(QWheelEvent *e)
{
    // Up zooms in on the latest part of the span, down back out.
    const double f = e->angleDelta().y() > 0 ? 2.0 : 0.5;
    zoom = std::clamp(zoom * f, 1.0, 64.0);
    update();
    e->accept();
}

void PlotCanvas::mouseDoubleClickEvent(QMouseEvent *)
{
    zoom = 1;
    update();
}

// --- the window ------------------------------------------------------------------

PlotWindow::PlotWindow(ParamOps &ops, Prompter *prompter, QWidget *parent)
    : QWidget(parent, Qt::Window), clock([] { return QDateTime::currentMSecsSinceEpoch(); }), m_ops(ops),
      m_prompter(prompter)
{
    setObjectName(QStringLiteral("LivePlots"));
    setWindowTitle(QStringLiteral("Live plots"));
    // Row names and units come from Display.For.
    setFont(tableFont(font()));
    m_canvas = new PlotCanvas(store, this);
    m_rows = new QListWidget(this);
    m_rows->setObjectName(QStringLiteral("PlotRows"));
    m_pause = new QCheckBox(QStringLiteral("Pause"), this);
    m_pause->setObjectName(QStringLiteral("PlotPause"));
    m_span = new QComboBox(this);
    m_span->setObjectName(QStringLiteral("PlotSpan"));
    for (int s : {10, 30, 60, 120, 300, 600})
        m_span->addItem(s < 60 ? QStringLiteral("%1 s").arg(s) : QStringLiteral("%1 min").arg(s / 60), s);
    m_span->setCurrentIndex(2);
    auto *zoomIn = new QPushButton(QStringLiteral("Zoom in"), this);
    auto *zoomOut = new QPushButton(QStringLiteral("Zoom out"), this);
    auto *clearButton = new QPushButton(QStringLiteral("Clear"), this);
    auto *exportButton = new QPushButton(QStringLiteral("Export CSV..."), this);

    auto *bar = new QHBoxLayout;
    bar->addWidget(m_pause);
    bar->addWidget(new QLabel(QStringLiteral("Span:"), this));
    bar->addWidget(m_span);
    bar->addWidget(zoomIn);
    bar->addWidget(zoomOut);
    bar->addWidget(clearButton);
    bar->addStretch();
    bar->addWidget(exportButton);

    auto *split = new QSplitter(this);
    split->addWidget(m_rows);
    split->addWidget(m_canvas);
    split->setStretchFactor(1, 1);
    split->setSizes({220, 780});
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(bar);
    layout->addWidget(split, 1);
    resize(1000, 560);

    connect(m_rows, &QListWidget::itemChanged, this, [this](QListWidgetItem *it) {
        const int row = it->data(Qt::UserRole).toInt();
        store.watch(row, it->checkState() == Qt::Checked);
        updateCurves();
    });
    connect(m_span, &QComboBox::currentIndexChanged, this, [this] {
        m_canvas->spanMs = qint64(m_span->currentData().toInt()) * 1000;
        m_canvas->zoom = 1;
        m_canvas->update();
    });
    connect(zoomIn, &QPushButton::clicked, this, [this] {
        m_canvas->zoom = std::min(64.0, m_canvas->zoom * 2);
        m_canvas->update();
    });
    connect(zoomOut, &QPushButton::clicked, this, [this] {
        m_canvas->zoom = std::max(1.0, m_canvas->zoom / 2);
        m_canvas->update();
    });
    connect(clearButton, &QPushButton::clicked, this, &PlotWindow::clear);
    connect(exportButton, &QPushButton::clicked, this, &PlotWindow::exportCsv);
    connect(m_pause, &QCheckBox::toggled, this, [this] { redraw(); });
    // Drawn five times a second, whatever the watch's pace.
    m_timer.setInterval(200);
    connect(&m_timer, &QTimer::timeout, this, &PlotWindow::redraw);
    m_canvas->endMs = clock();
}

PlotWindow::~PlotWindow()
{
    hook(false);
}

void PlotWindow::hook(bool on)
{
    if (on == m_hooked)
        return;
    m_hooked = on;
    if (on) {
        m_ops.onDisplayDecoded = [this](ParamOps &ops) { store.record(*ops.params, clock()); };
        m_timer.start();
    } else {
        m_ops.onDisplayDecoded = nullptr;
        m_timer.stop();
    }
}

void PlotWindow::showEvent(QShowEvent *e)
{
    fillRows();
    hook(true);
    QWidget::showEvent(e);
}

void PlotWindow::hideEvent(QHideEvent *e)
{
    if (!isMinimized())
        hook(false);
    QWidget::hideEvent(e);
}

QList<int> PlotWindow::plottableRows() const
{
    QList<int> out;
    const Params &p = *m_ops.params;
    const int n = int(qMin<qsizetype>(p.Tables[1].RowCount, p.DisplayRows.size()));
    for (int r = GridModel::kFixedRows; r < n; ++r) {
        const ValueKind k = KindOf(p.DisplayRows[r]);
        if (k != ValueKind::None && k != ValueKind::Unsupported)
            out << r;
    }
    return out;
}

QString PlotWindow::rowName(int row) const
{
    const GridModel &g = m_ops.params->MSFG[1];
    QString name = g.text(row, 2).trimmed();
    if (name.isEmpty())
        name = g.text(row, 1).trimmed();
    return name.isEmpty() ? QStringLiteral("row %1").arg(row) : name;
}

void PlotWindow::fillRows()
{
    const QList<int> rows = plottableRows();
    if (rows.size() == m_rowsListed)
        return;
    m_rowsListed = int(rows.size());
    QSignalBlocker block(m_rows);
    m_rows->clear();
    for (int r : rows) {
        auto *it = new QListWidgetItem(QStringLiteral("%1  %2").arg(r).arg(rowName(r)), m_rows);
        it->setData(Qt::UserRole, r);
        it->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable);
        it->setCheckState(store.watching(r) ? Qt::Checked : Qt::Unchecked);
    }
}

void PlotWindow::setPlotted(int row, bool on)
{
    fillRows();
    for (int i = 0; i < m_rows->count(); ++i) {
        if (m_rows->item(i)->data(Qt::UserRole).toInt() == row) {
            m_rows->item(i)->setCheckState(on ? Qt::Checked : Qt::Unchecked);
            return;
        }
    }
}

void PlotWindow::updateCurves()
{
    m_canvas->curves.clear();
    const Params &p = *m_ops.params;
    for (int r : store.rows()) {
        PlotCanvas::Curve c{r, rowName(r), false, {}};
        if (r < p.DisplayRows.size() && RowIsStep(p.DisplayRows[r])) {
            const ParamRow &row = p.DisplayRows[r];
            c.step = true;
            const QStringList labels = SplitList(row.Labels), values = SplitList(row.Values);
            for (int i = 0; i < labels.size(); ++i) {
                const double v = KindOf(row) == ValueKind::Bit ? i : values.value(i).trimmed().toDouble();
                c.labels.insert(v, labels[i].trimmed());
            }
        }
        m_canvas->curves.push_back(c);
    }
    m_canvas->update();
}

void PlotWindow::setSpanSeconds(int seconds)
{
    const int i = m_span->findData(seconds);
    if (i >= 0)
        m_span->setCurrentIndex(i);
}

void PlotWindow::setPaused(bool on)
{
    m_pause->setChecked(on);
}

bool PlotWindow::paused() const
{
    return m_pause->isChecked();
}

void PlotWindow::redraw()
{
    // Paused, the picture stands still; the samples go on coming in.
    if (m_pause->isChecked())
        return;
    m_canvas->endMs = clock();
    m_canvas->update();
}

void PlotWindow::clear()
{
    store.clear();
    m_canvas->update();
}

void PlotWindow::exportCsv()
{
    if (!m_prompter)
        return;
    const QString path = m_prompter->saveFile(QStringLiteral("Export the plotted values"),
                                              QStringLiteral("CSV (*.csv);;All files (*)"), QString());
    if (path.isEmpty())
        return;
    QStringList names;
    for (int r = 0; r < m_ops.params->DisplayRows.size(); ++r)
        names << rowName(r);
    const QByteArray text = SamplesCsv(store, names).toUtf8();
    QString why;
    if (!WriteFileWhole(path, text, &why))
        m_prompter->message(QStringLiteral("Could not write %1: %2").arg(path, why),
                            QStringLiteral("Live plots"));
}

} // namespace pyro
