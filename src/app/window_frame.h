#pragma once
// How every window of the program meets the desktop: it opens inside the screen's available area (the
// screen minus panels), with the window manager's frame included; a saved position and size come back
// only when they still fit a screen (a monitor unplugged, a scale factor changed); Ctrl+W, the
// platform's Close key and Esc close it. Main thread only.
#include <QKeySequence>
#include <QMargins>
#include <QRect>
#include <QString>

#include "support/settings_keys.h"

class QScreen;
class QWidget;

namespace pelmora {

class DefaultSettings;

// The outer rectangle (frame included) placed inside `available`: shrunk to fit when larger, then
// moved in from any edge it crosses. `frame` is what the window manager adds around the contents.
// Returns the contents' rectangle. Pure.
QRect fittedContents(const QRect& contents, const QMargins& frame, const QRect& available);
// Whether the outer rectangle of `contents` lies wholly inside `available`. Pure.
bool fitsInside(const QRect& contents, const QMargins& frame, const QRect& available);

// The frame the window manager puts around the window: measured once it is shown, else an estimate
// from the style's title-bar height.
QMargins frameMargins(const QWidget* window);
// The available area of the screen the window is on (or the primary screen).
QRect availableArea(const QWidget* window);
// Moves and shrinks the window so that it lies inside its screen's available area.
void fitToScreen(QWidget* window);

// Restores the geometry saved under `key` when it fits a screen; otherwise keeps the window's size,
// fitted to the screen. Returns whether the saved geometry was used.
bool restoreFrame(QWidget* window, DefaultSettings& store, const StringKey& key);
void saveFrame(const QWidget* window, DefaultSettings& store, const StringKey& key);

// Ctrl+W, the platform's Close key and Esc close the window; it is fitted to its screen each time it
// is shown. With a key, the saved geometry is restored now (when it fits) and saved whenever the
// window is hidden or closed, and by saveWindowFrame.
void installWindowConventions(QWidget* window, DefaultSettings* store = nullptr, const StringKey* frame_key = nullptr);
// Saves the geometry of a window given a key by installWindowConventions (quit, while it is open).
void saveWindowFrame(QWidget* window);

// The platform theme's key for a standard action, or `fallback` where the theme has none (several
// Linux platform themes leave Preferences, and some even Quit, unbound).
QKeySequence standardKey(QKeySequence::StandardKey key, const QKeySequence& fallback);

// A window title as task bars show it: "Statistics — Pelmora".
QString pelmoraTitle(const QString& window);

}  // namespace pelmora
