#pragma once
#include "samplestore.h"

#include <QMap>
#include <QTimer>
#include <QWidget>
#include <functional>

class QCheckBox;
class QComboBox;
class QListWidget;

namespace pyro {

struct ParamOps;
class Prompter;

// Draws the store's rows against time, each in a band of its own with its
// own scale, the current value beside the curve's end. Nothing but drawing.
class PlotCanvas : public QWidget {
    Q_OBJECT
public:
    PlotCanvas(const SampleStore &store, QWidget *parent = nullptr);

    // What to draw: rows, their names and whether each changes in steps.
    struct Curve {
        int row = 0;
        QString name;
        bool step = false;
        QMap<double, QString> labels;    // a step row's levels by name
    };
    QList<Curve> curves;
    qint64 spanMs = 60000;
    double zoom = 1;                     // the span shown is spanMs / zoom
    qint64 endMs = 0;                    // the right edge; a paused plot keeps it
    QSize sizeHint() const override { return {800, 480}; }

protected:
    void paintEvent(QPaintEvent *e) override;
    void wheelEvent(QWheelEvent *e) override;
    void mouseDoubleClickEvent(QMouseEvent *e) override;

private:
    const SampleStore &m_store;
};

// Live plots of running values: pick rows of MSFG(1), watch them move.
// Open, it hangs itself on ParamOps::onDisplayDecoded; closed, it lets go.
class PlotWindow : public QWidget {
    Q_OBJECT
public:
    PlotWindow(ParamOps &ops, Prompter *prompter, QWidget *parent = nullptr);
    ~PlotWindow() override;

    SampleStore store;
    std::function<qint64()> clock;       // stamps the samples; tests fix it
    PlotCanvas *canvas() const { return m_canvas; }

    // The rows that can be plotted (those with a value), in grid order.
    QList<int> plottableRows() const;
    // Plots row (an index into DisplayRows) or stops plotting it.
    void setPlotted(int row, bool on);
    void setSpanSeconds(int seconds);
    void setPaused(bool on);
    bool paused() const;
    QString rowName(int row) const;
    // Asks for a file and writes what was recorded.
    void exportCsv();
    void clear();

protected:
    void showEvent(QShowEvent *e) override;
    void hideEvent(QHideEvent *e) override;

private:
    void hook(bool on);
    void fillRows();
    void updateCurves();
    void redraw();

    ParamOps &m_ops;
    Prompter *m_prompter;
    bool m_hooked = false;
    PlotCanvas *m_canvas;
    QListWidget *m_rows;
    QCheckBox *m_pause;
    QComboBox *m_span;
    QTimer m_timer;
    int m_rowsListed = -1;
};

} // namespace pyro
