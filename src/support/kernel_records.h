#pragma once
// Process records exchanged with the helper as raw bytes. They keep the published layouts of the
// platform Pelmora was first written for, byte for byte, so that both sides agree on sizes; on Linux
// they are filled from /proc (see proc_task_reader.h). Times in these records are nanoseconds
// (timebase numer = denom = 1).
#include <cstdint>
#include <type_traits>

namespace pelmora {

struct proc_taskinfo {
  uint64_t pti_virtual_size;    // bytes
  uint64_t pti_resident_size;   // bytes
  uint64_t pti_total_user;      // ns, including exited threads
  uint64_t pti_total_system;    // ns, including exited threads
  uint64_t pti_threads_user;    // ns, live threads only
  uint64_t pti_threads_system;  // ns, live threads only
  int32_t pti_policy;
  int32_t pti_faults;
  int32_t pti_pageins;
  int32_t pti_cow_faults;
  int32_t pti_messages_sent;
  int32_t pti_messages_received;
  int32_t pti_syscalls_mach;
  int32_t pti_syscalls_unix;
  int32_t pti_csw;
  int32_t pti_threadnum;
  int32_t pti_numrunning;
  int32_t pti_priority;
};

struct proc_bsdinfo {
  uint32_t pbi_flags;
  uint32_t pbi_status;
  uint32_t pbi_xstatus;
  uint32_t pbi_pid;
  uint32_t pbi_ppid;
  uint32_t pbi_uid;
  uint32_t pbi_gid;
  uint32_t pbi_ruid;
  uint32_t pbi_rgid;
  uint32_t pbi_svuid;
  uint32_t pbi_svgid;
  uint32_t rfu_1;
  char pbi_comm[16];
  char pbi_name[32];
  uint32_t pbi_nfiles;
  uint32_t pbi_pgid;
  uint32_t pbi_pjobc;
  uint32_t e_tdev;
  uint32_t e_tpgid;
  int32_t pbi_nice;
  uint64_t pbi_start_tvsec;   // wall-clock start, seconds since the epoch
  uint64_t pbi_start_tvusec;  // and microseconds
};

struct proc_taskallinfo {
  proc_bsdinfo pbsd;
  proc_taskinfo ptinfo;
};

struct rusage_info_v3 {
  uint8_t ri_uuid[16];
  uint64_t ri_user_time;  // ns
  uint64_t ri_system_time;  // ns
  uint64_t ri_pkg_idle_wkups;
  uint64_t ri_interrupt_wkups;
  uint64_t ri_pageins;
  uint64_t ri_wired_size;
  uint64_t ri_resident_size;
  uint64_t ri_phys_footprint;
  uint64_t ri_proc_start_abstime;
  uint64_t ri_proc_exit_abstime;
  uint64_t ri_child_user_time;
  uint64_t ri_child_system_time;
  uint64_t ri_child_pkg_idle_wkups;
  uint64_t ri_child_interrupt_wkups;
  uint64_t ri_child_pageins;
  uint64_t ri_child_elapsed_abstime;
  uint64_t ri_diskio_bytesread;
  uint64_t ri_diskio_byteswritten;
  uint64_t ri_cpu_time_qos_default;
  uint64_t ri_cpu_time_qos_maintenance;
  uint64_t ri_cpu_time_qos_background;
  uint64_t ri_cpu_time_qos_utility;
  uint64_t ri_cpu_time_qos_legacy;
  uint64_t ri_cpu_time_qos_user_initiated;
  uint64_t ri_cpu_time_qos_user_interactive;
  uint64_t ri_billed_system_time;
  uint64_t ri_serviced_system_time;
};

static_assert(sizeof(proc_taskinfo) == 96);
static_assert(sizeof(proc_bsdinfo) == 136);
static_assert(sizeof(proc_taskallinfo) == 232);
static_assert(sizeof(rusage_info_v3) == 232);
static_assert(std::is_trivially_copyable_v<proc_taskallinfo> && std::is_trivially_copyable_v<rusage_info_v3>);

// Processor counts from the helper's "cpuinfo" reply.
struct cpu_numbers_t {
  int32_t logical_cpu_max = 0;   // logical processors present
  int32_t physical_cpu_max = 0;  // physical cores present
  int32_t logical_cpu = 0;       // logical processors enabled
  int32_t physical_cpu = 0;      // physical cores enabled
  bool operator==(const cpu_numbers_t&) const = default;
};

}  // namespace pelmora
