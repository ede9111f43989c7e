#pragma once
#include "link.h"

namespace pyro {

// Fills the six ComboSet boxes with their lists and initial values.
void InitPortBoxes(View &v);

// "57600,n,8,1" from ComboSet(1..4).
QString MBSettings(const View &v);
// Checks a settings text and splits it; false for a form the port can't use.
bool ParseSettings(const QString &settings, PortSettings *out);

// The device a ComboSet(0) text names: "COMn" as is on Windows; elsewhere a
// text beginning with '/' is a device path, and "COMn" is the link of that
// name in the application folder if there is one, else /dev/ttyS(n-1).
// Empty when the text names no port.
QString ResolvePortName(const QString &text, const QString &appDir);

// Command2: open with the boxes as they stand, or close.
void Command2Click(Link &l);
void ClosePort(Link &l);
// The port went away by itself: closed as by CloseUart, the burn told so.
void PortLost(Link &l);
// A change or click in any ComboSet box closes an open port.
void ComboSetChange(Link &l, int index);
// Command1: lists the ports that open, leaves the port closed.
void AutoDetect(Link &l, const QStringList &candidates);
// The ports AutoDetect tries on this platform.
QStringList CandidatePorts(const QString &appDir);

// Resets the burn controls after a close or a scan; a chip in hand ends with
// burnResult.
void CancelBurnControls(Link &l, const QString &burnResult = QStringLiteral("port closed"));

} // namespace pyro
