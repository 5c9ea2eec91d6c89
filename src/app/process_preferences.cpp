#include "app/process_preferences.h"

#include <QCheckBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "helper_link/pelmora.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

constexpr const char* kPrefsChanged = "net.tandrel.pelmora.prefschanged";

void setChecked(QCheckBox* box, bool on) {
  const QSignalBlocker block(box);
  box->setChecked(on);
}

}  // namespace

bool keepDockOrStatusItem(bool show_dock, bool show_menubar) { return show_dock || !show_menubar; }

ProcessPreferences::ProcessPreferences(DefaultSettings& store, Pelmora& helper, BootControlsSource controls,
                                       Options options, QWidget* parent)
    : QWidget(parent), m_store(store), m_helper(helper), m_controls(std::move(controls)), m_options(std::move(options)) {
  build();
  load();
}

void ProcessPreferences::build() {
  auto* layout = new QVBoxLayout(this);
  auto box = [&](const QString& text) {
    auto* b = new QCheckBox(text, this);
    layout->addWidget(b);
    return b;
  };
  m_apply_boot = box(tr("Apply the CPU settings at system boot"));
  m_launch_login = box(tr("Launch Pelmora at login"));
  layout->addSpacing(8);
  m_show_dock = box(tr("Show in the task bar"));
  m_show_menubar = box(tr("Show the status icon in the system tray"));
  layout->addSpacing(8);
  m_save_limited = box(tr("Remember limited processes"));
  m_save_reniced = box(tr("Remember reniced processes"));
  m_limit_frontmost = box(tr("Also limit the application in front"));
  layout->addStretch(1);
  connect(m_apply_boot, &QCheckBox::clicked, this, [this](bool on) { applyBoot(on); });
  connect(m_launch_login, &QCheckBox::clicked, this, [this](bool on) { launchAtLogin(on); });
  for (QCheckBox* b : {m_show_dock, m_show_menubar, m_save_limited, m_save_reniced, m_limit_frontmost})
    connect(b, &QCheckBox::clicked, this, [this, b] { preferencesChanged(b); });
}

void ProcessPreferences::load() {
  setChecked(m_apply_boot, keys::kApplyBoot.load(m_store));
  setChecked(m_save_limited, keys::kSaveLimited.load(m_store));
  setChecked(m_save_reniced, keys::kSaveReniced.load(m_store));
  setChecked(m_launch_login, keys::kLaunchAtLogin.load(m_store));
  setChecked(m_show_dock, keys::kShowDock.load(m_store));
  setChecked(m_show_menubar, keys::kShowMenubar.load(m_store));
  setChecked(m_limit_frontmost, keys::kLimitFrontmost.load(m_store));
}

void ProcessPreferences::save() {
  keys::kApplyBoot.save(m_store, m_apply_boot->isChecked());
  keys::kSaveLimited.save(m_store, m_save_limited->isChecked());
  keys::kSaveReniced.save(m_store, m_save_reniced->isChecked());
  keys::kLaunchAtLogin.save(m_store, m_launch_login->isChecked());
  keys::kShowDock.save(m_store, m_show_dock->isChecked());
  keys::kShowMenubar.save(m_store, m_show_menubar->isChecked());
  keys::kLimitFrontmost.save(m_store, m_limit_frontmost->isChecked());
}

void ProcessPreferences::preferencesChanged(QCheckBox* /*sender*/) {
  // The program must stay reachable: a task-bar entry or a tray icon.
  setChecked(m_show_dock, keepDockOrStatusItem(m_show_dock->isChecked(), m_show_menubar->isChecked()));
  save();
  Broadcast(kPrefsChanged, true);
}

void ProcessPreferences::launchAtLogin(bool on) {
  if (on) {
    const bool written = m_options.login.writeEntry();
    if (!written || !m_options.login.agentIsValid()) {
      Log("Launch at login: could not write a valid autostart entry at " + m_options.login.file().string() + ".");
      m_options.login.unlinkAgent();
      setChecked(m_launch_login, false);
    }
  } else {
    m_options.login.unlinkAgent();
  }
  save();
  Broadcast(kPrefsChanged, true);
}

void ProcessPreferences::installBoot(bool install) {
  const auto controls = m_controls ? m_controls() : std::nullopt;
  if (!controls) Log("Apply at boot: the CPU settings window is not there; nothing was installed.");
  m_helper.applyBoot(install, controls, m_options.boot);
}

void ProcessPreferences::applyBoot(bool on) {
  if (on && keys::kWarnApplyBoot.load(m_store)) {
    showBootWarning();
    return;
  }
  installBoot(on);
  save();
  Broadcast(kPrefsChanged, true);
}

void ProcessPreferences::showBootWarning() {
  auto* box = new QMessageBox(QMessageBox::Information, tr("Pelmora"), tr("Apply CPU settings at system boot"),
                              QMessageBox::NoButton, this);
  box->setInformativeText(tr("When you restart your system, Pelmora will apply your CPU settings before you login."));
  QPushButton* apply = box->addButton(tr("Apply at Boot"), QMessageBox::AcceptRole);
  box->addButton(tr("Cancel"), QMessageBox::RejectRole);
  box->setCheckBox(new QCheckBox(tr("Do not show this message again"), box));
  box->setWindowModality(Qt::WindowModal);
  box->setAttribute(Qt::WA_DeleteOnClose);
  connect(box, &QMessageBox::buttonClicked, this, [this, box, apply](QAbstractButton* button) {
    if (button == apply) {
      if (box->checkBox()->isChecked()) keys::kWarnApplyBoot.save(m_store, false);
      installBoot(true);
    } else {
      setChecked(m_apply_boot, false);
    }
    save();
    Broadcast(kPrefsChanged, true);
  });
  m_boot_alert = box;
  box->open();
}

}  // namespace pelmora
