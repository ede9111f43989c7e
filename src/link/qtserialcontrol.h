#pragma once
#include "serialcontrol.h"

#include <QObject>
#include <QSerialPort>

namespace pyro {

// The parity letter of the settings text ('n', 'o', 'e') as the port's own.
QSerialPort::Parity QtParity(char parity);

// The real port. bytesWritten with nothing left to write stands for the
// transmit-empty notice, readyRead for the arrival of data. A device that
// goes away (adapter pulled, pseudo-terminal closed) closes the port, so the
// next tick finds it closed.
class QtSerialControl : public QObject, public SerialControl {
    Q_OBJECT
public:
    explicit QtSerialControl(QObject *parent = nullptr);

    bool open(const QString &name, const PortSettings &settings) override;
    void close() override;
    bool isOpen() const override { return m_port.isOpen(); }
    bool output(const QByteArray &frame) override;
    QByteArray input() override;
    void clearInput() override;
    void clearOutput() override {}
    QString errorText() const override { return m_port.errorString(); }
    QByteArray peek(qsizetype max) override;
    QByteArray read(qsizetype n) override;
    bool wakeAfter(int ms, std::function<void()> callback) override;

private:
    void onError(QSerialPort::SerialPortError error);

    QSerialPort m_port;
};

} // namespace pyro
