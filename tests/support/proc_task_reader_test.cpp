#include "support/proc_task_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <tuple>

#include "common/temp_dir.h"
#include "support/unique_fd.h"

namespace pelmora {
namespace {

const SysRoot kFixture(PELMORA_FIXTURES "/proc-task", PELMORA_FIXTURES "/no-sys");

// Every field the reader uses is checked through it below; here what only the parsers see.
TEST(ProcTextParsers, StatNamesWithParenthesesAndNegativeCounts) {
  const struct {
    const char* text;
    std::tuple<std::string, int64_t, uint64_t> comm_nice_rss;
  } cases[] = {
      {"4242 (a (weird) name) R 1 4242 4242 0 -1 4194304 5 0 0 0 7 3 0 0 20 -5 3 0 99 1 2", {"a (weird) name", -5, 2}},
      {"2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 0 0 0 20 0 1 0 10 0 -1", {"kthreadd", 0, 0}},
  };
  for (const auto& c : cases) {
    auto s = parseProcPidStat(c.text);
    ASSERT_TRUE(s) << c.text;
    EXPECT_EQ(std::tuple(s->comm, s->nice, s->rss_pages), c.comm_nice_rss);
  }
}

TEST(ProcTextParsers, RefuseWhatTheyCannotRead) {
  using Parser = bool (*)(std::string_view);
  const Parser stat = [](std::string_view t) { return parseProcPidStat(t).has_value(); };
  const Parser status = [](std::string_view t) { return parseProcStatus(t).has_value(); };
  const Parser statm = [](std::string_view t) { return parseProcStatm(t).has_value(); };
  const struct {
    Parser parses;
    const char* text;
  } cases[] = {
      {stat, ""},
      {stat, "12 cat R 1 2 3"},                                              // no parentheses
      {stat, "12 (cat R 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19"},   // unclosed
      {stat, "12 (cat) R 1 2 3 4 5"},                                        // too few fields
      {stat, "x (cat) R 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 100 10"},    // pid not a number
      {stat, "12 (cat) R 1 1 1 0 -1 0 0 0 0 0 zz 0 0 0 20 0 1 0 5 100 10"},  // utime not a number
      {stat, "12 (cat) RS 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 100 10"},  // state not one letter
      {stat, "12 (cat) R 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 100"},      // no resident size
      {stat, "12 (cat) R 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 100 r"},    // resident size not a number
      {status, "Name:\tx\nGid:\t1\t1\t1\t1\n"},                              // no Uid
      {status, "Name:\tx\nUid:\t1\t1\t1\nGid:\t1\t1\t1\t1\n"},               // three ids
      {status, "Name:\tx\nUid:\t1\t1\t-1\t1\nGid:\t1\t1\t1\t1\n"},
      {status, "Uid:\t1\t1\t1\t1\nGid:\t1\t1\t1\t1\n"},  // no Name
      {statm, "25600"},
      {statm, "a b"},
      {[](std::string_view t) { return parseProcIo(t).has_value(); }, "rchar: 5\nwchar: 6\n"},
      {[](std::string_view t) { return parseBootTime(t).has_value(); }, "cpu 1 2 3\n"},
  };
  for (const auto& c : cases) EXPECT_FALSE(c.parses(c.text)) << c.text;
}

TEST(CpuTimeArithmetic, SplitsByTickRatioWithoutOverflow) {
  const struct {
    uint64_t total, utime, stime, user, system;
  } cases[] = {
      {1000, 3, 1, 750, 250},
      {1000, 0, 0, 1000, 0},
      {1000, 0, 7, 0, 1000},
      {999, 1, 2, 333, 666},
      {UINT64_MAX, UINT64_MAX / 2, UINT64_MAX / 2, UINT64_MAX / 2, UINT64_MAX - UINT64_MAX / 2},
  };
  for (const auto& c : cases) {
    const CpuSplit s = splitCpuTime(c.total, c.utime, c.stime);
    EXPECT_EQ(std::pair(s.user_ns, s.system_ns), std::pair(c.user, c.system)) << c.total << " " << c.utime;
  }
  EXPECT_EQ(ticksToNs(250, 100), 2'500'000'000u);
  EXPECT_EQ(ticksToNs(1, 0), 0u);
  EXPECT_EQ(ticksToNs(UINT64_MAX / 100, 1000), UINT64_MAX / 100 * 1'000'000u);
}

TEST(ProcTaskReader, FillsRecordsFromAFixtureProcess) {
  const ProcTaskReader reader(kFixture);
  const long tck = ::sysconf(_SC_CLK_TCK);
  const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  const uint64_t since_boot_ns = ticksToNs(123456, tck);
  auto all = reader.taskAllInfo(4242);
  auto r = reader.rusage(4242);
  ASSERT_TRUE(all && r);
  const proc_taskinfo& t = all->ptinfo;
  const proc_bsdinfo& b = all->pbsd;
  // The resident size is statm's exact count, not stat's per-CPU approximation (2547 pages).
  EXPECT_EQ(std::tuple(t.pti_total_user, t.pti_total_system, t.pti_virtual_size, t.pti_resident_size),
            std::tuple(ticksToNs(600, tck), ticksToNs(200, tck), 25600 * page, 2560 * page));
  EXPECT_EQ(std::tuple(t.pti_threadnum, t.pti_faults, t.pti_pageins, t.pti_csw), std::tuple(3, 1530, 30, 77));
  EXPECT_EQ(std::tuple(b.pbi_pid, b.pbi_ppid, b.pbi_status, b.e_tdev, b.pbi_nice),
            std::tuple(4242u, 4200u, 3u, 34817u, 5));
  EXPECT_EQ(std::tuple(b.pbi_ruid, b.pbi_gid, b.pbi_rgid, b.pbi_svgid), std::tuple(1000u, 101u, 100u, 102u));
  EXPECT_EQ(std::tuple(b.pbi_start_tvsec, b.pbi_start_tvusec, r->ri_proc_start_abstime),
            std::tuple(1700000000u + since_boot_ns / 1'000'000'000u, since_boot_ns % 1'000'000'000u / 1000u,
                       since_boot_ns));
  // The idle wakeups are 70 + 30 over both threads, not the process line's 70.
  EXPECT_EQ(std::tuple(r->ri_pkg_idle_wkups, r->ri_diskio_bytesread, r->ri_diskio_byteswritten, r->ri_child_user_time),
            std::tuple(100u, 4096000u, 8192u, ticksToNs(40, tck)));
  // 4250 has one thread and no task folder: its count comes from its own status.
  EXPECT_EQ(reader.rusage(4250)->ri_pkg_idle_wkups, 55u);
  EXPECT_STREQ(b.pbi_comm, "my (odd) prog");
  EXPECT_STREQ(b.pbi_name, "my (odd) prog");
  EXPECT_EQ(reader.pidName(4242), "my (odd) prog");
}
TEST(ProcTaskReader, MissingProcessesReportNoSuchProcess) {
  const ProcTaskReader reader(kFixture);
  for (pid_t pid : {0, -1, 4243, 99999}) {
    int error = 0;
    EXPECT_FALSE(reader.taskInfo(pid, &error)) << pid;
    EXPECT_EQ(error, ESRCH) << pid;
    EXPECT_FALSE(reader.pidName(pid)) << pid;
  }
}

TEST(ProcTaskReader, LiveProcessUsesTheProcessCpuClockAndCountsItsFiles) {
  const ProcTaskReader reader(SysRoot("/proc", "/sys"));
  timespec before{};
  ASSERT_EQ(::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before), 0);
  auto t = reader.taskInfo(::getpid());
  ASSERT_TRUE(t);
  const uint64_t before_ns = static_cast<uint64_t>(before.tv_sec) * 1'000'000'000u +
                             static_cast<uint64_t>(before.tv_nsec);
  // The clock only moves forward, and ticks would round to whole 10 ms steps.
  EXPECT_GE(t->pti_total_user + t->pti_total_system, before_ns);
  EXPECT_GT(t->pti_resident_size, 0u);
  auto files = reader.pidFiles(::getpid());
  ASSERT_TRUE(files);
  EXPECT_TRUE(files->count(0) || files->count(1) || files->count(2));
  int fds[3];
  for (int& fd : fds) fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  auto more = reader.taskAllInfo(::getpid());
  for (int fd : fds) ::close(fd);
  ASSERT_TRUE(more);
  EXPECT_EQ(more->pbsd.pbi_nfiles, reader.taskAllInfo(::getpid())->pbsd.pbi_nfiles + 3);
  EXPECT_EQ(reader.pidName(::getpid()), "pelmora_support_tests");
  // The clock id is glibc's, made without its extra system call.
  for (pid_t pid : {::getpid(), ::getppid(), pid_t{1}}) {
    clockid_t glibc;
    ASSERT_EQ(::clock_getcpuclockid(pid, &glibc), 0) << pid;
    EXPECT_EQ(processCpuClockId(pid), glibc) << pid;
  }
}

TEST(ProcTaskReader, UsesFilesTheCallerReadOnlyForTheSamePid) {
  const ProcTaskReader reader(kFixture);
  const long tck = ::sysconf(_SC_CLK_TCK);
  auto stat = reader.readStat(4242);
  auto status = reader.readStatus(4242);
  ASSERT_TRUE(stat && status);
  stat->utime_ticks = 900;
  status->uid[1] = 77;
  ProcPidStat other = *stat;
  other.pid = 4250;
  const struct {
    const char* name;
    KnownProcFiles known;
    uint64_t user_ns;
    uint32_t uid;
  } cases[] = {
      {"nothing known", {}, ticksToNs(600, tck), 1000},
      {"stat and status known", {&*stat, &*status}, ticksToNs(900, tck), 77},
      {"stat of another pid", {&other, nullptr}, ticksToNs(600, tck), 1000},
  };
  for (const auto& c : cases) {
    auto all = reader.taskAllInfo(4242, nullptr, c.known);
    ASSERT_TRUE(all) << c.name;
    EXPECT_EQ(all->ptinfo.pti_total_user, c.user_ns) << c.name;
    EXPECT_EQ(all->pbsd.pbi_uid, c.uid) << c.name;
  }
}

// A record file is read in one go when it fits the buffer, and whole when it does not (a status with
// long group lists), however its length falls against the buffer.
TEST(SysRootRecord, ReadsRecordFilesWholeAtAnyLength) {
  test::TempDir dir;
  for (size_t length : {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{12000}}) {
    SCOPED_TRACE(length);
    std::string text(length, 'x');
    for (size_t i = 0; i < length; i += 97) text[i] = '\n';
    std::ofstream(dir.path() / "status") << text;
    const UniqueFd folder(::open(dir.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(SysRoot::readRecordAt(folder.get(), "status"), text);
    EXPECT_EQ(SysRoot::readRecordAt(AT_FDCWD, (dir.path() / "status").c_str()), text);
  }
  EXPECT_FALSE(SysRoot::readRecordAt(AT_FDCWD, "/nonexistent/status"));
}

}  // namespace
}  // namespace pelmora
