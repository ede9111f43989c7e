#pragma once
#include <QStringList>

// Each command of pyrolink-cli takes the words after its name and gives the
// process exit code from the one table in clisession.h.
int cliPorts(const QStringList &args);
int cliMonitor(const QStringList &args);
int cliTable(const QStringList &args);
int cliBurn(const QStringList &args);
int cliParams(const QStringList &args);
int cliDb(const QStringList &args);
int cliRecords(const QStringList &args);
// params diff, export, import.
int cliParamsService(const QString &verb, const QStringList &args);
// ports --probe.
int cliPortsProbe(const QStringList &args);
