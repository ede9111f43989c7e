#pragma once
#include <QString>
#include <QStringList>

namespace pyro {

// The application folder: where the tables (Config.For, Display.For),
// Config.MPK, the demo firmware, the manual and the COMn links are.
struct AppFolder {
    QString path;        // the folder; set even when it can't be had, for messages
    QString error;       // why it can't be used: empty when it can
    QStringList notes;   // what seeding could not do (a sample missing from the installation)
    bool perUser = false;
};

// The files a new per-user folder gets from the installation: copied, so
// that the operator's edits never reach the installed ones.
QStringList AppFolderSamples();
// Linked rather than copied: read only, and kept current by upgrades.
QString AppFolderManual();

// The program's own folder when it holds a table file (a build folder, or a
// bench folder set up by hand); otherwise userDir, made if need be and given
// each sample of samplesDir it lacks. Nothing in programDir or samplesDir is
// ever written, and nothing already in userDir is replaced.
AppFolder ResolveAppFolder(const QString &programDir, const QString &samplesDir, const QString &userDir);

// The same for this process: its program's folder, the samples the install
// rules put beside it (share/pyrolink), and pyrolink under the user's data
// folder ($XDG_DATA_HOME, else ~/.local/share). Resolved once per process.
const AppFolder &ApplicationFolder();

} // namespace pyro
