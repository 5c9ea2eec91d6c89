#include "helper/boot_installer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "helper/test_support.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;
using testing::readTrimmed;
using testing::TempDir;
using testing::writeText;

TEST(BootSettings, OnlyTheFlagFormIsAccepted) {
  const struct {
    const char* text;
    bool valid;
  } cases[] = {
      {"-t on -n 4", true},
      {"-h on -p -t off -n 6", true},
      {"-h off -t on -n 1234", true},
      {"-p -t on -n 10", true},
      {"-p -t on -n 0", false},   // no processor at all: the boot-time tool would fail at every boot
      {"-t on -n 007", false},
      {"-t on -n 12345", false},
      {"-n 4 -t on", false},
      {"-h maybe -t on -n 4", false},
      {"-t on -n 4; rm -rf /", false},
      {"-t on -n 4\n-t on -n 4", false},
      {" -t on -n 4", false},
      {"-t on -n ", false},
      {"", false},
  };
  for (const auto& c : cases) EXPECT_EQ(validBootSettings(c.text), c.valid) << c.text;
}

class BootInstall : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the installer only accepts root-owned sources: run as root";
    m_paths = {m_dir.path() / "libexec", m_dir.path() / "state", m_dir.path() / "units"};
    writeSources();
  }
  // Root's folder of sources as installed, with nothing else in it.
  void writeSources() const {
    fs::remove_all(m_paths.source_dir);
    fs::create_directories(m_paths.source_dir);
    fs::permissions(m_paths.source_dir, fs::perms(0755));
    for (const char* name : {"applyboot.sh", "pelmora", kBootUnitName}) {
      writeText(m_paths.source_dir / name, std::string("content of ") + name + "\n");
      fs::permissions(m_paths.source_dir / name, fs::perms(0755));
    }
  }
  BootRequest request(const std::string& settings = "-h on -p -t off -n 6") const {
    return {(m_paths.source_dir / "applyboot.sh").string(), (m_paths.source_dir / "pelmora").string(),
            (m_paths.source_dir / kBootUnitName).string(), settings};
  }
  bool nothingInstalled() const {
    return !fs::exists(m_paths.state_dir) && !fs::exists(m_paths.unit_dir / kBootUnitName);
  }

  TempDir m_dir;
  BootPaths m_paths;
};

TEST_F(BootInstall, InstallsEnablesAndUninstalls) {
  const BootInstaller installer(m_paths);
  ASSERT_EQ(installer.install(request()), "OK");
  EXPECT_EQ(readTrimmed(m_paths.state_dir / "applyboot.sh"), "content of applyboot.sh");
  EXPECT_EQ(readTrimmed(m_paths.state_dir / "pelmora"), "content of pelmora");
  EXPECT_EQ(readTrimmed(m_paths.state_dir / "settings"), "-h on -p -t off -n 6");
  EXPECT_EQ(readTrimmed(m_paths.unit_dir / kBootUnitName), "content of net.tandrel.bootpelmora.service");
  EXPECT_EQ(fs::status(m_paths.state_dir / "pelmora").permissions() & fs::perms::all, fs::perms(0755));
  EXPECT_EQ(fs::status(m_paths.unit_dir / kBootUnitName).permissions() & fs::perms::all, fs::perms(0644));
  const fs::path link = m_paths.unit_dir / "multi-user.target.wants" / kBootUnitName;
  EXPECT_EQ(fs::read_symlink(link), fs::path("..") / kBootUnitName);
  // Installing again replaces the settings.
  ASSERT_EQ(installer.install(request("-t on -n 2")), "OK");
  EXPECT_EQ(readTrimmed(m_paths.state_dir / "settings"), "-t on -n 2");
  ASSERT_EQ(installer.uninstall(), "OK");
  EXPECT_TRUE(nothingInstalled());
  EXPECT_FALSE(fs::is_symlink(link));
  EXPECT_EQ(installer.uninstall(), "OK");  // nothing left to remove is no error
  // A file of someone else's in the folder keeps the folder, and only it.
  ASSERT_EQ(installer.install(request()), "OK");
  writeText(m_paths.state_dir / "notes", "mine\n");
  ASSERT_EQ(installer.uninstall(), "OK");
  EXPECT_TRUE(fs::exists(m_paths.state_dir / "notes"));
  EXPECT_FALSE(fs::exists(m_paths.state_dir / "settings"));
}

