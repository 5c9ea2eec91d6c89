#pragma once
// The icons the program shows of its own: the program icon, the power-source symbol and the lock. Each comes
// from the desktop's icon theme where the theme has it (the installed program icon, the theme's
// ac-adapter and battery icons) and is otherwise drawn here, so that no window or tray ever shows an
// empty square or a missing emoji glyph. Main thread only (QPixmap).
#include <QColor>
#include <QIcon>

namespace pelmora {

// The program's icon: the theme's "net.tandrel.pelmora", else a processor drawn in its colours.
QIcon programIcon();
// A processor package with a small load line, as the installed SVG draws it, at `size_px`.
QIcon drawnProgramIcon(int size_px = 64);

// The power-source symbol: the theme's ac-adapter or battery icon, else a plug or a battery drawn in
// `ink` (the text colour of the window showing it).
QIcon powerSourceIcon(bool on_battery, const QColor& ink);
QIcon drawnPowerSourceIcon(bool on_battery, const QColor& ink, int size_px = 32);

// The lock of the CPU settings window: the theme's changes-allow (open) or changes-prevent icon, else
// a padlock drawn in `ink`.
QIcon lockIcon(bool open, const QColor& ink);

}  // namespace pelmora
