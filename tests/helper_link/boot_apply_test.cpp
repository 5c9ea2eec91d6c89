// The boot-time apply end to end: Pelmora composes the request, the helper's handler (in-process,
// with its folders moved into a temporary root) checks and installs it, and the installed script
// runs the installed tool with the saved settings. Also every refusal of a request that names
// unacceptable resources.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>

#include "common/temp_dir.h"
#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "support/logger.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// The installed tool, replaced by a script that writes down the arguments it was given.
constexpr const char* kRecordingTool = "#!/bin/sh\nprintf '%s\\n' \"$*\" > \"$(dirname \"$0\")/ran-with\"\n";

struct BootRoot {
  test::TempDir tree;
  BootLocations where;
  HelperOptions options = RequestHandler::inProcessOptions();

  BootRoot() {
    const fs::path res = tree / "libexec";
    fs::create_directories(res);
    fs::copy_file(fs::path(PELMORA_SOURCE_RESOURCES) / "applyboot.sh", res / "applyboot.sh");
    fs::copy_file(fs::path(PELMORA_SOURCE_RESOURCES) / "net.tandrel.bootpelmora.service",
                  res / "net.tandrel.bootpelmora.service");
    tree.write("libexec/pelmora", kRecordingTool);
    for (const char* name : {"applyboot.sh", "pelmora", "net.tandrel.bootpelmora.service"})
      ::chmod((res / name).c_str(), 0755);
    where.resources_dir = res;
    where.support_dir = tree / "root/var/lib/pelmora";
    where.unit_file = tree / "root/etc/systemd/system/net.tandrel.bootpelmora.service";
    options.privileged = true;
    options.boot.source_dir = res;
    options.boot.state_dir = where.support_dir;
    options.boot.unit_dir = where.unit_file.parent_path();
  }
  Pelmora client() { return Pelmora(std::make_unique<InProcessTransport>(options)); }
};

std::string settingsFor(const BootControls& controls) {
  return bootSettingsText(controls, hasHardwareThreads(SysRoot::current()));
}

TEST(BootApply, InstallsRunsAndUninstalls) {
  if (::geteuid() != 0) GTEST_SKIP() << "the handler accepts only root-owned resources";
  BootRoot root;
  Pelmora client = root.client();
  const BootControls controls{true, true, false, 2};
  LogCapture log;

  client.applyBoot(true, controls, root.where);
  const fs::path state = root.where.support_dir;
  EXPECT_EQ(test::TempDir::readFile(state / "settings"), settingsFor(controls) + "\n");
  // Enabled for boot (the link resolves to the installed unit).
  EXPECT_TRUE(fs::is_regular_file(root.where.unit_file.parent_path() / "multi-user.target.wants" /
                                  root.where.unit_file.filename()));
  // What the boot service runs: the installed script hands the saved flags to the installed tool.
  ASSERT_EQ(std::system((state / "applyboot.sh").c_str()), 0);
  EXPECT_EQ(test::TempDir::readFile(state / "ran-with"), settingsFor(controls) + "\n");
  fs::remove(state / "ran-with");  // a file of its own would keep the folder
  client.applyBoot(false, controls, root.where);
  EXPECT_EQ(log.lines(), (Lines{"Set at boot installed", "Set at boot uninstalled"}));
  EXPECT_FALSE(root.where.installed());
}

TEST(BootApply, TheScriptRefusesATamperedSettingsFile) {
  const BootRoot root;
  const fs::path dir = root.where.resources_dir;
  for (const char* text : {"-t on -n 2; touch /tmp/x\n",
                           "-t on -n 2\n-t on -n 4 -h on\n",  // one good line among others
                           "garbage\n-t on -n 2\n", "-t on -n 0\n"}) {
    SCOPED_TRACE(text);
    std::ofstream(dir / "settings") << text;
    EXPECT_NE(std::system(((dir / "applyboot.sh").string() + " 2>/dev/null").c_str()), 0);
    EXPECT_FALSE(fs::exists(dir / "ran-with"));
  }
}

// What applying or removing the boot-time settings logs through the real handler: nothing when
// there is nothing to do (nothing installed to remove, a resource missing, no settings window), else
// the handler's answer. Each refusal is the installer's (tests/helper/boot_installer_test.cpp); here
// its reason travels back. An ordinary user served in-process is refused before anything is looked at.
TEST(BootApply, LogsTheAnswerOrNothingWhenThereIsNothingToDoAndInstallsNothingElse) {
  struct Case {
    const char* name;
    bool install;
    std::function<void(BootRoot&)> prepare;
    std::optional<BootControls> controls;
    const char* log;  // (part of) the one line logged; empty: nothing is sent
    bool as_user = false;
  };
  const auto nothing = [](BootRoot&) {};
  const BootControls ok{true, false, true, 2};
  const std::vector<Case> cases = {
      {"uninstall, nothing installed", false, nothing, ok, ""},
      {"uninstall, folder present", false, [](BootRoot& r) { fs::create_directories(r.where.support_dir); }, ok,
       "Set at boot uninstalled"},
      {"uninstall, unit present", false, [](BootRoot& r) { r.tree.write(r.where.unit_file.string(), ""); }, ok,
       "Set at boot uninstalled"},
      {"install, missing script", true, [](BootRoot& r) { fs::remove(r.where.resources_dir / "applyboot.sh"); }, ok,
       ""},
      {"install, missing tool", true, [](BootRoot& r) { fs::remove(r.where.resources_dir / "pelmora"); }, ok, ""},
      {"install, no settings window", true, nothing, std::nullopt, ""},
      {"group-writable tool", true, [](BootRoot& r) { ::chmod((r.where.resources_dir / "pelmora").c_str(), 0775); }, ok,
       "writable by others"},
      {"settings out of form", true, nothing, BootControls{true, false, true, 10000}, "malformed settings text"},
      {"an ordinary user in-process", true, [](BootRoot& r) { r.options.privileged = false; }, ok,
       "applyboot response: the privileged helper is not running.", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (*c.log && !c.as_user && ::geteuid() != 0) continue;  // the handler wants root-owned resources
    BootRoot root;
    c.prepare(root);
    const CallerIdentity user{65534, ::getpid(), 0};
    Pelmora client = c.as_user ? Pelmora(std::make_unique<InProcessTransport>(root.options, Connection(user)))
                               : root.client();
    LogCapture log;
    client.applyBoot(c.install, c.controls, root.where);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), *c.log ? 1u : 0u);
    if (*c.log) {
      EXPECT_NE(lines[0].find(c.log), std::string::npos) << lines[0];
    }
    EXPECT_FALSE(root.where.installed());
  }
}

}  // namespace
}  // namespace pelmora
