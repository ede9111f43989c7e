#pragma once
#include "serialcontrol.h"

#include <QList>
#include <QSet>

namespace pyro {

// An in-memory port for tests. Nothing happens by itself: the test (or the
// in-process board) delivers bytes and calls pump() between ticks, the way
// the event loop would deliver the port's notices.
class FakePort : public SerialControl {
public:
    bool open(const QString &name, const PortSettings &settings) override;
    void close() override;
    bool isOpen() const override { return m_open; }
    bool output(const QByteArray &frame) override;
    QByteArray input() override;
    void clearInput() override { m_input.clear(); }
    void clearOutput() override {}
    QString errorText() const override { return m_error; }
    QByteArray peek(qsizetype max) override { return m_input.left(max); }
    QByteArray read(qsizetype n) override;

    // Bytes from the peer: queued for input, with a receive notice.
    void deliver(const QByteArray &bytes);
    // Delivers the transmit-empty notice of the last output, if due.
    void pump();
    // The device went away (adapter pulled): the port reads as closed.
    void vanish() { m_open = false; }
    QByteArray pending() const { return m_input; }

    QSet<QString> refusedNames;          // names that fail to open
    bool refuseOutput = false;           // Output raises an error
    bool holdSendNotice = false;         // the transmit-empty notice never comes
    QString openedName;
    PortSettings openedSettings;
    QList<QByteArray> written;           // every frame handed to output
    std::function<void(const QByteArray &)> onOutput;   // the peer hears a frame

private:
    bool m_open = false;
    bool m_sendDue = false;
    QByteArray m_input;
    QString m_error;
};

} // namespace pyro
