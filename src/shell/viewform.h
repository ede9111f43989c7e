#pragma once
#include "bitinfform.h"
#include "burn.h"
#include "design.h"
#include "gridedit.h"
#include "gridundo.h"
#include "link.h"
#include "paramops.h"
#include "params.h"
#include "projectdb.h"
#include "qtserialcontrol.h"
#include "strip.h"

#include <QHash>
#include <QSet>
#include <QMainWindow>
#include <QTimer>
#include <memory>

class QAction;
class QDialog;
class QComboBox;
class QLabel;
class QMenu;
class QPlainTextEdit;
class QStandardItemModel;
class QTableView;
class QTreeView;

namespace pyro {

class WidgetPrompter;
class MonitorWindow;
class StationWindow;
class PlotWindow;
class ChipRecords;
class ChipHistoryWindow;
class CompareWindow;

// The one working window. It lays out the design, shows the core's view
// state after every event and every tick, and forwards events to the core's
// functions; the rules live in the core.
class ViewForm : public QMainWindow {
    Q_OBJECT
public:
    struct Options {
        QString appDir;                  // where the tables and Config.MPK are
        Prompter *prompter = nullptr;    // null: real message boxes and dialogs
        SerialControl *port = nullptr;   // null: the real serial port
    };
    explicit ViewForm(const Options &options);
    ~ViewForm() override;

    // The core's state, one of each for the run.
    Link link;
    Burn burn;
    Params params;
    ParamOps ops;
    ProjectDb db;
    GridEdit edit;
    ImageStrip strip;
    GridUndo undo;                       // Ctrl+Z / Ctrl+Y in the settings grid

    // A control by its design id ("Command4", "ComboSet(2)").
    QWidget *control(const QString &id) const { return m_controls.value(id); }
    QAction *menuAction(const QString &name) const { return m_actions.value(name); }
    QMenu *popup() const { return m_popup; }

    // Copies the view state into the widgets, touching only what changed.
    void refresh();
    // The compact run-time view or the full design.
    void setFullView(bool full);
    bool fullView() const { return m_full; }
    // The size the window keeps, frame included.
    QSize fixedOuterSize() const;
    double dpi() const { return m_dpi; }
    // The log pane's lines shown so far (its widget's block count).
    int logBlocks() const;
    QTimer &tickTimer() { return m_tick; }
    // "Exit": ends the run without the close step.
    void endPro();
    // The about box, built from its design; modal when shown.
    std::unique_ptr<QDialog> makeAbout();
    // BitInfForm for a record, as the read of the device information shows it.
    std::unique_ptr<QDialog> makeBitInfForm(const BitInfRec &rec);
    // The line monitor and the live plots, made when first asked for.
    MonitorWindow &lineMonitor();
    // The production station; the port open here is refused there.
    StationWindow &stationWindow();
    PlotWindow &livePlots();
    // Every chip into the chip store; its history window, made when first asked for.
    ChipRecords &chipRecords() { return *m_records; }
    ChipHistoryWindow &chipHistory();
    CompareWindow &compareSettings();

protected:
    void showEvent(QShowEvent *e) override;
    void moveEvent(QMoveEvent *e) override;
    void resizeEvent(QResizeEvent *e) override;
    void changeEvent(QEvent *e) override;
    void closeEvent(QCloseEvent *e) override;
    bool eventFilter(QObject *watched, QEvent *e) override;

private:
    void build();
    QWidget *makeControl(const design::Control &c, QWidget *parent);
    void buildMenus();
    void wireEvents();
    void tick();
    void snapBack();
    void refreshGrid(int i);
    void refreshTree();
    void applyTreeExpansion(const QModelIndex &parent);
    void showPopup(const QPoint &globalPos);
    void runMenu(const QString &name);
    void refreshEditors();
    void gridDoubleClick(int i, const QModelIndex &index);
    void setFocusTo(QWidget *w);

    Options m_opt;
    std::unique_ptr<SerialControl> m_ownPort;
    std::unique_ptr<WidgetPrompter> m_ownPrompter;
    QTimer m_tick;
    double m_dpi = 96;
    bool m_full = false;
    bool m_ending = false;
    bool m_snapping = false;
    bool m_syncingTree = false;
    bool m_afterDblClick = false;

    QWidget *m_canvas = nullptr;          // the design's client area, full size
    QWidget *m_viewport = nullptr;        // clips the canvas to the window
    QHash<QString, QWidget *> m_controls;
    QHash<QObject *, QString> m_ids;      // widget (and viewport) -> design id
    QHash<QString, QString> m_toolTips;   // design id -> tool tip for panel 3
    QHash<QString, QAction *> m_actions;
    QMenu *m_popup = nullptr;
    QLabel *m_panels[4] = {};
    qsizetype m_logShown = 0;             // characters of RTB already in the pane
    int m_front = -1;
    QString m_treeSelected;
    QStandardItemModel *m_listModel = nullptr;   // the entries of MSFGList
    quint32 m_editFocus = 0;
    quint32 m_programFocus = 0;                     // the last focus request of the editor taken
    QSet<QPair<int, int>> m_noteKeys;               // (note box, key) pressed there and not yet released
    QList<QPair<QWidget *, Qt::FocusPolicy>> m_beyondCompact;   // controls of regions C to F
    // Declared last, so they let go of link and ops before those go.
    std::unique_ptr<MonitorWindow> m_monitor;
    std::unique_ptr<PlotWindow> m_plots;
    std::unique_ptr<ChipRecords> m_records;
    std::unique_ptr<ChipHistoryWindow> m_history;
    std::unique_ptr<CompareWindow> m_compare;
    std::unique_ptr<StationWindow> m_station;
};

} // namespace pyro
