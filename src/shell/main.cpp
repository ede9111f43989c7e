// pyrolink: the bench tool's window.
#include "appfolder.h"
#include "pictures.h"
#include "stationwindow.h"
#include "viewform.h"
#include "widgetprompter.h"

#include <QApplication>
#include <QCheckBox>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdio>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Pyrolink"));
    QApplication::setWindowIcon(pyro::appIcon());
    // Nothing is kept between runs, but Qt's file dialogs write their last
    // folder and history to a settings file of their own (QtProject.conf).
    // Theirs goes to a folder that lasts as long as the run.
    QTemporaryDir runSettings;
    if (runSettings.isValid()) {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, runSettings.path());
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, runSettings.path());
    }
    // Chinese captions need a CJK face; the design's own font is 宋体.
    // 9 points as the design's controls were drawn for.
    QFont font = QApplication::font();
    font.setFamilies({font.family(), QStringLiteral("WenQuanYi Micro Hei"), QStringLiteral("Noto Sans CJK SC")});
    font.setPointSizeF(9);
    QApplication::setFont(font);

    // Said before the window comes: a folder that can't be had ends the run
    // here, as the window would otherwise read and write nowhere.
    const pyro::AppFolder &folder = pyro::ApplicationFolder();
    pyro::WidgetPrompter prompter(nullptr, folder.path);
    for (const QString &note : folder.notes)
        std::fprintf(stderr, "pyrolink: %s\n", qPrintable(note));
    if (!folder.error.isEmpty()) {
        std::fprintf(stderr, "pyrolink: %s\n", qPrintable(folder.error));
        prompter.message(folder.error, QStringLiteral("Pyrolink"));
        return 1;
    }
    if (!folder.notes.isEmpty())
        prompter.message(folder.notes.join(QLatin1Char('\n')), QStringLiteral("Pyrolink"));

    // A bench PC that only burns opens the station alone.
    if (app.arguments().contains(QStringLiteral("--station"))) {
        pyro::StationWindow station(&prompter);
        station.station.appDir = folder.path;
        // The bench's own set-up: --port P (repeated), --file F, --auto, --start.
        const QStringList args = app.arguments();
        for (int i = 1; i < args.size(); ++i) {
            const QString next = args.value(i + 1);
            if (args[i] == QLatin1String("--port") && !next.isEmpty())
                station.addPortNamed(args[++i]);
            else if (args[i] == QLatin1String("--file") && !next.isEmpty())
                station.loadFileNamed(args[++i]);
            else if (args[i] == QLatin1String("--auto"))
                station.autoLoadBox()->setChecked(true);
        }
        station.show();
        if (args.contains(QStringLiteral("--start")))
            station.startButton()->click();
        return app.exec();
    }

    pyro::ViewForm::Options options;
    options.appDir = folder.path;
    pyro::ViewForm form(options);
    // Centred on the screen, at the size the resize step gives it.
    form.show();
    if (QScreen *s = form.screen())
        form.move(s->availableGeometry().center() - form.rect().center());
    return app.exec();
}
