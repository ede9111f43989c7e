#pragma once
// A read of the board's settings that leaves the working copy alone: the
// compare view asks for it. It takes the line as the image buttons' modes do,
// as mode 8, with the same frame as a read of the settings, and keeps what
// came in a block of its own; the status panels and the grid don't change.
#include "link.h"
#include "params.h"

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace pyro {

constexpr uint8_t kBoardReadMode = 8;

struct BoardRead {
    Link *link = nullptr;
    Params *params = nullptr;
    QByteArray block;                    // the last good block read, BlockSize bytes
    QString error;                       // why the last read gave none; empty after a good one
    bool pending = false;                // asked for and not ended
    quint64 reads = 0;                   // reads ended, good or not
};

// Hooks BoardReadStep into link.modeStep.
void InstallBoardRead(Link &link, Params &params, BoardRead &r);
// Asks for a read. False with the reason while a burn runs or the port is closed.
bool RequestBoardRead(BoardRead &r);
void BoardReadStep(BoardRead &r);

} // namespace pyro
