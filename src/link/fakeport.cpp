#include "fakeport.h"

namespace pyro {

bool FakePort::open(const QString &name, const PortSettings &settings)
{
    if (m_open || refusedNames.contains(name)) {
        m_error = QStringLiteral("cannot open %1").arg(name);
        return false;
    }
    m_open = true;
    openedName = name;
    openedSettings = settings;
    m_input.clear();
    m_sendDue = false;
    return true;
}

void FakePort::close()
{
    m_open = false;
    m_sendDue = false;
}

bool FakePort::output(const QByteArray &frame)
{
    if (!m_open || refuseOutput)
        return false;
    written << frame;
    m_sendDue = !holdSendNotice;
    if (onOutput)
        onOutput(frame);
    return true;
}

QByteArray FakePort::input()
{
    QByteArray all = m_input;
    m_input.clear();
    return all;
}

QByteArray FakePort::read(qsizetype n)
{
    const QByteArray head = m_input.left(n);
    m_input.remove(0, head.size());
    return head;
}

void FakePort::deliver(const QByteArray &bytes)
{
    if (!m_open || bytes.isEmpty())
        return;
    m_input += bytes;
    if (m_input.size() > kMaxHeldInput)
        m_input.remove(0, m_input.size() - kMaxHeldInput);
    if (onComm)
        onComm(comEvReceive);
}

void FakePort::pump()
{
    if (m_sendDue && m_open) {
        m_sendDue = false;
        if (onComm)
            onComm(comEvSend);
    }
}

} // namespace pyro
