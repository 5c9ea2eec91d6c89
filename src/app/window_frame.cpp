#include "app/window_frame.h"

#include <QAction>
#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QStyle>
#include <QTimer>
#include <QWidget>

#include <algorithm>

#include "support/default_settings.h"

namespace pelmora {
namespace {

// Shifts [start, start + length) into [low, high) where it fits, else pins it to low.
int placeInside(int start, int length, int low, int high) {
  if (start + length > high) start = high - length;
  return std::max(start, low);
}

// Shows and first-show geometry work on the window it watches.
class WindowConventions : public QObject {
 public:
  WindowConventions(QWidget* window, DefaultSettings* store, const StringKey* key)
      : QObject(window), m_window(window), m_store(store), m_key(key) {}

  void save() const {
    if (m_store && m_key) saveFrame(m_window, *m_store, *m_key);
  }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (watched == m_window && event->type() == QEvent::Show) {
      fitToScreen(m_window);
      // The window manager's frame is only known once it has framed the window.
      QTimer::singleShot(0, this, [this] { fitToScreen(m_window); });
    }
    if (watched == m_window && event->type() == QEvent::Hide) save();
    return false;
  }

 private:
  QWidget* m_window;
  DefaultSettings* m_store;
  const StringKey* m_key;
};

}  // namespace

QRect fittedContents(const QRect& contents, const QMargins& frame, const QRect& available) {
  const int frame_w = frame.left() + frame.right();
  const int frame_h = frame.top() + frame.bottom();
  const int width = std::min(contents.width(), available.width() - frame_w);
  const int height = std::min(contents.height(), available.height() - frame_h);
  const int outer_x = placeInside(contents.x() - frame.left(), width + frame_w, available.left(),
                                  available.left() + available.width());
  const int outer_y = placeInside(contents.y() - frame.top(), height + frame_h, available.top(),
                                  available.top() + available.height());
  return {outer_x + frame.left(), outer_y + frame.top(), width, height};
}

bool fitsInside(const QRect& contents, const QMargins& frame, const QRect& available) {
  return available.contains(contents.marginsAdded(frame));
}

QMargins frameMargins(const QWidget* window) {
  if (window->isVisible() && window->testAttribute(Qt::WA_WState_Created)) {
    const QRect outer = window->frameGeometry();
    const QRect inner = window->geometry();
    if (outer != inner)
      return {inner.left() - outer.left(), inner.top() - outer.top(), outer.right() - inner.right(),
              outer.bottom() - inner.bottom()};
  }
  const int title = window->style()->pixelMetric(QStyle::PM_TitleBarHeight, nullptr, window);
  const int border = window->style()->pixelMetric(QStyle::PM_MdiSubWindowFrameWidth, nullptr, window);
  return {border, title + border, border, border};
}

QRect availableArea(const QWidget* window) {
  QScreen* screen = window->screen();
  if (!screen) screen = QGuiApplication::primaryScreen();
  return screen ? screen->availableGeometry() : QRect();
}

void fitToScreen(QWidget* window) {
  const QRect available = availableArea(window);
  if (available.isEmpty()) return;
  const QMargins frame = frameMargins(window);
  const QRect current = window->geometry();
  if (fitsInside(current, frame, available)) return;
  const QRect fitted = fittedContents(current, frame, available);
  // Before the first show the window manager chooses the place: only the size is ours to set.
  if (!window->isVisible() && !window->testAttribute(Qt::WA_Moved))
    window->resize(fitted.size());
  else
    window->setGeometry(fitted);
}

bool restoreFrame(QWidget* window, DefaultSettings& store, const StringKey& key) {
  const std::string saved = key.load(store);
  if (saved.empty()) {
    fitToScreen(window);
    return false;
  }
  const QRect before = window->geometry();
  const bool moved = window->testAttribute(Qt::WA_Moved);
  bool used = window->restoreGeometry(QByteArray::fromBase64(QByteArray::fromStdString(saved)));
  if (used) {
    const QMargins frame = frameMargins(window);
    const auto screens = QGuiApplication::screens();
    used = std::any_of(screens.begin(), screens.end(), [&](const QScreen* screen) {
      return fitsInside(window->geometry(), frame, screen->availableGeometry());
    });
  }
  if (!used) {
    window->setGeometry(before);
    window->setAttribute(Qt::WA_Moved, moved);
  }
  fitToScreen(window);
  return used;
}

void saveFrame(const QWidget* window, DefaultSettings& store, const StringKey& key) {
  key.save(store, window->saveGeometry().toBase64().toStdString());
}

void installWindowConventions(QWidget* window, DefaultSettings* store, const StringKey* frame_key) {
  auto* close = new QAction(window);
  QList<QKeySequence> keys = QKeySequence::keyBindings(QKeySequence::Close);
  for (const QKeySequence& extra : {QKeySequence(Qt::CTRL | Qt::Key_W), QKeySequence(Qt::Key_Escape)})
    if (!keys.contains(extra)) keys.append(extra);
  close->setShortcuts(keys);
  close->setShortcutContext(Qt::WindowShortcut);
  QObject::connect(close, &QAction::triggered, window, &QWidget::close);
  window->addAction(close);
  if (store && frame_key) restoreFrame(window, *store, *frame_key);
  window->installEventFilter(new WindowConventions(window, store, frame_key));
}

void saveWindowFrame(QWidget* window) {
  for (QObject* child : window->children())
    if (auto* conventions = dynamic_cast<WindowConventions*>(child)) conventions->save();
}

QKeySequence standardKey(QKeySequence::StandardKey key, const QKeySequence& fallback) {
  const QList<QKeySequence> bound = QKeySequence::keyBindings(key);
  return bound.isEmpty() ? fallback : bound.first();
}

QString pelmoraTitle(const QString& window) { return window + QStringLiteral(" — ") + QObject::tr("Pelmora"); }

}  // namespace pelmora
