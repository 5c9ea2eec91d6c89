// The boot-time apply end to end: Pelmora composes the request, the helper's handler (in-process,
// with its folders moved into a temporary root) checks and installs it, and the installed script
// runs the installed tool with the saved settings. Also every refusal of a request that names
// unacceptable resources.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "common/temp_dir.h"
#include "fake_transport.h"
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
  test::TempDir tree;
  fs::copy_file(fs::path(PELMORA_SOURCE_RESOURCES) / "applyboot.sh", tree / "applyboot.sh");
  tree.write("pelmora", kRecordingTool);
  ::chmod((tree / "pelmora").c_str(), 0755);
  ::chmod((tree / "applyboot.sh").c_str(), 0755);
  for (const char* text : {"-t on -n 2; touch /tmp/x\n",
                           "-t on -n 2\n-t on -n 4 -h on\n",  // one good line among others
                           "garbage\n-t on -n 2\n", "-t on -n 0\n"}) {
    SCOPED_TRACE(text);
    tree.write("settings", text);
    EXPECT_NE(std::system(((tree / "applyboot.sh").string() + " 2>/dev/null").c_str()), 0);
    EXPECT_FALSE(fs::exists(tree / "ran-with"));
  }
}

// Each refusal is the installer's (tests/helper/boot_installer_test.cpp); here its reason travels
// back. An ordinary user served in-process is refused before anything is looked at.
TEST(BootApply, RefusesUnacceptableResourcesAndChangesNothing) {
  struct Case {
    const char* name;
    std::function<void(BootRoot&)> spoil;
    BootControls controls;
    const char* reason;  // part of the logged refusal
    bool as_user = false;
  };
  const BootControls ok{true, false, true, 2};
  const std::vector<Case> cases = {
      {"group-writable tool", [](BootRoot& r) { ::chmod((r.where.resources_dir / "pelmora").c_str(), 0775); }, ok,
       "writable by others"},
      {"settings out of form", [](BootRoot&) {}, BootControls{true, false, true, 10000}, "malformed settings text"},
      {"an ordinary user in-process", [](BootRoot& r) { r.options.privileged = false; }, ok,
       "the privileged helper is not running.", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.as_user && ::geteuid() != 0) continue;  // ownership checks need root to set up
    BootRoot root;
    c.spoil(root);
    const CallerIdentity user{65534, ::getpid(), 0};
    Pelmora client = c.as_user ? Pelmora(std::make_unique<InProcessTransport>(root.options, Connection(user)))
                               : root.client();
    LogCapture log;
    client.applyBoot(true, c.controls, root.where);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("applyboot response: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(c.reason), std::string::npos) << lines[0];
    EXPECT_FALSE(root.where.installed());
  }
}

TEST(BootApply, StopsSilentlyWhenThereIsNothingToDo) {
  struct Case {
    const char* name;
    bool install;
    std::function<void(BootRoot&)> prepare;
    bool with_controls;
    bool sent;
  };
  const std::vector<Case> cases = {
      {"uninstall, nothing installed", false, [](BootRoot&) {}, true, false},
      {"uninstall, folder present", false, [](BootRoot& r) { fs::create_directories(r.where.support_dir); }, true,
       true},
      {"uninstall, unit present", false,
       [](BootRoot& r) { r.tree.write("root/etc/systemd/system/net.tandrel.bootpelmora.service", ""); }, true, true},
      {"install, missing script", true, [](BootRoot& r) { fs::remove(r.where.resources_dir / "applyboot.sh"); }, true,
       false},
      {"install, missing tool", true, [](BootRoot& r) { fs::remove(r.where.resources_dir / "pelmora"); }, true, false},
      {"install, no settings window", true, [](BootRoot&) {}, false, false},
      {"install", true, [](BootRoot&) {}, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    BootRoot root;
    c.prepare(root);
    auto wire = std::make_shared<test::FakeWire>();
    Pelmora client(std::make_unique<test::FakeTransport>(wire));
    LogCapture log;
    client.applyBoot(c.install, c.with_controls ? std::optional(BootControls{}) : std::nullopt, root.where);
    EXPECT_EQ(wire->requests.size(), c.sent ? 1u : 0u);
    if (c.sent) {
      EXPECT_EQ(*xpcString(wire->requests[0], "install"), c.install ? "install" : "uninstall");
    }
    EXPECT_TRUE(log.lines().empty());  // the empty reply is no answer: nothing logged
  }
}

}  // namespace
}  // namespace pelmora
