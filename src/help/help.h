#pragma once
// The about box's texts and the help actions of the About menu, without a
// window: the window shows the texts and passes its way of opening a file
// or an address (QDesktopServices::openUrl), so tests pass their own.
#include <QString>
#include <QUrl>
#include <functional>

namespace pyro {

class Prompter;

inline const QString kAppTitle = QStringLiteral("Pyrolink");

// frmAbout. The company line, address and contact are this build's own.
inline const QString kAboutCaption = QStringLiteral("About ") + kAppTitle;
inline const QString kAboutTitle = QStringLiteral("Burning");                      // lblTitle
inline const QString kAboutDescription = QStringLiteral("Application Descriptor:"); // lblDescription
inline const QString kAboutText = QStringLiteral(                                   // Label1
    "Tarvel electric process parameters setting and square wave controller download sequence instrument line.");
inline const QString kAboutCompany = QStringLiteral("Pyrolink bench tools, built from source. No warranty.");  // lblDisclaimer
// Short enough to stand on Label2's one line.
inline const QString kMakerUrl = QStringLiteral("https://example.org/pyrolink");
inline const QString kFeedback = QStringLiteral("pyrolink@example.org");
inline const QString kAboutContact = QStringLiteral("example.org/pyrolink  ") + kFeedback;  // Label2
inline const QString kAboutOk = QStringLiteral("OK");

// The build's version, "1.0.0": the project's, so that every program and
// the manual say the same.
QString VersionText();
// "Bite 1.0.0", lblVersion.
QString AboutVersionText();

// The manual beside the program.
inline const QString kManualName = QStringLiteral("Pyrolink_UG.PDF");
inline const QString kHelpHintTitle = QStringLiteral("Hint");
inline const QString kMsgManualMissing = QStringLiteral("Documentation is missing!");
inline const QString kMsgManualFailed = QStringLiteral("Open the help documentation errors!");

// Opens a local file or a web address; false when it could not.
using UrlOpener = std::function<bool(const QUrl &)>;

enum : int { kHelpOpened = 0, kHelpMissing = 1, kHelpFailed = 2 };

// PeoHelp, "operation manual": the manual of the application folder through
// the opener. A missing file and a failed open each ask their Yes/No
// question, whose answer changes nothing.
int PeoHelp(const QString &appDir, Prompter *prompter, const UrlOpener &open);

// AboutTarvel: the maker's page; nothing is said when it doesn't open.
void AboutTarvel(const UrlOpener &open);

} // namespace pyro
