// pyrolink: the bench tool's window.
#include "pictures.h"
#include "viewform.h"

#include <QApplication>
#include <QScreen>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Pyrolink"));
    QApplication::setWindowIcon(pyro::appIcon());
    // Chinese captions need a CJK face; the design's own font is 宋体.
    // 9 points as the design's controls were drawn for.
    QFont font = QApplication::font();
    font.setFamilies({font.family(), QStringLiteral("WenQuanYi Micro Hei"), QStringLiteral("Noto Sans CJK SC")});
    font.setPointSizeF(9);
    QApplication::setFont(font);

    pyro::ViewForm::Options options;
    options.appDir = QCoreApplication::applicationDirPath();
    pyro::ViewForm form(options);
    // Centred on the screen, at the size the resize step gives it.
    form.show();
    if (QScreen *s = form.screen())
        form.move(s->availableGeometry().center() - form.rect().center());
    return app.exec();
}
