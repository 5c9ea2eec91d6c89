// The appearance through the application object and its real windows: every window follows the
// desktop's colour scheme (the settings portal's color-scheme, answered by a portal of the test's own
// on a private session bus, or the platform palette changing under it), and the graph pane's
// appearance choice reaches every graph: the statistics window's, the live icon and the tray's.
#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QRadioButton>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>

#include "app/app_rig.h"
#include "app/desktop_scheme.h"
#include "app/dock.h"
#include "common/private_bus.h"
#include "graphs/views/graph_view.h"
#include "graphs/views/preferences_graph.h"

namespace pelmora {
namespace {

using app_test::AppRig;

constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kSettings = "org.freedesktop.portal.Settings";

// The desktop's settings portal, as xdg-desktop-portal serves it: Read answers a variant in a variant,
// SettingChanged carries one.
class FakePortal : public QDBusVirtualObject {
 public:
  explicit FakePortal(QDBusConnection bus) : m_bus(std::move(bus)) {
    m_bus.registerService("org.freedesktop.portal.Desktop");
    m_bus.registerVirtualObject(kPortalPath, this);
  }
  ~FakePortal() override { m_bus.unregisterObject(kPortalPath); }
  void change(uint scheme) {
    m_scheme = scheme;
    QDBusMessage signal = QDBusMessage::createSignal(kPortalPath, kSettings, "SettingChanged");
    signal << QString("org.freedesktop.appearance") << QString("color-scheme")
           << QVariant::fromValue(QDBusVariant(scheme));
    m_bus.send(signal);
  }
  void setScheme(uint scheme) { m_scheme = scheme; }
  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    const QVariantList args = message.arguments();
    if (message.interface() == kSettings && message.member() == "Read" && args.size() == 2 &&
        args[0].toString() == "org.freedesktop.appearance" && args[1].toString() == "color-scheme") {
      const QVariant inner = QVariant::fromValue(QDBusVariant(m_scheme));
      connection.send(message.createReply(QVariant::fromValue(QDBusVariant(inner))));
    } else {
      connection.send(message.createErrorReply("org.freedesktop.portal.Error.NotFound", "no such setting"));
    }
    return true;
  }

 private:
  QDBusConnection m_bus;
  uint m_scheme = 0;
};

bool dark(const QColor& color) { return color.lightness() < 128; }

// The colour most of a picture shows: a graph's background, whatever data is drawn over it.
QColor background(const QImage& image) {
  std::map<QRgb, int> seen;
  for (int y = 1; y < image.height() - 1; y += 2)
    for (int x = 1; x < image.width() - 1; x += 2) ++seen[image.pixel(x, y)];
  auto most = std::max_element(seen.begin(), seen.end(), [](auto& a, auto& b) { return a.second < b.second; });
  return most == seen.end() ? QColor() : QColor::fromRgba(most->first);
}

class Appearance : public ::testing::Test {
 public:
  ~Appearance() override {
    QDBusConnection::disconnectFromBus("appearance-test-portal");
    QDBusConnection::disconnectFromBus("appearance-test-app");
  }
  QDBusConnection connect(const char* name) const {
    return QDBusConnection::connectToBus(QString::fromStdString(bus.address()), name);
  }
  void SetUp() override {
    if (!bus.running()) GTEST_SKIP() << "dbus-daemon is not installed";
  }
  void TearDown() override {
    if (rig) rig->closeAll();
    rig.reset();
    portal.reset();
    QApplication::setPalette(QPalette());
    GraphSwitches::current() = GraphSwitches{};
  }
  // The program started as a user starts it on a desktop whose portal answers `scheme`, with every
  // window open and the live icon on.
  void launch(uint scheme) {
    TearDown();
    portal = std::make_unique<FakePortal>(connect("appearance-test-portal"));
    portal->setScheme(scheme);
    expected = DesktopScheme::fromPortal(QVariant(scheme));  // what settle() waits for
    rig = std::make_unique<AppRig>();
    rig->desktop_bus = [this] { return connect("appearance-test-app"); };
    rig->app = rig->makeApp();
    rig->app->finishLaunching();
    rig->app->showSystemStats();
    rig->app->showProcesses();
    rig->app->showPreferences();
    rig->app->openHelp();
    rig->app->dock()->setDisplay(Dock::Display::CPU);
    settle();
  }
  // The portal's answers travel through the bus daemon: wait for the application to act on them.
  void settle() {
    QTest::qWait(50);
    (void)QTest::qWaitFor([this] { return rig->app->desktopScheme()->preference() == expected; }, 5000);
    QApplication::processEvents();
  }
  void choose(QRadioButton* PreferencesGraph::*radio) {
    auto* pane = rig->app->preferences()->findChild<PreferencesGraph*>();
    ASSERT_NE(pane, nullptr);
    (pane->*radio)->click();
  }
  // Whether each window's background and each graph's ("graph: ...") is dark.
  std::map<std::string, bool> shown() {
    auto* graph = SystemStatsWindow::instance()->findChild<GraphView*>();
    Dock* dock = rig->app->dock();
    return {{"CPU settings", dark(rig->app->window()->palette().color(QPalette::Window))},
            {"statistics", dark(SystemStatsWindow::instance()->palette().color(QPalette::Window))},
            {"processes", dark(ProcinfoWindow::shared()->palette().color(QPalette::Window))},
            {"preferences", dark(rig->app->preferences()->palette().color(QPalette::Window))},
            {"help", dark(rig->app->helpViewer()->palette().color(QPalette::Base))},
            {"graph: statistics", dark(background(graph->grab().toImage()))},
            {"graph: live icon", dark(background(dock->icon().pixmap(Dock::kTileSize_px).toImage()))},
            {"graph: tray", dark(background(dock->trayIcon().pixmap(Dock::kTraySize_px).toImage()))}};
  }

