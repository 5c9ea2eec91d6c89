#pragma once
// A helper stand-in for the process table and limiter tests: a scripted set of processes answered
// over the helper wire format, with a deterministic model of each process's processor use (it runs
// only while not stopped by a "kill" request), and a temporary /proc holding one folder per process
// so that the process walk finds them.
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/temp_dir.h"
#include "helper_link/pelmora.h"
#include "support/default_settings.h"
#include "support/sys_root.h"
#include "support/timeval.h"
#include "support/xpc_transport.h"

namespace pelmora::test {

struct SimProcess {
  std::string name = "proc";
  uint32_t uid = 1000;
  int32_t ppid = 1;
  uint64_t cpu_ns = 0;
  uint64_t wakeups = 0;
  uint64_t read_bytes = 0;
  uint64_t write_bytes = 0;
  uint64_t resident = 4096;
  int32_t threads = 1;
  bool stopped = false;
  // Failures to script.
  bool taskallinfo_fails = false;
  bool taskinfo_fails = false;
  bool pidname_fails = false;
  bool rusage_fails = false;
  bool kill_fails = false;
};

struct SimWire {
  std::map<int32_t, SimProcess> procs;
  std::vector<XPCDict> requests;
  std::vector<std::pair<int32_t, int64_t>> signals;  // (pid, signal) of every "kill"
  std::vector<std::pair<int32_t, int64_t>> priorities;
  int32_t logical_cpus = 4;
  // Runs before each "taskallinfo" is answered (a test's clock advancing while a refresh reads).
  std::function<void()> before_taskallinfo;

  // Runs every process that is not stopped for `us` microseconds of processor time at `demand`
  // processors (a busy loop is 1.0).
  void run(int64_t us, double demand = 1.0) {
    for (auto& [pid, p] : procs)
      if (!p.stopped) p.cpu_ns += static_cast<uint64_t>(static_cast<double>(us) * demand * 1000.0);
  }
  int count(int64_t signal) const {
    int n = 0;
    for (auto& s : signals) n += s.second == signal;
    return n;
  }
};

inline XPCData bytesOf(const void* p, size_t n) {
  const auto* b = static_cast<const uint8_t*>(p);
  return XPCData(b, b + n);
}

class SimTransport : public XPCTransport {
 public:
  explicit SimTransport(std::shared_ptr<SimWire> wire) : m_wire(std::move(wire)) {}

  std::optional<XPCDict> exchange(const XPCDict& r) override {
    m_wire->requests.push_back(r);
    const auto pid = static_cast<int32_t>(xpcInt(r, "pid").value_or(-1));
    auto it = m_wire->procs.find(pid);
    SimProcess* p = it == m_wire->procs.end() ? nullptr : &it->second;
    if (r.count("requestcpuinfo"))
      return XPCDict{{"cpuinfo", XPCDict{{"logical_cpu_max", 4}, {"physical_cpu_max", 2},
                                         {"logical_cpu", m_wire->logical_cpus}, {"physical_cpu", 2}}}};
    if (r.count("pidname")) return XPCDict{{"reply_pidname", (p && !p->pidname_fails) ? p->name : ""}};
    if (r.count("taskallinfo")) {
      if (m_wire->before_taskallinfo) m_wire->before_taskallinfo();
      return taskAllInfo(pid, p);
    }
    if (r.count("tasklist")) return taskList(r);
    if (r.count("authorize")) return XPCDict{{"authorize", "OK"}};
    if (r.count("taskinfo")) return taskInfo(p);
    if (r.count("rusage")) return rusage(p);
    if (r.count("kill")) return kill(pid, p, xpcInt(r, "signal").value_or(0));
    if (r.count("setpriority")) {
      m_wire->priorities.emplace_back(pid, xpcInt(r, "priority").value_or(99));
      return XPCDict{{"setpriority", "OK"}};
    }
    return XPCDict{};
  }
  void sendOneWay(const XPCDict&) override {}

 private:
  static XPCDict failed(const char* marker) { return XPCDict{{marker, ""}, {"result", 4}}; }

