#include "params.h"

#include <QDir>

namespace pyro {

const QString kTableLoadErrorText = QStringLiteral("Error loading parse the file");
const QString kTableLoadErrorTitle = QStringLiteral("Hint！");

void LoadParamTables(Params &p, const QString &appDir, Prompter *prompter, TableDiag *diags)
{
    static const char *const names[2] = {"Config.For", "Display.For"};
    for (int t = 0; t < 2; ++t) {
        const QString path = QDir(appDir).filePath(QLatin1String(names[t]));
        TableDiag diag;
        if (LoadProtocolTable(p.MSFG[t], path, p.rows(t), p.Tables[t], &diag) == 0)
            p.block(t) = QByteArray(p.Tables[t].BlockSize + 1, '\0');
        else if (prompter)
            prompter->message(kTableLoadErrorText, kTableLoadErrorTitle);
        if (diags)
            diags[t] = diag;
    }
}

} // namespace pyro
