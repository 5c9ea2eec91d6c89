#pragma once
// DesktopScheme: every window follows the desktop's light or dark preference. Windows set no palette
// of their own (the statistics window only for an explicit Light or Dark choice), so they all follow
// the application palette; this object keeps that palette in step with the desktop.
//
// Qt 6.4's platform themes hand the application KDE's colour scheme, but not GNOME's "prefer dark"
// (its gtk3 theme maps no colours, and the generic theme knows none). The freedesktop settings portal
// publishes the choice of every desktop as org.freedesktop.appearance color-scheme (0 no preference,
// 1 prefer dark, 2 prefer light): it is read once at start, without blocking, and followed through the
// portal's SettingChanged signal. A desktop that prefers dark while the platform palette is light gets
// a dark application palette; a preference for light, or none, gives the platform's palette back.
// Without a session bus or a portal nothing changes. Main thread only.
#include <QDBusConnection>
#include <QDBusVariant>
#include <QObject>
#include <QPalette>
#include <QString>

#include <cstdint>

namespace pelmora {

class DesktopScheme : public QObject {
  Q_OBJECT
 public:
  enum class Preference { none = 0, dark = 1, light = 2 };

  // bus: where the portal is asked (the session bus in the program).
  explicit DesktopScheme(const QDBusConnection& bus, QObject* parent = nullptr);
  ~DesktopScheme() override;

  Preference preference() const { return m_preference; }
  // Sets the application palette for a preference (the portal's answers come here).
  void apply(Preference preference);

  // The portal's value (unwrapped from however many variants it came in); anything unknown is none.
  static Preference fromPortal(const QVariant& value);
  // A complete dark palette, for the desktop's dark preference and the graphs' Dark choice.
  static QPalette darkPalette();
  static bool isDark(const QPalette& palette);

 signals:
  void preferenceChanged(pelmora::DesktopScheme::Preference preference);

 private slots:
  void settingChanged(const QString& name_space, const QString& key, const QDBusVariant& value);

 private:
  void readNow();

  QDBusConnection m_bus;
  Preference m_preference = Preference::none;
  bool m_applied_dark = false;  // the application palette is ours, not the platform's
};

}  // namespace pelmora
