// The process walk's parsers (ELF machine, command line), translation rules, the
// walk over a fixture /proc, and the real walk's kinds.
#include "support/process_list.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "common/temp_dir.h"
#include "support/pid.h"
#include "support/sys_attr.h"

namespace pelmora {
namespace {

std::string elfHeader(uint8_t cls, uint8_t data, uint16_t machine) {
  std::string h(20, '\0');
  h.replace(0, 4, "\x7f" "ELF");
  h[4] = static_cast<char>(cls);
  h[5] = static_cast<char>(data);
  h[18] = static_cast<char>(data == 2 ? machine >> 8 : machine & 0xff);
  h[19] = static_cast<char>(data == 2 ? machine & 0xff : machine >> 8);
  return h;
}

TEST(ProcessKinds, ElfMachineNames) {
  struct Case {
    std::string header;
    std::optional<std::string> kind;
  };
  const Case cases[] = {
      {elfHeader(2, 1, 62), "x86_64"},  {elfHeader(1, 1, 3), "i386"},
      {elfHeader(2, 1, 183), "aarch64"}, {elfHeader(1, 1, 40), "arm"},
      {elfHeader(2, 1, 243), "riscv64"}, {elfHeader(2, 2, 22), "s390x"},
      {elfHeader(2, 2, 21), "ppc64"},   {elfHeader(2, 1, 21), "ppc64le"},
      {elfHeader(2, 1, 0x1234), "elf-4660"},
      {"#!/bin/sh\n echo not an elf file", std::nullopt},
      {elfHeader(2, 1, 62).substr(0, 19), std::nullopt},  // truncated
  };
  for (const auto& c : cases) EXPECT_EQ(elfMachineName(c.header), c.kind) << c.kind.value_or("none");
}

TEST(ProcessKinds, TranslationRules) {
  // The system emulator (qemu) runs natively.
  for (const auto& [name, emulator] : {std::pair{"qemu-x86_64-static", true},
                                       {"box64", true},
                                       {"FEXInterpreter", true},
                                       {"qemu", false},
                                       {"bash", false}})
    EXPECT_EQ(isEmulatorName(name), emulator) << name;
  struct Case {
    const char* kind;
    const char* host;
    bool native;
  };
  const Case cases[] = {
      {"x86_64", "x86_64", true}, {"i386", "x86_64", true},   {"aarch64", "x86_64", false},
      {"arm", "aarch64", true},   {"x86_64", "aarch64", false}, {"kernel", "aarch64", true},
      {"", "x86_64", true},  // unreadable is not counted as translated
  };
  for (const auto& c : cases) EXPECT_EQ(isNativeKind(c.kind, c.host), c.native) << c.kind << " on " << c.host;
}

TEST(ProcessKinds, CommandLines) {
  using namespace std::string_literals;
  const std::pair<std::string, std::string> cases[] = {
      {"/usr/bin/python3\0-m\0http.server\0"s, "/usr/bin/python3 -m http.server"},
      {"sshd: alice@pts/0"s, "sshd: alice@pts/0"},  // rewritten into one string, no trailing NUL
      {"a\0\0b\0\0"s, "a  b"},                      // an empty argument stays visible as a blank
      {""s, ""},                                     // kernel thread
  };
  for (const auto& [raw, text] : cases) EXPECT_EQ(commandFromCmdline(raw), text);
}

TEST(ProcessList, WalksNumericEntriesOfAFixtureProc) {
  const test::TempDir temp("pelmora-plist");
  const std::filesystem::path& dir = temp.path();
  for (const char* name : {"1", "2", "300", "self", "sys", "acpi"}) std::filesystem::create_directories(dir / name);
  std::ofstream(dir / "2/stat") << "2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 0 0 0 20 0 1 0 10 0 0";
  ProcessList list(SysRoot(dir.string(), "/sys"));
  std::set<int32_t> seen;
  EXPECT_TRUE(list.iterate([&](int32_t pid) { seen.insert(pid); }));
  EXPECT_EQ(seen, (std::set<int32_t>{1, 2, 300}));
  EXPECT_EQ(list.kind(2), "kernel");
  EXPECT_EQ(list.kind(1), "");  // gone or unreadable
  EXPECT_EQ(list.translatedCount(), 0);
  std::filesystem::remove_all(dir);
  EXPECT_FALSE(ProcessList(SysRoot(dir.string(), "/sys")).iterate([](int32_t) {}));
}

TEST(ProcessList, RealWalkFindsUsWithOurOwnMachineAndKernelThreads) {
  ProcessList list;
  bool found_self = false;
  ASSERT_TRUE(list.iterate([&](int32_t pid) { found_self |= pid == getpid(); }));
  EXPECT_TRUE(found_self);
  const std::string kind = list.kind(getpid());
#if defined(__x86_64__)
  EXPECT_EQ(kind, "x86_64");
#elif defined(__aarch64__)
  EXPECT_EQ(kind, "aarch64");
#endif
  if (std::filesystem::exists("/proc/2/stat")) {
    EXPECT_EQ(list.kind(2), "kernel");
  }
  EXPECT_EQ(PID(getpid()).bundlePath(), std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(PID(getpid()).priority(), getpriority(PRIO_PROCESS, 0));
}

TEST(PIDFacts, FrontmostOnlyThroughTheProvider) {
  EXPECT_FALSE(PID(getpid()).isFrontmost());
  PID::setFrontmostProvider([] { return std::optional<int32_t>(getpid()); });
  EXPECT_TRUE(PID(getpid()).isFrontmost());
  EXPECT_FALSE(PID(1).isFrontmost());
  PID::setFrontmostProvider([] { return std::optional<int32_t>(); });  // unknown
  EXPECT_FALSE(PID(getpid()).isFrontmost());
  PID::setFrontmostProvider(nullptr);
}

TEST(SysAttr, UserNames) {
  EXPECT_EQ(SysAttr::username(0), "root");
  EXPECT_EQ(SysAttr::username(3'999'999'999u), "3999999999");
}

}  // namespace
}  // namespace pelmora
