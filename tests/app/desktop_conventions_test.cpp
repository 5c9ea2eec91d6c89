// What a desktop user expects of every window, through the real application object and its real
// windows: each one opens inside the screen, a saved geometry comes back only where it fits, the
// close, search, preferences and quit keys work, and titles name the program.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QAction>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QTest>

#include "app/app_rig.h"
#include "app/window_frame.h"
#include "support/logger.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

using namespace app_test;

TEST(WindowFrame, FittedContentsLieInsideTheAvailableArea) {
  const QRect screen(0, 0, 800, 500);
  const QMargins frame(2, 20, 2, 2);
  struct Case {
    const char* what;
    QRect contents;
    QRect fitted;
  };
  const Case cases[] = {
      {"fits already", {100, 100, 400, 300}, {100, 100, 400, 300}},
      {"too large both ways", {0, 0, 2200, 1520}, {2, 20, 796, 478}},
      {"off the bottom edge", {100, 300, 400, 300}, {100, 198, 400, 300}},
      {"off the left and top", {-50, -10, 300, 200}, {2, 20, 300, 200}},
      {"wider only, off the right", {700, 50, 900, 100}, {2, 50, 796, 100}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const QRect fitted = fittedContents(c.contents, frame, screen);
    EXPECT_EQ(fitted, c.fitted);
    EXPECT_TRUE(fitsInside(fitted, frame, screen));
    EXPECT_EQ(fitsInside(c.contents, frame, screen), c.contents == c.fitted);
  }
}

// Every window the application opens, after the menus opened them all.
std::vector<QWidget*> openAll(AppRig& rig) {
  rig.app->finishLaunching();
  rig.app->showProcesses();
  rig.app->showSystemStats();
  rig.app->showPreferences();
  rig.app->openHelp();
  QCoreApplication::processEvents();
  return {rig.app->window(), ProcinfoWindow::shared(), SystemStatsWindow::instance(), rig.app->preferences(),
          rig.app->helpViewer()};
}

TEST(DesktopConventions, SavedGeometryComesBackOnlyWhereItFits) {
  AppRig rig;
  const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
  constexpr StringKey kTestFrame{"Test Frame", ""};
  struct Case {
    const char* what;
    QRect saved;
    bool used;
  };
  const Case cases[] = {
      {"fits", {available.x() + 40, available.y() + 60, 500, 300}, true},
      {"larger than the screen", {available.x(), available.y(), available.width() * 2, available.height() * 2}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    QWidget source;
    source.setGeometry(c.saved);
    saveFrame(&source, rig.rig.store, kTestFrame);
    QWidget window;
    window.setGeometry(available.x() + 50, available.y() + 50, 320, 200);
    EXPECT_EQ(restoreFrame(&window, rig.rig.store, kTestFrame), c.used);
    EXPECT_EQ(window.size(), c.used ? c.saved.size() : QSize(320, 200));
    EXPECT_TRUE(fitsInside(window.geometry(), frameMargins(&window), available));
  }
  // The statistics window reopens where the user left it.
  rig.app->finishLaunching();
  rig.app->showSystemStats();
  const QRect left_at(available.x() + 30, available.y() + 40, 600, 450);
  SystemStatsWindow::instance()->setGeometry(left_at);
  SystemStatsWindow::instance()->close();
  deleteLater();
  rig.app->showSystemStats();
  EXPECT_EQ(SystemStatsWindow::instance()->geometry(), left_at);
}

// Brings the window to the front and types a key into it, as the user does.
void typeInto(QWidget* window, QKeySequence keys) {
  window->show();
  window->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(window));
  // The offscreen platform activates the native window but may leave Qt's own notion unset.
  QApplication::setActiveWindow(window);
  const QKeyCombination key = keys[0];
  QTest::keyClick(window, key.key(), key.keyboardModifiers());
  QCoreApplication::processEvents();
}

TEST(DesktopConventions, EveryWindowOpensInsideTheScreenNamesTheProgramAndClosesOnCtrlWAndEscape) {
  const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
  // The statistics window's own size (1100 x 760) is larger than the test screen.
  ASSERT_LT(available.width(), 1100);
  for (const QKeySequence& key : {QKeySequence(Qt::CTRL | Qt::Key_W), QKeySequence(Qt::Key_Escape)}) {
    SCOPED_TRACE(key.toString().toStdString());
    AppRig rig;
    for (QWidget* opened : openAll(rig)) {
      ASSERT_NE(opened, nullptr);
      SCOPED_TRACE(opened->windowTitle().toStdString());
      EXPECT_TRUE(opened->isVisible());
      EXPECT_TRUE(fitsInside(opened->geometry(), frameMargins(opened), available))
          << opened->geometry().width() << "x" << opened->geometry().height() << " in " << available.width() << "x"
          << available.height();
      EXPECT_TRUE(opened->windowTitle().endsWith(QStringLiteral(" — Pelmora")));
      // Windows that delete themselves on close are gone once the events have run.
      QPointer<QWidget> window(opened);
      typeInto(window, key);
      EXPECT_TRUE(window.isNull() || !window->isVisible());
    }
  }
}

TEST(DesktopConventions, SearchPreferencesAndQuitKeys) {
  AppRig rig;
  rig.app->finishLaunching();
  rig.app->showProcesses();
  ProcinfoWindow* processes = ProcinfoWindow::shared();
  typeInto(processes, QKeySequence(Qt::CTRL | Qt::Key_F));
  EXPECT_TRUE(processes->findChild<QLineEdit*>()->hasFocus());

  typeInto(rig.app->window(), QKeySequence(Qt::CTRL | Qt::Key_Comma));
  EXPECT_TRUE(rig.app->preferences()->isVisible());

  // Quit is bound whatever the platform theme offers; triggering it is the quit test's business.
  QAction* quit = nullptr;
  for (QAction* action : rig.app->mainMenus().front()->actions())
    if (action->text().remove('&') == QStringLiteral("Quit")) quit = action;
  ASSERT_NE(quit, nullptr);
  EXPECT_EQ(quit->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
  // Every menu and item can be reached from the keyboard.
  for (QMenu* menu : rig.app->mainMenus()) {
    EXPECT_TRUE(menu->title().contains('&')) << menu->title().toStdString();
    for (QAction* action : menu->actions())
      if (!action->isSeparator()) {
        EXPECT_TRUE(action->text().contains(QLatin1Char('&'))) << action->text().toStdString();
      }
  }
}

TEST(DesktopConventions, ShowLogFileWithoutAnApplicationSaysSoAndOffersTheFolder) {
  const auto previous_log = Logger::shared().path();
  for (bool opens : {true, false}) {
    SCOPED_TRACE(opens ? "an application opens it" : "no application");
    AppRig rig;
    rig.reveal_opens = opens;
    const auto log = rig.rig.dir / "pelmora.log";
    Logger::shared().setPath(log);
    rig.app->finishLaunching();
    rig.app->showLogFile();
    EXPECT_EQ(rig.revealed, std::vector<std::string>{log.string()});
    ASSERT_EQ(rig.app->logFileMessage() != nullptr, !opens);
    if (opens) continue;
    auto* box = qobject_cast<QMessageBox*>(rig.app->logFileMessage());
    EXPECT_TRUE(box->isVisible());
    EXPECT_EQ(box->informativeText().toStdString(), log.string());
    for (QAbstractButton* button : box->buttons())
      if (button->text().remove('&') == QStringLiteral("Show Folder")) button->click();
    EXPECT_EQ(rig.revealed, (std::vector<std::string>{log.string(), log.parent_path().string()}));
  }
  Logger::shared().setPath(previous_log);
}

}  // namespace
}  // namespace pelmora
