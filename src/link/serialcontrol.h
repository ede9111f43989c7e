#pragma once
#include <QByteArray>
#include <QString>
#include <functional>

namespace pyro {

// What the open step hands the port: the parts of the settings text
// "57600,n,8,1" after they have been checked.
struct PortSettings {
    qint32 baud = 57600;
    char parity = 'n';   // 'n', 'o' or 'e'
    int dataBits = 8;
    int stopBits = 1;
};

// The most input a port holds unread: far above the longest reply (a settings
// block of 480 bytes in one frame), so that a peer that never stops talking
// can't grow it. Past it the oldest bytes are dropped; such a block fails its
// CRC whatever it keeps.
constexpr qsizetype kMaxHeldInput = 64 * 1024;

enum CommEvent { comEvSend = 1, comEvReceive = 2 };

// The one serial control. Never blocks; notices come through onComm on the
// thread of the tick, between handlers.
class SerialControl {
public:
    virtual ~SerialControl() = default;

    // Opens the named port; false (with errorText) when it can't.
    virtual bool open(const QString &name, const PortSettings &settings) = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;
    // Queues the whole frame; false when the port refuses it.
    virtual bool output(const QByteArray &frame) = 0;
    // Everything received and not yet read, in order.
    virtual QByteArray input() = 0;
    virtual void clearInput() = 0;
    virtual void clearOutput() = 0;
    virtual QString errorText() const = 0;

    // For the fast line. The bytes received and not read, at most max, left in
    // place; a control that can't look ahead gives none, and the fast line
    // then judges every reply by silence.
    virtual QByteArray peek(qsizetype max) { Q_UNUSED(max); return {}; }
    // Takes n bytes off the front of the input.
    virtual QByteArray read(qsizetype n) { Q_UNUSED(n); return {}; }
    // Calls back after about ms milliseconds on the thread of the tick; false
    // when there is no such timer (the next tick then does it).
    virtual bool wakeAfter(int ms, std::function<void()> callback) { Q_UNUSED(ms); Q_UNUSED(callback); return false; }

    std::function<void(CommEvent)> onComm;
};

} // namespace pyro
