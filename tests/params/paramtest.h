#pragma once
#include "frame.h"
#include "params.h"

#include <QFile>
#include <QStringEncoder>
#include <QTemporaryDir>
#include <cstring>

// A table file's bytes as the board's tools write them: GBK, lines ending CR LF.
inline QByteArray tableBytes(const QStringList &lines, const QByteArray &eol = "\r\n")
{
    QStringEncoder gbk("GBK");
    QByteArray out;
    for (const QString &l : lines)
        out += QByteArray(gbk.encode(l)) + eol;
    return out;
}

inline QString writeTable(const QTemporaryDir &dir, const QString &name, const QStringList &lines,
                          const QByteArray &eol = "\r\n")
{
    const QString path = dir.filePath(name);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return {};
    f.write(tableBytes(lines, eol));
    return path;
}

inline QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The worked example: a 44-byte block with four values behind the header.
inline QByteArray workedTable()
{
    return readAll(PYRO_TEST_DATA "/params/worked.For");
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

inline const QString kCols = "600\\/2000\\/4000\\/2400";
inline const QString kCaption = QStringList{plainCell("No.", 4), plainCell("Group", 4), plainCell("Item", 4),
                                            plainCell("Value", 4)}.join("\\/");

inline QByteArray f32(float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    return pyro::le32(bits);
}

// A good settings image of blockSize bytes: the device's own header bytes,
// the payload length, the payload filled, the CRC stamped.
inline QByteArray stampedImage(int blockSize, char fill = 0)
{
    QByteArray img(blockSize, fill);
    for (int i = 0; i < 20; ++i)
        img[i] = char(0xA0 + i);
    pyro::putLe32(img, pyro::kImageLengthAt, uint32_t(blockSize - pyro::kImageHeaderSize));
    pyro::TableInfo info;
    info.BlockSize = int16_t(blockSize);
    pyro::StampImage(img, info);
    return img;
}
