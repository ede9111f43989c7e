#include "grid.h"

#include <QColor>
#include <QFont>

namespace pyro {

QRgb colorFromFile(qint64 bgr)
{
    const auto v = quint32(bgr) & 0xFFFFFFu;
    return qRgb(int(v & 0xFF), int(v >> 8 & 0xFF), int(v >> 16 & 0xFF));
}

GridModel::GridModel(QObject *parent)
    : QAbstractTableModel(parent)
{
    clear(1, 1);
}

int GridModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_rows;
}

int GridModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_cols;
}

static Qt::Alignment toQtAlignment(int16_t code)
{
    if (code < 0 || code > kAlignRightBottom)
        return Qt::AlignLeft | Qt::AlignVCenter;
    static const Qt::Alignment h[3] = {Qt::AlignLeft, Qt::AlignHCenter, Qt::AlignRight};
    static const Qt::Alignment v[3] = {Qt::AlignTop, Qt::AlignVCenter, Qt::AlignBottom};
    return h[code / 3] | v[code % 3];
}

QVariant GridModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid())
        return {};
    const GridCell &c = cell(index.row(), index.column());
    switch (role) {
    case Qt::DisplayRole:
    case Qt::EditRole:
        return c.text;
    case Qt::ForegroundRole:
        return QColor(c.fore);
    case Qt::BackgroundRole:
        return QColor(c.back);
    case Qt::TextAlignmentRole:
        if (c.alignment == kAlignGeneral) {
            bool number = false;
            c.text.toDouble(&number);
            return int((number ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignVCenter);
        }
        return int(toQtAlignment(c.alignment));
    case Qt::FontRole: {
        QFont f;
        if (c.fontSize > 0)
            f.setPointSizeF(c.fontSize);
        return f;
    }
    case FontSizeRole:
        return c.fontSize;
    case AlignmentCodeRole:
        return c.alignment;
    default:
        return {};
    }
}

void GridModel::clear(int rows, int cols)
{
    beginResetModel();
    m_rows = qMax(0, rows);
    m_cols = qMax(0, cols);
    m_cells = QList<GridCell>(qsizetype(m_rows) * m_cols);
    m_colWidth = QList<int>(m_cols, kDefaultColWidth);
    m_rowHeight = QList<int>(m_rows, kDefaultRowHeight);
    m_merge = QList<bool>(m_cols, false);
    m_row = 0;
    m_col = 0;
    endResetModel();
}

void GridModel::setRows(int n)
{
    n = qMax(0, n);
    if (n == m_rows)
        return;
    if (n > m_rows) {
        beginInsertRows({}, m_rows, n - 1);
        m_cells.resize(qsizetype(n) * m_cols);
        m_rowHeight.resize(n, kDefaultRowHeight);
        m_rows = n;
        endInsertRows();
    } else {
        beginRemoveRows({}, n, m_rows - 1);
        m_cells.resize(qsizetype(n) * m_cols);
        m_rowHeight.resize(n);
        m_rows = n;
        endRemoveRows();
    }
    if (m_row >= m_rows)
        m_row = qMax(0, m_rows - 1);
}

void GridModel::setCols(int n)
{
    n = qMax(0, n);
    if (n == m_cols)
        return;
    beginResetModel();
    QList<GridCell> cells(qsizetype(m_rows) * n);
    const int keep = qMin(n, m_cols);
    for (int r = 0; r < m_rows; ++r)
        for (int c = 0; c < keep; ++c)
            cells[qsizetype(r) * n + c] = m_cells[qsizetype(r) * m_cols + c];
    m_cells = std::move(cells);
    m_colWidth.resize(n, kDefaultColWidth);
    m_merge.resize(n, false);
    m_cols = n;
    if (m_col >= m_cols)
        m_col = qMax(0, m_cols - 1);
    endResetModel();
}

bool GridModel::setCurrentCell(int row, int col)
{
    if (row < 0 || row >= m_rows || col < 0 || col >= m_cols)
        return false;
    if (row != m_row || col != m_col) {
        m_row = row;
        m_col = col;
        emit currentCellChanged(row, col);
    }
    return true;
}

const GridCell &GridModel::cell(int row, int col) const
{
    static const GridCell empty;
    if (row < 0 || row >= m_rows || col < 0 || col >= m_cols)
        return empty;
    return m_cells[qsizetype(row) * m_cols + col];
}

GridCell *GridModel::at(int row, int col)
{
    if (row < 0 || row >= m_rows || col < 0 || col >= m_cols)
        return nullptr;
    return &m_cells[qsizetype(row) * m_cols + col];
}

void GridModel::changed(int row, int col)
{
    const QModelIndex i = index(row, col);
    emit dataChanged(i, i);
}

bool GridModel::setText(int row, int col, const QString &text)
{
    GridCell *c = at(row, col);
    if (!c)
        return false;
    if (c->text != text) {
        c->text = text;
        changed(row, col);
    }
    return true;
}

bool GridModel::setFore(int row, int col, QRgb color)
{
    GridCell *c = at(row, col);
    if (!c)
        return false;
    if (c->fore != color) {
        c->fore = color;
        changed(row, col);
    }
    return true;
}

bool GridModel::setBack(int row, int col, QRgb color)
{
    GridCell *c = at(row, col);
    if (!c)
        return false;
    if (c->back != color) {
        c->back = color;
        changed(row, col);
    }
    return true;
}

bool GridModel::setAlignment(int row, int col, int16_t code)
{
    GridCell *c = at(row, col);
    if (!c)
        return false;
    if (c->alignment != code) {
        c->alignment = code;
        changed(row, col);
    }
    return true;
}

bool GridModel::setFontSize(int row, int col, float points)
{
    GridCell *c = at(row, col);
    if (!c)
        return false;
    if (c->fontSize != points) {
        c->fontSize = points;
        changed(row, col);
    }
    return true;
}

int GridModel::colWidth(int col) const
{
    return col >= 0 && col < m_cols ? m_colWidth[col] : 0;
}

void GridModel::setColWidth(int col, int twips)
{
    if (col < 0 || col >= m_cols || m_colWidth[col] == twips)
        return;
    m_colWidth[col] = twips;
    emit headerDataChanged(Qt::Horizontal, col, col);
}

int GridModel::rowHeight(int row) const
{
    return row >= 0 && row < m_rows ? m_rowHeight[row] : 0;
}

void GridModel::setRowHeight(int row, int twips)
{
    if (row < 0 || row >= m_rows || m_rowHeight[row] == twips)
        return;
    m_rowHeight[row] = twips;
    emit headerDataChanged(Qt::Vertical, row, row);
}

bool GridModel::mergeCol(int col) const
{
    return col >= 0 && col < m_cols && m_merge[col];
}

void GridModel::setMergeCol(int col, bool on)
{
    if (col < 0 || col >= m_cols || m_merge[col] == on)
        return;
    m_merge[col] = on;
    emit headerDataChanged(Qt::Horizontal, col, col);
}

} // namespace pyro
