#pragma once
#include "frame.h"
#include "params.h"

#include <QFile>
#include <QStringEncoder>
#include <QTemporaryDir>

// Writes a table file as the board's tools do: GBK, lines ending CR LF.
inline QString writeTable(const QTemporaryDir &dir, const QString &name, const QStringList &lines,
                          const QByteArray &eol = "\r\n")
{
    const QString path = dir.filePath(name);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return {};
    QStringEncoder gbk("GBK");
    for (const QString &l : lines) {
        f.write(gbk.encode(l));
        f.write(eol);
    }
    return path;
}

// A plain cell and a parameter cell of the table grammar.
inline QString plainCell(const QString &text, int align = 1, int fore = 0, int back = 16777215,
                         int height = 330, const QString &size = "10")
{
    return QStringList{text, QString::number(align), QString::number(fore), QString::number(back),
                       QString::number(height), size}.join("><");
}

inline QString paramCell(int addr, int width, int dec, int bit, int isList, int isFloat, int scale,
                         const QString &labels, const QString &values = QString())
{
    QStringList f{"List:", QString::number(addr), QString::number(width), QString::number(dec),
                  QString::number(bit), QString::number(isList), QString::number(isFloat),
                  QString::number(scale), labels};
    if (!values.isNull())
        f << values;
    return f.join("><");
}

inline QString rowLine(const QString &group, const QString &item, const QString &param)
{
    return QStringList{plainCell("0", 4), plainCell(group), plainCell(item), param}.join("\\/");
}
