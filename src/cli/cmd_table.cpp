#include "commands.h"

#include <QTextStream>

int cliTable(const QStringList &)
{
    QTextStream(stderr) << "pyrolink-cli: 'table' is not available in this build\n";
    return 2;
}
