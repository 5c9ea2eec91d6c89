// The systemd units, the polkit action, the desktop entry and the metainfo name the same sockets,
// programs, actions and files as the code. A unit that listens on another path than the client
// dials, or a service that starts a program where none is installed, only shows on a real system.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "common/text_file.h"
#include "helper/authorizer.h"
#include "helper/boot_installer.h"
#include "support/socket_transport.h"

namespace {

namespace fs = std::filesystem;
const fs::path kResources = PELMORA_SOURCE_RESOURCES;
using pelmora::test::readText;

// "Section.Key" -> value of a systemd unit or desktop entry (the last one wins, as in systemd).
std::map<std::string, std::string> iniValues(const std::string& text) {
  std::map<std::string, std::string> values;
  std::istringstream lines(text);
  std::string line, section;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      section = line.substr(1, line.size() - 2);
    } else if (const auto eq = line.find('='); eq != std::string::npos) {
      values[section + "." + line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
  return values;
}

// The text of the first <tag ...>text</tag> in an XML file.
std::string xmlText(const std::string& xml, const std::string& tag) {
  std::smatch m;
  const std::regex re("<" + tag + "(\\s[^>]*)?>([^<]*)</" + tag + ">");
  return std::regex_search(xml, m, re) ? m[2].str() : std::string();
}

struct Expectation {
  fs::path file;
  std::string key;
  std::string value;
};

TEST(UnitsAgree, UnitsAndEntriesNameWhatTheCodeUses) {
  const fs::path helper_service = PELMORA_HELPER_SERVICE;
  const std::string helper_program = fs::path(PELMORA_LIBEXEC_DIR) / "pelmora-helper";
  const std::string boot_script = pelmora::BootPaths{}.state_dir / "applyboot.sh";
  const fs::path socket = kResources / "net.tandrel.pelmorahelper.socket";
  const fs::path boot = kResources / pelmora::kBootUnitName;
  const fs::path desktop = kResources / "net.tandrel.pelmora.desktop";
  const Expectation table[] = {
      // The client dials the default path; ordinary users must be able to connect.
      {socket, "Socket.ListenStream", pelmora::SocketTransport::kDefaultSocketPath},
      {socket, "Socket.SocketMode", "0666"},
      {socket, "Install.WantedBy", "sockets.target"},
      // systemd activates NAME.service for NAME.socket unless Service= names another.
      {socket, "Socket.Service", ""},
      // The service is the one the socket activates (same name), and starts the installed daemon.
      {helper_service, "Service.ExecStart", helper_program},
      {helper_service, "Unit.Requires", "net.tandrel.pelmorahelper.socket"},
      {helper_service, "Install.Also", "net.tandrel.pelmorahelper.socket"},
      // The boot unit runs the script where the helper installs it.
      {boot, "Service.ExecStart", boot_script},
      {boot, "Unit.ConditionPathExists", boot_script},
      {boot, "Install.WantedBy", "multi-user.target"},
      // The menu entry starts the installed application with the installed icon.
      {desktop, "Desktop Entry.Exec", "pelmora-app"},
      {desktop, "Desktop Entry.Icon", "net.tandrel.pelmora"},
      {desktop, "Desktop Entry.StartupWMClass", "pelmora-app"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.file.string() + ": " + row.key);
    ASSERT_TRUE(fs::exists(row.file));
    const auto values = iniValues(readText(row.file));
    const auto it = values.find(row.key);
    ASSERT_EQ(it != values.end(), !row.value.empty()) << "an empty value: a key that must be absent";
    if (it != values.end()) {
      EXPECT_EQ(it->second, row.value);
    }
  }
}

TEST(UnitsAgree, PolkitActionIsTheOneTheDaemonChecks) {
  const std::string policy = readText(kResources / "net.tandrel.pelmora.policy");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(policy, m, std::regex("<action id=\"([^\"]+)\">")));
  EXPECT_EQ(m[1].str(), pelmora::kAdminAction);
  // Administrator authentication, kept for a while, for every kind of session.
  for (const char* tag : {"allow_any", "allow_inactive", "allow_active"}) EXPECT_EQ(xmlText(policy, tag), "auth_admin_keep");
}

TEST(UnitsAgree, MetainfoLaunchesTheDesktopEntry) {
  const std::string metainfo = readText(kResources / "net.tandrel.pelmora.metainfo.xml");
  const std::string id = xmlText(metainfo, "id");
  EXPECT_EQ(id, "net.tandrel.pelmora");
  EXPECT_EQ(xmlText(metainfo, "launchable"), id + ".desktop");
  EXPECT_TRUE(fs::exists(kResources / (id + ".desktop")));
  const auto icon = iniValues(readText(kResources / (id + ".desktop"))).at("Desktop Entry.Icon");
  EXPECT_TRUE(fs::exists(kResources / "icons" / (icon + ".svg")));
  EXPECT_TRUE(fs::exists(kResources / "icons" / (icon + "-symbolic.svg")));
}

}  // namespace
