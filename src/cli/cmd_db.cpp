#include "commands.h"

#include <QTextStream>

int cliDb(const QStringList &)
{
    QTextStream(stderr) << "pyrolink-cli: 'db' is not available in this build\n";
    return 2;
}
