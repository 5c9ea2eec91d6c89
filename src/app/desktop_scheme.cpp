#include "app/desktop_scheme.h"

#include <QApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include "support/logger.h"

namespace pelmora {
namespace {

constexpr const char* kPortalService = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kSettingsInterface = "org.freedesktop.portal.Settings";
constexpr const char* kAppearance = "org.freedesktop.appearance";
constexpr const char* kColorScheme = "color-scheme";
// Below this lightness (0-255) a window background reads as dark.
constexpr int kDarkLightness = 128;

}  // namespace

DesktopScheme::DesktopScheme(const QDBusConnection& bus, QObject* parent) : QObject(parent), m_bus(bus) {
  if (!m_bus.isConnected()) return;
  m_bus.connect(kPortalService, kPortalPath, kSettingsInterface, "SettingChanged", this,
                SLOT(settingChanged(QString, QString, QDBusVariant)));
  readNow();
}

DesktopScheme::~DesktopScheme() {
  if (m_bus.isConnected())
    m_bus.disconnect(kPortalService, kPortalPath, kSettingsInterface, "SettingChanged", this,
                     SLOT(settingChanged(QString, QString, QDBusVariant)));
  // The palette was ours: leave the application with the platform's again.
  if (m_applied_dark) QApplication::setPalette(QPalette());
}

// Asynchronous: the portal may be slow to start, and start-up waits for nobody.
void DesktopScheme::readNow() {
  QDBusMessage read = QDBusMessage::createMethodCall(kPortalService, kPortalPath, kSettingsInterface, "Read");
  read << QString(kAppearance) << QString(kColorScheme);
  auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(read), this);
  connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* call) {
    call->deleteLater();
    const QDBusPendingReply<QDBusVariant> reply = *call;
    // No portal, or one too old to know the key: the platform's palette stays.
    if (reply.isError()) return;
    apply(fromPortal(reply.value().variant()));
  });
}

void DesktopScheme::settingChanged(const QString& name_space, const QString& key, const QDBusVariant& value) {
  if (name_space != kAppearance || key != kColorScheme) return;
  apply(fromPortal(value.variant()));
}

DesktopScheme::Preference DesktopScheme::fromPortal(const QVariant& value) {
  QVariant inner = value;
  // Read answers a variant inside a variant (the portal's first version); SettingChanged one.
  while (inner.canConvert<QDBusVariant>() && inner.metaType() == QMetaType::fromType<QDBusVariant>())
    inner = inner.value<QDBusVariant>().variant();
  bool ok = false;
  const uint raw = inner.toUInt(&ok);
  if (!ok) return Preference::none;
  switch (raw) {
    case 1: return Preference::dark;
    case 2: return Preference::light;
    default: return Preference::none;
  }
}

void DesktopScheme::apply(Preference preference) {
  const bool changed = preference != m_preference;
  m_preference = preference;
  if (preference == Preference::dark && !m_applied_dark) {
    // A platform theme that already gives a dark palette (KDE's) is left alone.
    if (!isDark(QApplication::palette())) {
      QApplication::setPalette(darkPalette());
      m_applied_dark = true;
    }
  } else if (preference != Preference::dark && m_applied_dark) {
    QApplication::setPalette(QPalette());  // an empty palette resolves to the platform's
    m_applied_dark = false;
  }
  if (changed) {
    Log(preference == Preference::dark    ? "The desktop prefers dark colours."
        : preference == Preference::light ? "The desktop prefers light colours."
                                          : "The desktop states no colour preference.");
    emit preferenceChanged(preference);
  }
}

QPalette DesktopScheme::darkPalette() {
  // Base and text are the dark graphs' own background and text colours.
  const QColor window(53, 53, 53), base(30, 30, 30), text(235, 235, 235), disabled(127, 127, 127);
  const QColor highlight(42, 130, 218);
  QPalette dark(window, window);  // derives the bevel shades (light, mid, dark, shadow) from the button
  dark.setColor(QPalette::Window, window);
  dark.setColor(QPalette::Button, window);
  dark.setColor(QPalette::Base, base);
  dark.setColor(QPalette::AlternateBase, QColor(45, 45, 45));
  dark.setColor(QPalette::ToolTipBase, base);
  for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::ToolTipText,
                    QPalette::HighlightedText})
    dark.setColor(role, text);
  dark.setColor(QPalette::BrightText, Qt::red);
  dark.setColor(QPalette::PlaceholderText, disabled);
  dark.setColor(QPalette::Highlight, highlight);
  dark.setColor(QPalette::Link, highlight.lighter(130));
  dark.setColor(QPalette::LinkVisited, highlight.lighter(110));
  for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
    dark.setColor(QPalette::Disabled, role, disabled);
  dark.setColor(QPalette::Disabled, QPalette::Highlight, QColor(80, 80, 80));
  return dark;
}

bool DesktopScheme::isDark(const QPalette& palette) { return palette.color(QPalette::Window).lightness() < kDarkLightness; }

}  // namespace pelmora
