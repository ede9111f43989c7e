#include "qtserialcontrol.h"

#include <QTimer>

#include <algorithm>

namespace pyro {

QSerialPort::Parity QtParity(char parity)
{
    return parity == 'o' ? QSerialPort::OddParity : parity == 'e' ? QSerialPort::EvenParity : QSerialPort::NoParity;
}

QtSerialControl::QtSerialControl(QObject *parent)
    : QObject(parent)
{
    connect(&m_port, &QSerialPort::bytesWritten, this, [this](qint64) {
        if (m_port.bytesToWrite() == 0 && onComm)
            onComm(comEvSend);
    });
    connect(&m_port, &QSerialPort::readyRead, this, [this] {
        // The port is read only after a quiet spell; a peer that babbles
        // without a pause would otherwise fill memory. Keep the newest bytes.
        if (const qint64 over = m_port.bytesAvailable() - kMaxHeldInput; over > 0)
            m_port.skip(over);
        if (onComm)
            onComm(comEvReceive);
    });
    connect(&m_port, &QSerialPort::errorOccurred, this, &QtSerialControl::onError);
}

bool QtSerialControl::open(const QString &name, const PortSettings &s)
{
    if (m_port.isOpen())
        return false;
    m_port.setPortName(name);
    if (!m_port.open(QIODevice::ReadWrite))
        return false;
    const bool ok = m_port.setBaudRate(s.baud) && m_port.setParity(QtParity(s.parity))
        && m_port.setDataBits(QSerialPort::DataBits(s.dataBits))
        && m_port.setStopBits(s.stopBits == 2 ? QSerialPort::TwoStop : QSerialPort::OneStop)
        && m_port.setFlowControl(QSerialPort::NoFlowControl);
    if (!ok) {
        m_port.close();
        return false;
    }
    m_port.setReadBufferSize(0);
    m_port.clear();
    return true;
}

void QtSerialControl::close()
{
    if (m_port.isOpen())
        m_port.close();
}

bool QtSerialControl::output(const QByteArray &frame)
{
    if (!m_port.isOpen())
        return false;
    return m_port.write(frame) == frame.size();
}

QByteArray QtSerialControl::input()
{
    if (!m_port.isOpen())
        return {};
    return m_port.readAll();
}

QByteArray QtSerialControl::peek(qsizetype max)
{
    return m_port.isOpen() ? m_port.peek(max) : QByteArray();
}

QByteArray QtSerialControl::read(qsizetype n)
{
    return m_port.isOpen() ? m_port.read(n) : QByteArray();
}

bool QtSerialControl::wakeAfter(int ms, std::function<void()> callback)
{
    // Tied to this object, so that a port gone with its link calls nothing.
    QTimer::singleShot(std::max(0, ms), Qt::PreciseTimer, this, std::move(callback));
    return true;
}

void QtSerialControl::clearInput()
{
    // readAll has taken everything already; clearing the driver's queue here
    // would throw away bytes that arrived after that read.
}

void QtSerialControl::onError(QSerialPort::SerialPortError error)
{
    if (error == QSerialPort::ResourceError || error == QSerialPort::PermissionError) {
        // Closing inside the error signal can re-enter the port; do it next.
        QTimer::singleShot(0, this, [this] {
            if (m_port.isOpen())
                m_port.close();
        });
    }
}

} // namespace pyro
