#include "commands.h"
#include "fakeport.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"

#include <QCoreApplication>
#include <QTextStream>

using namespace pyro;

int cliPorts(const QStringList &)
{
    // The same scan as AutoDetect: a port counts when it opens.
    Link link;
    QtSerialControl port;
    link.appDir = QCoreApplication::applicationDirPath();
    AttachPort(link, &port);
    InitPortBoxes(link.view);
    AutoDetect(link, CandidatePorts(link.appDir));
    QTextStream out(stdout);
    for (const QString &name : link.view.ComboSet[0].list)
        out << name << '\n';
    return 0;
}
