#include "help.h"

#include "prompter.h"

#include <QDir>
#include <QFileInfo>

namespace pyro {

QString VersionText()
{
    return QStringLiteral("%1.%2.%3").arg(PYRO_VERSION_MAJOR).arg(PYRO_VERSION_MINOR).arg(PYRO_VERSION_PATCH);
}

QString AboutVersionText()
{
    return QStringLiteral("Bite ") + VersionText();
}

int PeoHelp(const QString &appDir, Prompter *prompter, const UrlOpener &open)
{
    const QString path = QDir(appDir).filePath(kManualName);
    // Both boxes have Yes and No, and either answer leaves things as they are.
    auto ask = [&](const QString &text, int result) {
        if (prompter)
            prompter->question(text, kHelpHintTitle);
        return result;
    };
    if (!QFileInfo(path).isFile())
        return ask(kMsgManualMissing, kHelpMissing);
    if (!open || !open(QUrl::fromLocalFile(path)))
        return ask(kMsgManualFailed, kHelpFailed);
    return kHelpOpened;
}

void AboutTarvel(const UrlOpener &open)
{
    if (open)
        open(QUrl(kMakerUrl));
}

} // namespace pyro
