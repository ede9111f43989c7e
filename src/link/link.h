#pragma once
#include "prompter.h"
#include "serialcontrol.h"

#include <QByteArray>
#include <QDateTime>
#include <QRgb>
#include <QString>
#include <QStringList>
#include <array>
#include <cstdint>
#include <functional>

namespace pyro {

struct ComboBox {
    QStringList list;
    QString text;
};

// What the logic reads and writes of the main window. The window shows it and
// forwards clicks; it holds no logic of its own.
struct View {
    QString SB[4]{QString(), QStringLiteral("串口未打开")};   // status panels 1..3 (0 unused)
    QString Command2Caption = QStringLiteral("OpenUart");
    QRgb Shape1 = qRgb(250, 0, 0);       // the port lamp
    bool Command3Enabled = true;         // "Load File"
    bool Command4Enabled = false;        // "Program"/"Stop"
    QString Command4Caption = QStringLiteral("Program");
    std::array<ComboBox, 6> ComboSet;
    std::array<bool, 4> Check1{true, false, false, false};   // Version, KeepInF, CurrSet, AutoLoad
    std::array<QString, 7> NotesTxt;
    std::array<bool, 7> MenuImgEnabled{true, true, true, true, false, true, true};
    // The path-and-progress strip: InfLab's text, PersLab's bar behind it.
    QString InfLab;
    int InfLabWidth = 8500;              // twips
    bool PersLabVisible = false;
    int PersLabWidth = 0;                // twips
    QString RTB;                         // the log pane's whole text
    // Which grid lies in front: 0 settings MSFG(0), 1 running values MSFG(1).
    int frontGrid = 0;
    // Asks the window to give Program the focus; counts up, so that two
    // requests in a row are two.
    quint32 Command4Focus = 0;
};

// One frame on the line, as the exchange engine saw it: what was sent, or
// the block read back with the outcome it was judged to have (MBResult;
// 1 and 2 carry no block). For line monitors and verbose logs.
struct ExchangeRecord {
    enum Direction { Sent, Received } direction = Sent;
    qint64 tick = 0;                     // Link::ticks when it happened
    uint8_t function = 0;                // of the frame sent
    QByteArray frame;
    int16_t outcome = 0;
};

// Everything the tick owns: the port, the frame buffers, the exchange
// counters and the words that hand the line from mode to mode.
struct Link {
    SerialControl *MBMC = nullptr;
    Prompter *prompter = nullptr;
    // Dates and times for log lines and stamps; tests fix them.
    std::function<QDateTime()> now = [] { return QDateTime::currentDateTime(); };
    QString appDir;                      // the folder of the program file

    View view;

    QByteArray MBTxBuf;
    QByteArray MBRxBuf;

    int16_t MBStep = 0;
    int16_t MBWait = 0;
    int16_t MBQuiet = 0;
    int16_t MBSendLimit = 0;
    int16_t MBReplyLimit = 0;
    int16_t MBQuietLimit = 0;
    int16_t MBResult = -1;

    uint8_t ModeRequest = 0;
    uint8_t LinkMode = 0;
    int16_t StateWord = 0;
    int16_t TryCount = 0;
    int16_t BurnArmed = 0;
    int16_t BurnBegun = 0;
    // A button armed its operation afresh: the tick hands the line over as for
    // a change of mode, even when ModeRequest came back to LinkMode before the
    // tick saw it (Stop or Load File, then Program, within one exchange).
    bool ModeRearmed = false;

    // The firmware path: Load File sets it, the strip shows it.
    QString BinPath;

    // One step of the state machine of LinkMode 1..7, filled by the burn and
    // the parameter operations. Mode 0 is the monitor below.
    std::array<std::function<void()>, 8> modeStep;
    // The port closed or went away, or a scan took it, whatever the burn was
    // doing: the burn ends its chip in hand with this result ("port closed",
    // "port lost"). Set by AttachBurn.
    std::function<void(const QString &result)> onBurnCut;

    // Called for every frame sent and every outcome judged; unset, it costs
    // one test per exchange.
    std::function<void(const ExchangeRecord &)> onExchange;

    bool inTick = false;                 // a modal box inside a tick must not tick again
    qint64 ticks = 0;                    // ticks run, for benchmarks and the CLI

    // The fast line: off by default, and nothing below matters while it is.
    // A reply whose length is known from its function ends the exchange as
    // soon as it is whole and checks; the owner of the line runs at once, and
    // its next frame waits only the silence a serial peer needs.
    bool fastLine = false;
    PortSettings lineSettings;           // of the port last opened: the gap's length
    std::function<qint64()> clockUs;     // monotonic microseconds; empty = the steady clock
    bool fastGiveUp = false;             // this reply did not parse: judge it by silence
    // A failed exchange may leave a late reply on its way; until silence has
    // judged a good reply again, a frame that checks may be that one.
    bool fastSuspect = false;
    bool fastHeld = false;               // MBTxBuf waits out the gap before it goes
    qint64 fastGapUntil = 0;             // clockUs of the end of the gap
    qint64 fastReplies = 0;              // exchanges the fast line ended, for benchmarks
};

// --- the exchange engine ---------------------------------------------------

// Builds the frame into MBTxBuf (address 01, function, body, CRC).
void MBBuildFrame(Link &l, uint8_t function, const QByteArray &body);
void MBSend(Link &l, int16_t quietLimit, int16_t replyLimit, int16_t sendLimit);
void MBExchangeTick(Link &l);
void OnComm(Link &l, CommEvent ev);

// --- the fast line ---------------------------------------------------------

// The reply's whole length from the request and the reply's first bytes:
// 0 = not enough bytes yet to tell, -1 = no length can be trusted.
int FastReplyLength(const QByteArray &request, const QByteArray &head);
// The silence before the next frame: 3.5 characters at the port's settings, in µs.
qint64 FastGapUs(const PortSettings &s);
// The end of the gap: a frame held back goes out now (the port's timer calls it).
void FastWake(Link &l);

// --- the tick --------------------------------------------------------------

// Wires the port's notices to OnComm. Call once the port object exists.
void AttachPort(Link &l, SerialControl *port);
void MBTimTimer(Link &l);
void LinkMonitorStep(Link &l);

// The strip: text over a bar of width (InfLab width - 20) x fraction; 0 hides it.
void ShowProgress(View &v, const QString &text, float fraction);

// Appends "date time message\r\n" to the log pane.
void AddLog(Link &l, const QString &message);
QString LogLine(const QDateTime &when, const QString &message);

// The mouse over a control that gives hints: its tool tip to panel 3.
void MouseHint(View &v, const QString &toolTip);

// A real number to an integer: nearest, ties to even.
qint64 RoundHalfEven(double x);

} // namespace pyro
