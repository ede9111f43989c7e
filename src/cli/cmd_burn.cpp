#include "commands.h"

#include <QTextStream>

int cliBurn(const QStringList &)
{
    QTextStream(stderr) << "pyrolink-cli: 'burn' is not available in this build\n";
    return 2;
}
