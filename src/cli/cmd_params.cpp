#include "commands.h"

#include <QTextStream>

int cliParams(const QStringList &)
{
    QTextStream(stderr) << "pyrolink-cli: 'params' is not available in this build\n";
    return 2;
}
