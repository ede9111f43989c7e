#pragma once
#include <QAbstractTableModel>
#include <QList>
#include <QRgb>
#include <QString>
#include <cstdint>

namespace pyro {

// Cell alignment codes as the table files write them: 0..8 are left, centre,
// right in groups of three, each with top, centre, bottom; 9 is "general"
// (text left, numbers right). Anything else shows as left-centre.
enum : int16_t {
    kAlignLeftTop = 0,
    kAlignLeftCenter = 1,
    kAlignLeftBottom = 2,
    kAlignCenterTop = 3,
    kAlignCenterCenter = 4,
    kAlignCenterBottom = 5,
    kAlignRightTop = 6,
    kAlignRightCenter = 7,
    kAlignRightBottom = 8,
    kAlignGeneral = 9,
};

struct GridCell {
    QString text;
    QRgb fore = qRgb(0, 0, 0);
    QRgb back = qRgb(255, 255, 255);
    int16_t alignment = kAlignLeftCenter;
    float fontSize = 9.0f;               // points
};

// A table file colour (blue * 65536 + green * 256 + red) as an RGB value.
// Only the low 24 bits count: the files have no notion of system colours.
QRgb colorFromFile(qint64 bgr);

// The grid behind MSFG(0) and MSFG(1): cells with text and looks, column
// widths and row heights in twips, a merge switch per column and the current
// cell, which the loader, the codec and the editor address. A window shows
// it through the usual model roles; nothing here draws.
//
// Row 0 and column 0 are the fixed caption row and row-number column; they
// are ordinary cells of the model, so the view hides its own headers.
class GridModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Role {
        FontSizeRole = Qt::UserRole + 1, // float, points
        AlignmentCodeRole,               // int16 code as in the table file
    };
    static constexpr int kFixedRows = 1;
    static constexpr int kFixedCols = 1;
    static constexpr int kDefaultColWidth = 960;   // twips
    static constexpr int kDefaultRowHeight = 240;  // twips

    explicit GridModel(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    // Empties the grid to rows x cols default cells.
    void clear(int rows, int cols);
    int rows() const { return m_rows; }
    int cols() const { return m_cols; }
    // Keeps the cells that stay; new ones are default cells.
    void setRows(int n);
    void setCols(int n);

    int currentRow() const { return m_row; }
    int currentCol() const { return m_col; }
    // False, and the current cell unchanged, outside the grid.
    bool setCurrentCell(int row, int col);

    // Cell access by row and column; reads outside the grid give an empty
    // default cell, writes outside it are dropped and answer false.
    const GridCell &cell(int row, int col) const;
    QString text(int row, int col) const { return cell(row, col).text; }
    bool setText(int row, int col, const QString &text);
    bool setFore(int row, int col, QRgb color);
    bool setBack(int row, int col, QRgb color);
    bool setAlignment(int row, int col, int16_t code);
    bool setFontSize(int row, int col, float points);

    int colWidth(int col) const;
    void setColWidth(int col, int twips);
    int rowHeight(int row) const;
    void setRowHeight(int row, int twips);
    bool mergeCol(int col) const;
    void setMergeCol(int col, bool on);

signals:
    void currentCellChanged(int row, int col);

private:
    GridCell *at(int row, int col);
    void changed(int row, int col);

    int m_rows = 0;
    int m_cols = 0;
    int m_row = 0;
    int m_col = 0;
    QList<GridCell> m_cells;             // row-major, m_rows * m_cols
    QList<int> m_colWidth;
    QList<int> m_rowHeight;
    QList<bool> m_merge;
};

} // namespace pyro
