#pragma once
// Finds the ports where a board answers: each port that opens gets the link
// monitor's poll (0xF0) on an exchange engine of its own, all of them on the
// same tick, a few times over; a good answer names the board's mode. A port
// where nothing or something else talks says so and is let go; nothing waits.
#include "link.h"

#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <vector>

namespace pyro {

enum class ProbeAnswer {
    Pending,                             // still polling
    NotOpened,                           // the port could not be opened
    Silent,                              // opened, nothing came back
    NoBoard,                             // something talked, never a good answer
    Download,                            // a board, in its loader (mode 1)
    Run,                                 // a board, running (mode 2)
    Stop,                                // a board, stopped (mode 3)
};
// "board: run mode", "no answer", ...
QString ProbeAnswerText(ProbeAnswer a);
inline bool BoardAnswered(ProbeAnswer a)
{
    return a == ProbeAnswer::Download || a == ProbeAnswer::Run || a == ProbeAnswer::Stop;
}

struct ProbeLine {
    QString name;                        // as given: COMn or a device path
    std::unique_ptr<SerialControl> port;
    Link link;                           // its own exchange engine
    int polls = 0;                       // frames sent
    bool heard = false;                  // any byte came in
    ProbeAnswer answer = ProbeAnswer::Pending;
    QString detail;                      // the open's error, what came back
};

struct PortProbe {
    std::vector<std::unique_ptr<ProbeLine>> lines;
    int pollLimit = 3;                   // polls before a port counts as no board
};

using PortFactory = std::function<std::unique_ptr<SerialControl>()>;

// Opens each named port (ResolvePortName with appDir) with the settings and
// sends the first poll. Ports that don't open are answered at once.
void StartProbe(PortProbe &probe, const QStringList &names, const QString &appDir, const PortSettings &settings,
                const PortFactory &makePort);
// One tick of every line still polling; a line that has its answer closes its port.
void ProbeTick(PortProbe &probe);
bool ProbeDone(const PortProbe &probe);
// Closes whatever is still open; the lines keep their answers.
void StopProbe(PortProbe &probe);

// The names again, those where a board answered first, each group in the
// order given: for port boxes that offer the likely ports at the top.
QStringList AnsweringFirst(const QStringList &names, const PortProbe &probe);

} // namespace pyro
