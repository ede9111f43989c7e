#pragma once
#include "boardread.h"
#include "settings.h"

#include <QAbstractTableModel>
#include <QTimer>
#include <QWidget>
#include <array>

class QCheckBox;
class QComboBox;
class QLabel;
class QTableView;

namespace pyro {

class Prompter;
struct ProjectDb;
struct GridUndo;

// Where one column of the comparison comes from.
enum class CompareSourceKind { None, Board, Working, Item, File, Defaults };

struct CompareSource {
    CompareSourceKind kind = CompareSourceKind::None;
    QString label;                       // what the column's head says
    QString path;                        // the file, for File
    QByteArray block;                    // empty while there is none
    QString error;                       // why there is none
};

// The rows of the settings table side by side; those that differ marked.
class CompareModel : public QAbstractTableModel {
    Q_OBJECT
public:
    explicit CompareModel(const Params &p, QObject *parent = nullptr) : QAbstractTableModel(parent), m_p(p) {}
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation o, int role = Qt::DisplayRole) const override;

    void show(const QList<CompareSource> &sources, bool onlyDiffering);
    int differing() const { return m_differing; }
    const QList<RowCompare> &rows() const { return m_rows; }

private:
    const Params &m_p;
    QStringList m_heads;
    QList<RowCompare> m_rows;
    int m_differing = 0;
};

// View → "Compare settings": two or three sources side by side (the board
// read now, the working copy, the selected project item, a settings file, the
// table's defaults), a filter for the rows that differ, export of a column
// as a readable file and import of one into the working copy.
class CompareWindow : public QWidget {
    Q_OBJECT
public:
    CompareWindow(Link &link, Params &params, ProjectDb &db, Prompter *prompter, QWidget *parent = nullptr);
    ~CompareWindow() override;

    static constexpr int kColumns = 3;
    QComboBox *sourceBox(int i) const { return m_box[size_t(i)]; }
    QCheckBox *onlyDiffering() const { return m_only; }
    QTableView *table() const { return m_table; }
    CompareModel *model() const { return m_model; }
    QLabel *status() const { return m_status; }
    const CompareSource &source(int i) const { return m_src[size_t(i)]; }
    BoardRead &boardRead() { return m_read; }

    // Takes every source afresh (the board is read again) and shows them.
    void refreshSources();
    // Writes column i's set to a file the prompter asks for.
    void exportColumn(int i);
    // A settings file into the working copy: checked whole, then shown in
    // the grid with the changed cells marked; nothing changes on a refusal.
    void importToWorking();

private:
    void take(int i);
    void showRows();

    Link &m_link;
    Params &m_params;
    ProjectDb &m_db;
    Prompter *m_prompter;
    BoardRead m_read;
    quint64 m_readsSeen = 0;
    std::array<CompareSource, kColumns> m_src;
    std::array<QComboBox *, kColumns> m_box{};
    QCheckBox *m_only;
    QTableView *m_table;
    CompareModel *m_model;
    QLabel *m_status;
    QTimer m_poll;
};

} // namespace pyro