  stats_test::SwitchesGuard switches;
  test::PrivateBus bus;
  std::unique_ptr<FakePortal> portal;
  std::unique_ptr<AppRig> rig;
  DesktopScheme::Preference expected = DesktopScheme::Preference::none;
};

TEST_F(Appearance, EveryWindowFollowsTheDesktopAndTheChoiceReachesEveryGraph) {
  using P = DesktopScheme::Preference;
  const struct {
    const char* what;
    uint scheme_at_start;
    std::function<void(Appearance&)> then;
    P preference;
    bool others_dark, stats_window_dark, graphs_dark;
  } cases[] = {
      {"a light desktop", 0, nullptr, P::none, false, false, false},
      {"a desktop that prefers dark from the start", 1, nullptr, P::dark, true, true, true},
      {"the desktop switches to dark", 2, [](Appearance& t) { t.portal->change(1); }, P::dark, true, true, true},
      {"the desktop switches back to light", 1, [](Appearance& t) { t.portal->change(2); }, P::light, false, false,
       false},
      {"the platform palette turns dark (KDE's scheme)", 0,
       [](Appearance&) { QApplication::setPalette(DesktopScheme::darkPalette()); }, P::none, true, true, true},
      {"Dark chosen on a light desktop", 0,
       [](Appearance& t) { t.choose(&PreferencesGraph::m_radio_dark); }, P::none, false, true, true},
      {"Light chosen on a dark desktop", 1,
       [](Appearance& t) { t.choose(&PreferencesGraph::m_radio_light); }, P::dark, true, false, false},
      {"System appearance chosen again on a dark desktop", 1,
       [](Appearance& t) {
         t.choose(&PreferencesGraph::m_radio_light);
         t.choose(&PreferencesGraph::m_radio_default);
       },
       P::dark, true, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    launch(c.scheme_at_start);
    if (c.then) {
      c.then(*this);
      expected = c.preference;
      settle();
    }
    EXPECT_EQ(rig->app->desktopScheme()->preference(), c.preference);
    for (const auto& [surface, is_dark] : shown()) {
      bool want = surface == "statistics" ? c.stats_window_dark : c.others_dark;
      if (surface.starts_with("graph")) want = c.graphs_dark;
      EXPECT_EQ(is_dark, want) << surface;
    }
  }
}

TEST(DesktopSchemeValue, PortalAnswersInAnyWrapping) {
  using P = DesktopScheme::Preference;
  const struct {
    QVariant value;
    P expected;
  } cases[] = {
      {QVariant(1u), P::dark},
      {QVariant(2u), P::light},
      {QVariant(0u), P::none},
      {QVariant(7u), P::none},
      {QVariant::fromValue(QDBusVariant(1u)), P::dark},
      {QVariant::fromValue(QDBusVariant(QVariant::fromValue(QDBusVariant(2u)))), P::light},
      {QVariant(QString("dark")), P::none},
      {QVariant(), P::none},
  };
  for (const auto& c : cases) EXPECT_EQ(DesktopScheme::fromPortal(c.value), c.expected) << c.value.typeName();
}

}  // namespace
}  // namespace pelmora
