#pragma once
#include "station.h"

#include <QTimer>
#include <QWidget>
#include <memory>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QSpinBox;
class QVBoxLayout;

namespace pyro {

class Prompter;
class ChipWriter;

// The production station: one row per port, each with a verdict readable
// across the room. It shows the station's state and forwards clicks; the
// rules live in src/station.
class StationWindow : public QWidget {
    Q_OBJECT
public:
    explicit StationWindow(Prompter *prompter, QWidget *parent = nullptr);
    ~StationWindow() override;

    Station station;
    bool sound = false;

    // As the Add port and Load File clicks do, with the name given.
    void addPortNamed(const QString &name);
    void loadFileNamed(const QString &path);

    // After every event and tick: the station's state into the widgets.
    void refresh();
    QTimer &tickTimer() { return m_tick; }

    // The controls, for tests.
    QComboBox *portBox() const { return m_portBox; }
    QPushButton *addButton() const { return m_add; }
    QPushButton *loadButton() const { return m_load; }
    QComboBox *recentBox() const { return m_recent; }
    QPushButton *startButton() const { return m_start; }
    QPushButton *stopButton() const { return m_stop; }
    QLineEdit *orderEdit() const { return m_order; }
    QComboBox *frameLenBox() const { return m_frameLen; }
    QCheckBox *autoLoadBox() const { return m_autoLoad; }
    QCheckBox *keepInFBox() const { return m_keepInF; }
    QCheckBox *fastLineBox() const { return m_fastLine; }
    QLabel *messageLabel() const { return m_message; }
    struct Row {
        QWidget *frame = nullptr;
        QLabel *port = nullptr, *lamp = nullptr, *state = nullptr, *chip = nullptr, *counters = nullptr;
        QLabel *verdict = nullptr, *reason = nullptr, *warning = nullptr;
        QProgressBar *bar = nullptr;
        QPushButton *stop = nullptr, *remove = nullptr;
    };
    const std::vector<Row> &rows() const { return m_rows; }

protected:
    void closeEvent(QCloseEvent *e) override;

private:
    void tick();
    void rebuildRows();
    void addPort();
    void loadFile();
    void start();
    void say(const QString &text);

    Prompter *m_prompter;
    QTimer m_tick;
    std::unique_ptr<ChipWriter> m_writer;   // the chip store, from the first chip on
    // What a row shows, to compare with what it should: a row whose picture
    // is unchanged costs no widget call on a tick.
    struct Shown {
        QString state, chip, reason, warning;
        QRgb lamp = 0;
        int percent = -1, good = -1, failed = -1;
        Verdict verdict = Verdict::None;
        bool active = false, running = false, stationRunning = false, valid = false;
        bool operator==(const Shown &o) const = default;
    };
    std::vector<Row> m_rows;
    std::vector<Shown> m_shown;
    std::vector<Verdict> m_lastVerdict;
    QStringList m_recentShown;
    int m_controlsFor = -1;             // running (1) or not (0) when last enabled
    int m_totalsGood = -1, m_totalsFailed = -1;
    QVBoxLayout *m_rowsLayout = nullptr;
    QComboBox *m_portBox = nullptr, *m_recent = nullptr, *m_frameLen = nullptr;
    QPushButton *m_add = nullptr, *m_load = nullptr, *m_start = nullptr, *m_stop = nullptr;
    QLineEdit *m_order = nullptr;
    QCheckBox *m_autoLoad = nullptr, *m_keepInF = nullptr, *m_fastLine = nullptr, *m_sound = nullptr;
    QSpinBox *m_chips = nullptr;
    QLabel *m_message = nullptr, *m_totals = nullptr;
};

} // namespace pyro
