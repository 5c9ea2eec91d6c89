#include "support/proc_pid_stat.h"

#include "support/text.h"

namespace pelmora {

std::optional<ProcPidStat> parseProcPidStat(std::string_view text) {
  // The command name sits in parentheses and may itself hold spaces and ')'.
  const auto open = text.find('(');
  const auto close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  ProcPidStat s;
  auto pid = parseInt64(trim(text.substr(0, open)));
  if (!pid) return std::nullopt;
  s.pid = static_cast<int>(*pid);
  s.comm = std::string(text.substr(open + 1, close - open - 1));
  auto f = splitWhitespace(text.substr(close + 1));
  // f[0] is field 3 (state); field N is f[N - 3].
  if (f.size() < 22 || f[0].size() != 1) return std::nullopt;
  auto num = [&](int field) { return parseInt64(f[static_cast<size_t>(field - 3)]); };
  auto unum = [&](int field) { return parseUInt64(f[static_cast<size_t>(field - 3)]); };
  s.state = f[0][0];
  auto ppid = num(4), pgrp = num(5), tty = num(7), tpgid = num(8), prio = num(18), nice = num(19), threads = num(20);
  auto flags = unum(9), minflt = unum(10), majflt = unum(12), ut = unum(14), st = unum(15), cut = unum(16),
       cst = unum(17), start = unum(22), vsize = unum(23);
  auto rss = num(24);
  if (!ppid || !pgrp || !tty || !tpgid || !prio || !nice || !threads || !flags || !minflt || !majflt || !ut || !st ||
      !cut || !cst || !start || !vsize || !rss) {
    return std::nullopt;
  }
  s.ppid = static_cast<int>(*ppid);
  s.pgrp = static_cast<int>(*pgrp);
  s.tty_nr = static_cast<int>(*tty);
  s.tpgid = static_cast<int>(*tpgid);
  s.flags = static_cast<uint32_t>(*flags);
  s.minflt = *minflt;
  s.majflt = *majflt;
  s.utime_ticks = *ut;
  s.stime_ticks = *st;
  s.cutime_ticks = *cut;
  s.cstime_ticks = *cst;
  s.priority = *prio;
  s.nice = *nice;
  s.num_threads = *threads;
  s.starttime_ticks = *start;
  s.vsize_bytes = *vsize;
  // Kernel threads (no memory of their own) print 0; a negative count never means anything.
  s.rss_pages = *rss > 0 ? static_cast<uint64_t>(*rss) : 0;
  return s;
}

}  // namespace pelmora
