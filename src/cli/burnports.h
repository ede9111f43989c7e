#pragma once
#include "link.h"

#include <QString>
#include <QStringList>

// The options of `burn` as parsed and checked, for a run on several ports.
struct BurnPortsOptions {
    QString file;
    QString frameLen;
    QString order;
    QString station;                    // the chip store's station; empty: the host name
    bool autoLoad = false;
    bool keepSettings = false;
    bool fast = false;
    bool json = false;
    bool quiet = false;
    int chips = 0;                      // good chips in total; 0: no limit
    double timeout = 10;
    double totalTimeout = 0;
};

// Burns one image on every port at once; the worst of the ports' exit codes.
// boxes holds the checked line settings (ComboSet 1..4).
int cliBurnPorts(const QStringList &ports, const BurnPortsOptions &options, const pyro::View &boxes);