  XPCDict taskAllInfo(int32_t pid, SimProcess* p) {
    if (!p || p->taskallinfo_fails) return failed("reply_taskallinfo");
    proc_taskallinfo t{};
    t.pbsd.pbi_pid = static_cast<uint32_t>(pid);
    t.pbsd.pbi_uid = p->uid;
    t.pbsd.pbi_ppid = static_cast<uint32_t>(p->ppid);
    t.pbsd.pbi_start_tvsec = 1'700'000'000;
    t.pbsd.pbi_start_tvusec = 250'000;
    t.ptinfo = task(*p);
    return XPCDict{{"reply_taskallinfo", ""}, {"result", 1}, {"taskallinfo", bytesOf(&t, sizeof t)}};
  }
  static proc_taskinfo task(const SimProcess& p) {
    proc_taskinfo t{};
    // Split unevenly between user and system: only the sum may matter.
    t.pti_total_user = p.cpu_ns - p.cpu_ns / 3;
    t.pti_total_system = p.cpu_ns / 3;
    t.pti_resident_size = p.resident;
    t.pti_virtual_size = p.resident * 4;
    t.pti_threadnum = p.threads;
    return t;
  }
  XPCDict taskInfo(SimProcess* p) {
    if (!p || p->taskinfo_fails) return failed("reply_taskinfo");
    const proc_taskinfo t = task(*p);
    return XPCDict{{"reply_taskinfo", ""}, {"result", 1}, {"taskinfo", bytesOf(&t, sizeof t)}};
  }
  XPCDict rusage(SimProcess* p) {
    if (!p || p->rusage_fails) return failed("reply_rusage");
    rusage_info_v3 u{};
    u.ri_pkg_idle_wkups = p->wakeups;
    u.ri_diskio_bytesread = p->read_bytes;
    u.ri_diskio_byteswritten = p->write_bytes;
    return XPCDict{{"reply_rusage", ""}, {"result", 1}, {"rusage", bytesOf(&u, sizeof u)}};
  }
  // The batch as the daemon answers it: the processes it could read, each stamped when read.
  XPCDict taskList(const XPCDict& r) {
    XPCArray pids, infos, usages, names, times;
    const XPCArray* asked = xpcArray(r, "pids");
    for (const XPCValue& value : asked ? *asked : XPCArray{}) {
      const auto pid = static_cast<int32_t>(value.asInt() ? *value.asInt() : -1);
      auto it = m_wire->procs.find(pid);
      SimProcess* p = it == m_wire->procs.end() ? nullptr : &it->second;
      if (m_wire->before_taskallinfo) m_wire->before_taskallinfo();
      const XPCDict all = taskAllInfo(pid, p);
      if (!xpcData(all, "taskallinfo")) continue;
      const XPCDict usage = rusage(p);
      pids.emplace_back(int64_t{pid});
      infos.push_back(all.at("taskallinfo"));
      usages.emplace_back(xpcData(usage, "rusage") ? *xpcData(usage, "rusage") : XPCData{});
      names.emplace_back(p->pidname_fails ? std::string() : p->name);
      times.emplace_back(Timeval::nowMicroseconds());
    }
    return XPCDict{{"reply_tasklist", ""}, {"result", 1}, {"pids", pids}, {"taskallinfo", infos},
                   {"rusage", usages}, {"names", names}, {"times", times}};
  }
  XPCDict kill(int32_t pid, SimProcess* p, int64_t signal) {
    m_wire->signals.emplace_back(pid, signal);
    if (!p || p->kill_fails) return XPCDict{{"kill", 3}};
    if (signal == SIGSTOP) p->stopped = true;
    if (signal == SIGCONT) p->stopped = false;
    return XPCDict{{"kill", 0}};
  }

  std::shared_ptr<SimWire> m_wire;
};

// A temporary folder with a fake /proc (one folder per simulated process), a settings file and a
// journal folder.
class SimRoot {
 public:
  SimRoot() {
    std::filesystem::create_directories(m_dir / "proc");
    std::filesystem::create_directories(m_dir / "sys");
  }
  void addProcess(int32_t pid) { std::filesystem::create_directories(m_dir / ("proc/" + std::to_string(pid))); }
  // The process's stat file too, with its parent and start time: for what follows the process tree.
  void addProcess(int32_t pid, const std::string& name, int32_t ppid, uint64_t start_ticks = 100) {
    addProcess(pid);
    std::ofstream(m_dir / ("proc/" + std::to_string(pid) + "/stat"))
        << pid << " (" << name << ") S " << ppid << " 0 0 0 0 0 0 0 0 0 0 0 0 0 20 0 1 0 " << start_ticks << " 0 0\n";
  }
  void removeProcess(int32_t pid) { std::filesystem::remove_all(m_dir / ("proc/" + std::to_string(pid))); }
  SysRoot root() const { return SysRoot((m_dir / "proc").string(), (m_dir / "sys").string()); }
  std::filesystem::path settingsFile() const { return m_dir / "defaults.json"; }
  std::filesystem::path journalDir() const { return m_dir / "held"; }
  const std::filesystem::path& dir() const { return m_dir.path(); }

 private:
  TempDir m_dir{"pelmora-pc"};
};

}  // namespace pelmora::test
