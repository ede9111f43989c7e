// pyrolink-mkicons DIR: the program's drawn icon as the PNG files a desktop's
// icon theme wants, DIR/<n>x<n>/apps/pyrolink.png, one per size it is drawn in.
#include "pictures.h"

#include <QDir>
#include <QGuiApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: pyrolink-mkicons DIR\n");
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    for (int size : {16, 24, 32, 48, 256}) {
        const QString dir = out.filePath(QStringLiteral("%1x%1/apps").arg(size));
        const QString file = QDir(dir).filePath(QStringLiteral("pyrolink.png"));
        if (!QDir().mkpath(dir) || !pyro::appIconPixmap(size).toImage().save(file, "PNG")) {
            std::fprintf(stderr, "pyrolink-mkicons: can't write %s\n", qPrintable(file));
            return 1;
        }
    }
    return 0;
}