TEST_F(BootInstall, RefusesUntrustedSourcesAndChangesNothing) {
  const BootInstaller installer(m_paths);
  const fs::path src = m_paths.source_dir, tool = src / "pelmora";
  const struct {
    const char* name;
    std::function<void(BootRequest&)> change;
    const char* reason;  // part of the refusal
  } cases[] = {
      {"bad settings", [](BootRequest& r) { r.settings = "-t on -n 4; reboot"; }, "malformed settings text"},
      {"outside the folder", [&](BootRequest& r) { r.tool = (m_dir.path() / "pelmora").string(); }, "is not in"},
      {"relative", [](BootRequest& r) { r.tool = "libexec/pelmora"; }, "not a plain absolute path"},
      {"dot-dot", [&](BootRequest& r) { r.tool = (src / ".." / "libexec" / "pelmora").string(); }, "not a plain"},
      {"wrong name", [&](BootRequest& r) { r.script = tool.string(); }, "is not applyboot.sh"},
      {"missing", [&](BootRequest&) { fs::remove(src / kBootUnitName); }, "No such file"},
      {"a symlink",
       [&](BootRequest&) {
         fs::rename(tool, m_dir.path() / "real");
         fs::create_symlink(m_dir.path() / "real", tool);
       },
       "not a regular file"},
      {"writable by the group", [&](BootRequest&) { fs::permissions(tool, fs::perms(0775)); }, "writable"},
      {"not root's", [&](BootRequest&) { ASSERT_EQ(::chown(tool.c_str(), 65534, 65534), 0); }, "not owned by root"},
      {"a folder all may write", [&](BootRequest&) { fs::permissions(src, fs::perms(0777)); }, "folder"},
      {"a folder not root's", [&](BootRequest&) { ASSERT_EQ(::chown(src.c_str(), 65534, 65534), 0); }, "folder"},
  };
  for (const auto& c : cases) {
    BootRequest r = request();
    c.change(r);
    const std::string refusal = installer.install(r);
    EXPECT_NE(refusal.find(c.reason), std::string::npos) << c.name << ": " << refusal;
    EXPECT_TRUE(nothingInstalled()) << c.name;
    writeSources();
  }
}

TEST_F(BootInstall, AFailedInstallPutsBackWhatWasThere) {
  const BootInstaller installer(m_paths);
  const fs::path wants_link = m_paths.unit_dir / "multi-user.target.wants" / kBootUnitName;
  const struct {
    const char* name;
    fs::path blocker;  // a folder with something in it where the installer must write
  } faults[] = {
      {"the unit cannot be staged", m_paths.unit_dir / (std::string(kBootUnitName) + ".new")},
      {"the unit cannot be enabled", wants_link},
  };
  for (const bool installed_before : {false, true}) {
    for (const auto& f : faults) {
      SCOPED_TRACE(std::string(f.name) + (installed_before ? ", over an installation" : ", fresh"));
      ASSERT_EQ(installer.uninstall(), "OK");
      if (installed_before) {
        ASSERT_EQ(installer.install(request("-t on -n 2")), "OK");
      }
      writeText(m_paths.source_dir / "pelmora", "a newer pelmora\n");
      fs::remove(f.blocker);
      fs::create_directories(f.blocker / "occupied");
      EXPECT_NE(installer.install(request()), "OK");
      fs::remove_all(f.blocker);
      if (installed_before) {
        EXPECT_EQ(readTrimmed(m_paths.state_dir / "settings"), "-t on -n 2");
        EXPECT_EQ(readTrimmed(m_paths.state_dir / "pelmora"), "content of pelmora");
        EXPECT_TRUE(fs::exists(m_paths.unit_dir / kBootUnitName));
      } else {
        EXPECT_TRUE(nothingInstalled());
      }
      for (const fs::path& dir : {m_paths.state_dir, m_paths.unit_dir}) {
        if (!fs::exists(dir)) continue;
        for (const auto& entry : fs::directory_iterator(dir)) {
          const std::string name = entry.path().filename().string();
          EXPECT_FALSE(name.ends_with(".new") || name.ends_with(".old")) << "left behind: " << name;
        }
      }
      writeText(m_paths.source_dir / "pelmora", "content of pelmora\n");
    }
  }
}

}  // namespace
}  // namespace pelmora
