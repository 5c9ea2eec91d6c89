// The code that runs as root as built and as installed: the hardening in the daemon's binary and in
// pelmora-nettop's (which the daemon runs for an authorised client), read back with readelf, and the
// systemd sandbox of the daemon's service, rated by systemd-analyze.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "support/text.h"

namespace pelmora {
namespace {

const std::string kService = std::string(PELMORA_BINARY_DIR) + "/src/helper/net.tandrel.pelmorahelper.service";

// The output of a shell command; none when it could not run or failed.
std::optional<std::string> output(const std::string& command) {
  FILE* child = ::popen((command + " 2>/dev/null").c_str(), "r");
  if (!child) return std::nullopt;
  std::string out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, child)) > 0;) out.append(buffer, n);
  const int status = ::pclose(child);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return out;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(RootHardening, EveryProgramThatRunsAsRootIsBuiltAsRootCode) {
  for (const char* program : {"/src/helper/pelmora-helper", "/src/nettop/pelmora-nettop"}) {
    SCOPED_TRACE(program);
    const std::string path = std::string(PELMORA_BINARY_DIR) + program;
    const auto header = output("readelf -hW " + path);
    const auto dynamic = output("readelf -dW " + path);
    const auto segments = output("readelf -lW " + path);
    const auto symbols = output("readelf --dyn-syms -W " + path);
    if (!header || !dynamic || !segments || !symbols) GTEST_SKIP() << "readelf (binutils) is not installed";
    EXPECT_TRUE(contains(*header, "DYN (Position-Independent Executable")) << "not PIE";
    EXPECT_TRUE(contains(*segments, "GNU_RELRO")) << "no RELRO segment";
    EXPECT_TRUE(contains(*dynamic, "BIND_NOW") || contains(*dynamic, "Flags: NOW")) << "relocations not bound at start";
    EXPECT_TRUE(contains(*symbols, "__stack_chk_fail")) << "no stack protector";
    if (PELMORA_HELPER_FORTIFIED) {
      EXPECT_TRUE(contains(*symbols, "_chk@")) << "no fortified libc call";
    }
  }
}

TEST(RootHardening, TheServiceIsSandboxedAndKeepsWhatTheDaemonNeeds) {
  const auto report = output("systemd-analyze security --offline=yes --no-pager " + kService);
  if (!report) GTEST_SKIP() << "systemd-analyze with --offline (systemd 250 or later) is not installed";
  // Each line: a mark (✓ or ✗), the setting, a description.
  for (const char* held : {"NoNewPrivileges=", "PrivateTmp=", "ProtectHome=", "ProtectSystem=",
                           "RestrictAddressFamilies=~AF_(INET|INET6)", "RestrictAddressFamilies=~AF_PACKET",
                           "CapabilityBoundingSet=~CAP_SYS_ADMIN", "CapabilityBoundingSet=~CAP_SET(UID|GID|PCAP)",
                           "CapabilityBoundingSet=~CAP_NET_ADMIN", "CapabilityBoundingSet=~CAP_SYS_MODULE",
                           "ProtectKernelModules=", "RestrictSUIDSGID=", "MemoryDenyWriteExecute="}) {
    bool found = false;
    for (std::string_view line : split(*report, '\n', false)) {
      if (line.find(std::string(" ") + held) == std::string_view::npos) continue;
      found = true;
      EXPECT_TRUE(startsWith(line, "✓")) << line;
    }
    EXPECT_TRUE(found) << held << " not rated";
  }
  // What the daemon must keep, or its requests fail under the sandbox.
  for (const char* kept : {"ProtectKernelTunables=", "CapabilityBoundingSet=~CAP_KILL",
                           "CapabilityBoundingSet=~CAP_SYS_(NICE|RESOURCE)", "CapabilityBoundingSet=~CAP_SYS_PTRACE",
                           "RestrictAddressFamilies=~AF_UNIX", "RestrictAddressFamilies=~AF_NETLINK"}) {
    for (std::string_view line : split(*report, '\n', false)) {
      if (line.find(std::string(" ") + kept) != std::string_view::npos) {
        EXPECT_TRUE(startsWith(line, "✗")) << line;
      }
    }
  }
  const auto overall = report->find("Overall exposure level");
  ASSERT_NE(overall, std::string::npos);
  const auto colon = report->find(": ", overall);
  const double exposure = std::stod(report->substr(colon + 2));
  EXPECT_LE(exposure, 3.5) << report->substr(overall);
}

}  // namespace
}  // namespace pelmora
