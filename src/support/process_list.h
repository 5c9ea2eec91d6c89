#pragma once
// The walk of all processes (/proc numeric entries), each process's kind (the ELF machine of its
// executable, "kernel" for kernel threads, "" when unreadable) and the count of translated processes:
// those run by a user-space emulator (qemu-*, box64, box86, FEXInterpreter) or built for a machine
// this host cannot execute natively.
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

// The kind text of an ELF header (at least 20 bytes); none when the text is not an ELF header.
std::optional<std::string> elfMachineName(std::string_view header);
// True for the base name of a user-space emulator's executable.
bool isEmulatorName(std::string_view base_name);
// True when a host of machine `host` (uname's machine, e.g. "x86_64") runs `kind` without emulation.
bool isNativeKind(std::string_view kind, std::string_view host);

// The owner of every process and how many run under binary translation: what the process table
// (the limiter, in process control) hands the sampler each tick for its process counts.
struct ProcessCensus {
  std::vector<uid_t> uids;
  int64_t translated = 0;
};

class ProcessList {
 public:
  explicit ProcessList(SysRoot root = SysRoot::current());

  // Calls back once per process identifier found, and recounts the translated processes.
  // Returns false when the process directory could not be read.
  bool iterate(const std::function<void(int32_t pid)>& fn);
  // Translated processes seen by the last iterate().
  int translatedCount() const { return m_translated; }
  // The kind of a process of the last walk (or read now for one the walk did not see).
  std::string kind(int32_t pid);

 private:
  struct Exe {
    std::string kind;
    bool translated = false;
  };
  std::optional<Exe> examine(int32_t pid);
  Exe exeFacts(const std::string& link_path, const std::string& target);

  SysRoot m_root;
  std::string m_host;
  int m_translated = 0;
  std::map<int32_t, std::string> m_kinds;
  // Executable path -> facts; an executable's ELF header is read once per program.
  std::map<std::string, Exe> m_exe_cache;
};

}  // namespace pelmora
