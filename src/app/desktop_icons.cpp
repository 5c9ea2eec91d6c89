#include "app/desktop_icons.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QStringList>

namespace pelmora {
namespace {

QIcon themeIcon(const QStringList& names) {
  for (const QString& name : names)
    if (QIcon::hasThemeIcon(name)) return QIcon::fromTheme(name);
  return {};
}

// A square pixmap painted in a 128-unit coordinate system, whatever its pixel size.
template <typename Paint>
QIcon drawn(int size_px, Paint paint) {
  QPixmap pixmap(size_px, size_px);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.scale(size_px / 128.0, size_px / 128.0);
  paint(painter);
  painter.end();
  return QIcon(pixmap);
}

void drawPlug(QPainter& p, const QColor& ink) {
  p.setPen(Qt::NoPen);
  p.setBrush(ink);
  p.drawRoundedRect(QRectF(42, 14, 10, 30), 4, 4);  // prongs
  p.drawRoundedRect(QRectF(76, 14, 10, 30), 4, 4);
  QPainterPath body;
  body.moveTo(28, 44);
  body.lineTo(100, 44);
  body.lineTo(100, 70);
  body.cubicTo(100, 86, 84, 96, 72, 96);
  body.lineTo(56, 96);
  body.cubicTo(44, 96, 28, 86, 28, 70);
  body.closeSubpath();
  p.drawPath(body);
  p.drawRoundedRect(QRectF(56, 94, 16, 22), 4, 4);  // cable
}

void drawBattery(QPainter& p, const QColor& ink) {
  p.setBrush(Qt::NoBrush);
  p.setPen(QPen(ink, 8));
  p.drawRoundedRect(QRectF(30, 24, 68, 96), 10, 10);
  p.setPen(Qt::NoPen);
  p.setBrush(ink);
  p.drawRoundedRect(QRectF(50, 8, 28, 14), 4, 4);  // terminal
  p.drawRoundedRect(QRectF(42, 62, 44, 46), 4, 4);  // charge
}

// A padlock; open, its shackle is raised and the left leg stands free of the body.
void drawLock(QPainter& p, bool open, const QColor& ink) {
  const double lift = open ? 20 : 0;
  QPainterPath shackle;
  shackle.moveTo(40, 62 - lift);
  shackle.lineTo(40, 44 - lift);
  shackle.arcTo(QRectF(40, 20 - lift, 48, 48), 180, -180);
  shackle.lineTo(88, 62);
  p.setBrush(Qt::NoBrush);
  p.setPen(QPen(ink, 12, Qt::SolidLine, Qt::FlatCap));
  p.drawPath(shackle);
  p.setPen(Qt::NoPen);
  p.setBrush(ink);
  p.drawRoundedRect(QRectF(26, 60, 76, 56), 8, 8);
}

}  // namespace

QIcon lockIcon(bool open, const QColor& ink) {
  const QIcon theme = open ? themeIcon({QStringLiteral("changes-allow"), QStringLiteral("changes-allow-symbolic")})
                           : themeIcon({QStringLiteral("changes-prevent"), QStringLiteral("changes-prevent-symbolic")});
  if (!theme.isNull()) return theme;
  return drawn(32, [&](QPainter& p) { drawLock(p, open, ink); });
}

QIcon drawnProgramIcon(int size_px) {
  return drawn(size_px, [](QPainter& p) {
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x9a, 0xa3, 0xad));
    for (int pin : {34, 60, 86}) {
      p.drawRoundedRect(QRectF(pin, 8, 8, 16), 2, 2);
      p.drawRoundedRect(QRectF(pin, 104, 8, 16), 2, 2);
      p.drawRoundedRect(QRectF(8, pin, 16, 8), 2, 2);
      p.drawRoundedRect(QRectF(104, pin, 16, 8), 2, 2);
    }
    p.setBrush(QColor(0x2b, 0x34, 0x40));
    p.drawRoundedRect(QRectF(20, 20, 88, 88), 12, 12);
    p.setBrush(QColor(0x1c, 0x23, 0x2c));
    p.setPen(QPen(QColor(0x4a, 0x56, 0x63), 2));
    p.drawRoundedRect(QRectF(32, 32, 64, 64), 6, 6);
    const QPointF line[] = {{38, 74}, {48, 70}, {56, 78}, {66, 56}, {76, 62}, {90, 42}};
    p.setPen(QPen(QColor(0x5f, 0xd4, 0x9b), 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPolyline(line, 6);
  });
}

QIcon programIcon() {
  const QIcon theme = themeIcon({QStringLiteral("net.tandrel.pelmora")});
  if (!theme.isNull()) return theme;
  QIcon icon;
  for (int size : {16, 22, 32, 48, 64, 128}) icon.addPixmap(drawnProgramIcon(size).pixmap(size));
  return icon;
}

QIcon drawnPowerSourceIcon(bool on_battery, const QColor& ink, int size_px) {
  return drawn(size_px, [&](QPainter& p) { on_battery ? drawBattery(p, ink) : drawPlug(p, ink); });
}

QIcon powerSourceIcon(bool on_battery, const QColor& ink) {
  const QIcon theme = on_battery ? themeIcon({QStringLiteral("battery"), QStringLiteral("battery-full"),
                                              QStringLiteral("battery-good-symbolic"),
                                              QStringLiteral("battery-full-symbolic")})
                                 : themeIcon({QStringLiteral("ac-adapter"), QStringLiteral("ac-adapter-symbolic")});
  return theme.isNull() ? drawnPowerSourceIcon(on_battery, ink) : theme;
}

}  // namespace pelmora
