#include "pictures.h"

#include <QPainter>
#include <QPainterPath>

namespace pyro {

namespace {

const QColor kInk(40, 52, 70);
const QColor kAccent(0, 120, 200);

// A chip seen from above: the body and its pins.
void drawChip(QPainter &p, const QRectF &r, const QColor &body)
{
    p.setPen(QPen(kInk, r.width() / 24));
    const double pin = r.width() / 10;
    for (int i = 0; i < 4; ++i) {
        const double x = r.left() + r.width() * (0.25 + 0.17 * i);
        p.drawLine(QPointF(x, r.top()), QPointF(x, r.top() - pin));
        p.drawLine(QPointF(x, r.bottom()), QPointF(x, r.bottom() + pin));
    }
    p.setBrush(body);
    p.drawRoundedRect(r, r.width() / 12, r.width() / 12);
}

void drawArrow(QPainter &p, QPointF from, QPointF to, const QColor &color, double width)
{
    p.setPen(QPen(color, width, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(from, to);
    const QPointF d = to - from;
    const double len = std::hypot(d.x(), d.y());
    const QPointF u = d / len, n(-u.y(), u.x());
    const double head = width * 2.2;
    QPainterPath tip;
    tip.moveTo(to + u * head * 0.6);
    tip.lineTo(to - u * head + n * head);
    tip.lineTo(to - u * head - n * head);
    tip.closeSubpath();
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawPath(tip);
}

} // namespace

QPixmap appIconPixmap(int size)
{
    QPixmap pm(size, size);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    const double s = size;
    QLinearGradient g(0, 0, 0, s);
    g.setColorAt(0, QColor(255, 170, 40));
    g.setColorAt(1, QColor(220, 60, 20));
    p.setBrush(g);
    p.setPen(Qt::NoPen);
    p.drawRoundedRect(QRectF(s * 0.04, s * 0.04, s * 0.92, s * 0.92), s * 0.18, s * 0.18);
    // A chip with a flash of lightning: firmware going in.
    drawChip(p, QRectF(s * 0.24, s * 0.28, s * 0.52, s * 0.44), QColor(50, 56, 66));
    if (size >= 24) {
        QPainterPath bolt;
        bolt.moveTo(s * 0.54, s * 0.32);
        bolt.lineTo(s * 0.40, s * 0.52);
        bolt.lineTo(s * 0.50, s * 0.52);
        bolt.lineTo(s * 0.44, s * 0.68);
        bolt.lineTo(s * 0.62, s * 0.46);
        bolt.lineTo(s * 0.52, s * 0.46);
        bolt.closeSubpath();
        p.setBrush(QColor(255, 220, 60));
        p.drawPath(bolt);
    }
    return pm;
}

QIcon appIcon()
{
    QIcon icon;
    for (int size : {256, 48, 32, 24, 16})
        icon.addPixmap(appIconPixmap(size));
    return icon;
}

QPixmap stripPicture(int index, int size)
{
    QPixmap pm(size, size);
    pm.fill(QColor(250, 250, 250));
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    const double s = size, w = s / 12;
    const QRectF chip(s * 0.30, s * 0.56, s * 0.40, s * 0.30);
    switch (index) {
    case 0: {   // erase: the chip with a red cross, back to defaults
        drawChip(p, QRectF(s * 0.22, s * 0.30, s * 0.56, s * 0.44), QColor(120, 128, 140));
        p.setPen(QPen(QColor(210, 30, 30), w * 1.3, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(QPointF(s * 0.28, s * 0.22), QPointF(s * 0.72, s * 0.82));
        p.drawLine(QPointF(s * 0.72, s * 0.22), QPointF(s * 0.28, s * 0.82));
        break;
    }
    case 1:     // read: an arrow up out of the chip
        drawChip(p, chip, QColor(90, 100, 115));
        drawArrow(p, QPointF(s * 0.5, s * 0.5), QPointF(s * 0.5, s * 0.14), QColor(0, 150, 60), w);
        break;
    case 2:     // update: an arrow down into the chip
        drawChip(p, chip, QColor(90, 100, 115));
        drawArrow(p, QPointF(s * 0.5, s * 0.1), QPointF(s * 0.5, s * 0.44), kAccent, w);
        break;
    case 3: {   // save in the controller: the chip with a padlock
        drawChip(p, QRectF(s * 0.18, s * 0.40, s * 0.50, s * 0.40), QColor(90, 100, 115));
        p.setPen(QPen(QColor(200, 140, 0), w * 0.8));
        p.setBrush(Qt::NoBrush);
        p.drawArc(QRectF(s * 0.60, s * 0.12, s * 0.22, s * 0.26), 0, 180 * 16);
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(230, 170, 0));
        p.drawRoundedRect(QRectF(s * 0.55, s * 0.25, s * 0.32, s * 0.26), s * 0.04, s * 0.04);
        break;
    }
    case 4: {   // store in the project: a database drum
        p.setPen(QPen(kInk, w * 0.5));
        p.setBrush(QColor(120, 170, 220));
        const QRectF body(s * 0.24, s * 0.22, s * 0.52, s * 0.58);
        p.drawRect(QRectF(body.left(), body.top() + s * 0.07, body.width(), body.height() - s * 0.14));
        p.drawEllipse(QRectF(body.left(), body.bottom() - s * 0.14, body.width(), s * 0.14));
        p.setPen(Qt::NoPen);
        p.drawRect(QRectF(body.left() + w * 0.25, body.bottom() - s * 0.2, body.width() - w * 0.5, s * 0.12));
        p.setPen(QPen(kInk, w * 0.5));
        p.setBrush(QColor(170, 205, 240));
        p.drawEllipse(QRectF(body.left(), body.top(), body.width(), s * 0.14));
        p.setBrush(Qt::NoBrush);
        p.drawArc(QRectF(body.left(), body.top() + s * 0.2, body.width(), s * 0.14), 180 * 16, 180 * 16);
        break;
    }
    case 5: {   // watch: a live curve on a screen
        p.setPen(QPen(kInk, w * 0.6));
        p.setBrush(QColor(20, 30, 40));
        p.drawRoundedRect(QRectF(s * 0.12, s * 0.18, s * 0.76, s * 0.58), s * 0.05, s * 0.05);
        QPainterPath curve;
        curve.moveTo(s * 0.18, s * 0.55);
        curve.cubicTo(s * 0.32, s * 0.20, s * 0.42, s * 0.70, s * 0.55, s * 0.42);
        curve.cubicTo(s * 0.65, s * 0.25, s * 0.75, s * 0.45, s * 0.82, s * 0.32);
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(QColor(60, 230, 90), w * 0.8));
        p.drawPath(curve);
        p.setPen(QPen(kInk, w));
        p.drawLine(QPointF(s * 0.5, s * 0.76), QPointF(s * 0.5, s * 0.86));
        p.drawLine(QPointF(s * 0.32, s * 0.87), QPointF(s * 0.68, s * 0.87));
        break;
    }
    case 6: {   // device information: "i" in a circle
        p.setPen(Qt::NoPen);
        p.setBrush(kAccent);
        p.drawEllipse(QRectF(s * 0.14, s * 0.14, s * 0.72, s * 0.72));
        p.setBrush(Qt::white);
        p.drawEllipse(QRectF(s * 0.445, s * 0.26, s * 0.11, s * 0.11));
        p.drawRoundedRect(QRectF(s * 0.45, s * 0.42, s * 0.10, s * 0.32), s * 0.03, s * 0.03);
        break;
    }
    default:
        break;
    }
    return pm;
}

} // namespace pyro
