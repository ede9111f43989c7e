#include "gbk.h"

#include <QStringDecoder>
#include <QStringEncoder>

namespace pyro {

QByteArray toGbk(const QString &text)
{
    QStringEncoder enc("GBK");
    if (!enc.isValid())
        return text.toLocal8Bit();   // a Qt without the converter: the local code page
    return enc(text);
}

QString fromGbk(const QByteArray &bytes)
{
    QStringDecoder dec("GBK");
    if (!dec.isValid())
        return QString::fromLocal8Bit(bytes);
    return dec(bytes);
}

} // namespace pyro
