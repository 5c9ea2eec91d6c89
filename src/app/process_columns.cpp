#include "app/process_columns.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <unordered_map>

#include "graphs/value_formatter.h"

namespace pelmora {
namespace {

std::string format(const char* fmt, double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, fmt, value);
  return buffer;
}

std::string withUnit(double value, int base, std::string_view unit) {
  return formatValue(value, base, 1, unit, [](double v, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, v);
    return std::string(buffer);
  });
}

template <typename T>
int threeWay(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

// Names as people read them: "bash" before "Xvfb"; names that differ only in case keep a fixed order.
int caselessThreeWay(const std::string& a, const std::string& b) {
  if (const int c = threeWay(lowercase(a), lowercase(b)); c != 0) return c;
  return threeWay(a, b);
}

// The numeric key of a column, for the columns that sort by one number.
using NumberKey = double (*)(const ProcessRow&);

const std::map<std::string_view, NumberKey>& numberKeys() {
  static const std::map<std::string_view, NumberKey> keys = {
      {"pid", [](const ProcessRow& r) { return double(r.info.pid); }},
      {"pctcpu", [](const ProcessRow& r) { return r.tree_limit ? r.group_share : r.info.pctCPU; }},
      {"wakeups", [](const ProcessRow& r) { return r.info.idleWakeupsPerSec; }},
      {"energy", [](const ProcessRow& r) { return r.info.energyImpact; }},
      {"uid", [](const ProcessRow& r) { return double(r.info.uid); }},
      {"sleep", [](const ProcessRow& r) { return r.info.preventSleep ? 1.0 : 0.0; }},
      {"limit", [](const ProcessRow& r) { return r.limit.value_or(-1.0); }},
      {"threads", [](const ProcessRow& r) { return double(r.info.threads); }},
      {"readpersec", [](const ProcessRow& r) { return r.info.readPerSec.current(); }},
      {"writepersec", [](const ProcessRow& r) { return r.info.writePerSec.current(); }},
      {"netread", [](const ProcessRow& r) { return r.info.netReadPerSec; }},
      {"netwrite", [](const ProcessRow& r) { return r.info.netWritePerSec; }},
      {"memresident", [](const ProcessRow& r) { return double(r.info.memRes); }},
      {"memvirtual", [](const ProcessRow& r) { return double(r.info.memVirtual); }},
  };
  return keys;
}

}  // namespace

processesView processesViewFrom(int64_t stored) {
  if (stored < 0 || stored > static_cast<int64_t>(processesView::application)) return processesView::all;
  return static_cast<processesView>(stored);
}

const std::vector<std::string>& processColumnIds() {
  static const std::vector<std::string> ids = {
      "process", "pid",     "kind",    "elapsed",    "pctcpu",      "wakeups", "energy",
      "user",    "uid",     "sleep",   "limit",      "nice",        "threads", "readpersec",
      "writepersec", "netread", "netwrite", "memresident", "memvirtual", "command"};
  return ids;
}

bool isProcessColumn(std::string_view id) {
  const auto& ids = processColumnIds();
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

bool isTextColumn(std::string_view id) {
  return id == "process" || id == "kind" || id == "user" || id == "sleep" || id == "command";
}

std::string elapsedText(uint64_t elapsed_ns) {
  const uint64_t seconds = elapsed_ns / 1'000'000'000ULL;
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%02llu:%02llu:%02llu", static_cast<unsigned long long>(seconds / 3600),
                static_cast<unsigned long long>(seconds / 60 % 60), static_cast<unsigned long long>(seconds % 60));
  return buffer;
}

std::string limitText(const ProcessRow& row, bool limit_frontmost) {
  if (row.held_with) return "with " + std::to_string(*row.held_with);
  if (!row.limit) return {};
  const double percent = *row.limit * 100.0;
  const char* group = row.tree_limit ? " Σ" : "";
  if (!limit_frontmost && row.frontmost) return format("(%.1f)", percent) + group;
  return format("%.1f", percent) + group;
}

std::string cellText(std::string_view column, const ProcessRow& row, const CellContext& ctx) {
  const procinfo& p = row.info;
  if (column == "process") return p.name;
  if (column == "pid") return std::to_string(p.pid);
  if (column == "kind") return p.kind;
  if (column == "elapsed") return elapsedText(ctx.now_ns > p.startTime ? ctx.now_ns - p.startTime : 0);
  if (column == "pctcpu")
    return row.tree_limit ? format("%.1f", row.group_share * 100.0) + " Σ" : format("%.1f", p.pctCPU * 100.0);
  if (column == "wakeups") return format("%.1f", p.idleWakeupsPerSec);
  if (column == "energy") return format("%.1f", p.energyImpact);
  if (column == "user") return p.user;
  if (column == "uid") return std::to_string(p.uid);
  if (column == "sleep") return p.preventSleep ? "Yes" : "No";
  if (column == "limit") return limitText(row, ctx.limit_frontmost);
  if (column == "nice") return std::to_string(row.nice);
  if (column == "threads") return std::to_string(p.threads);
  // Sizes and disk rates in binary units as free(1) and the desktop monitors show them; network
  // rates in decimal bits, as links are rated.
  if (column == "readpersec") return withUnit(p.readPerSec.current(), 1024, "B/s");
  if (column == "writepersec") return withUnit(p.writePerSec.current(), 1024, "B/s");
  if (column == "netread") return withUnit(p.netReadPerSec, 1000, "bit/s");
  if (column == "netwrite") return withUnit(p.netWritePerSec, 1000, "bit/s");
  if (column == "memresident") return withUnit(double(p.memRes), 1024, "B");
  if (column == "memvirtual") return withUnit(double(p.memVirtual), 1024, "B");
  if (column == "command") return commandText(p);
  return {};
}

int compareRows(std::string_view column, const ProcessRow& a, const ProcessRow& b) {
  if (column == "process") return caselessThreeWay(a.info.name, b.info.name);
  if (column == "kind") return caselessThreeWay(a.info.kind, b.info.kind);
  if (column == "user") return caselessThreeWay(a.info.user, b.info.user);
  if (column == "command") return caselessThreeWay(commandText(a.info), commandText(b.info));
  // Later start first: ascending order lists the shortest elapsed time first.
  if (column == "elapsed") return threeWay(b.info.startTime, a.info.startTime);
  if (column == "nice") return threeWay(a.nice, b.nice);
  const auto& keys = numberKeys();
  if (auto it = keys.find(column); it != keys.end()) return threeWay(it->second(a), it->second(b));
  return 0;
}

bool passesFilter(processesView view, const procinfo& info, uint32_t my_uid,
                  const std::set<int32_t>& application_pids) {
  switch (view) {
    case processesView::all: return true;
    case processesView::mine: return info.uid == my_uid;
    case processesView::system: return info.uid == 0;
    case processesView::other: return info.uid != 0 && info.uid != my_uid;
    case processesView::application: return application_pids.count(info.pid) > 0;
  }
  return true;
}

std::string lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool passesSearch(const procinfo& info, std::string_view needle, bool contains) {
  if (needle.empty()) return true;
  const bool found = lowercase(info.name).find(needle) != std::string::npos;
  return found == contains;
}

std::string commandText(const procinfo& info) {
  // As ps shows a process without a command line (a kernel thread): its name in brackets.
  return info.command.empty() ? "[" + info.name + "]" : info.command;
}

std::vector<ProcessRow> treeOrder(std::vector<ProcessRow> rows) {
  std::unordered_map<int32_t, size_t> index_of;
  for (size_t i = 0; i < rows.size(); ++i) index_of.emplace(rows[i].info.pid, i);
  std::unordered_map<int32_t, std::vector<size_t>> children;
  std::vector<size_t> roots;
  for (size_t i = 0; i < rows.size(); ++i) {
    const int32_t parent = rows[i].info.ppid;
    if (parent != rows[i].info.pid && index_of.count(parent))
      children[parent].push_back(i);
    else
      roots.push_back(i);
  }
  std::vector<ProcessRow> out;
  out.reserve(rows.size());
  std::vector<bool> placed(rows.size(), false);
  // Depth first, each level in the order it was sorted in; a stale parent link that closes a loop
  // cannot hide a row: whatever the walk did not reach becomes a root of its own.
  auto walk = [&](size_t root) {
    std::vector<std::pair<size_t, int>> stack{{root, 0}};
    while (!stack.empty()) {
      const auto [i, depth] = stack.back();
      stack.pop_back();
      if (placed[i]) continue;
      placed[i] = true;
      out.push_back(rows[i]);
      out.back().depth = depth;
      const auto kids = children.find(rows[i].info.pid);
      if (kids == children.end()) continue;
      for (auto k = kids->second.rbegin(); k != kids->second.rend(); ++k) stack.emplace_back(*k, depth + 1);
    }
  };
  for (size_t root : roots) walk(root);
  for (size_t i = 0; i < rows.size(); ++i) walk(i);
  return out;
}

std::vector<ProcessRow> buildRows(const std::map<int32_t, procinfo>& table, const std::map<int32_t, pidInfo>& limits,
                                  const RowQuery& query, const std::map<int32_t, std::set<int32_t>>& trees) {
  std::map<int32_t, int32_t> head_of;
  std::map<int32_t, double> group_share;
  for (const auto& [root, members] : trees) {
    for (int32_t pid : members) {
      if (pid != root) head_of[pid] = root;
      // Summed over the whole table: a member hidden by the filter or the search still counts.
      if (auto it = table.find(pid); it != table.end()) group_share[root] += it->second.pctCPU;
    }
  }
  std::vector<ProcessRow> rows;
  rows.reserve(table.size());
  for (const auto& [pid, info] : table) {
    if (!passesFilter(query.view, info, query.my_uid, query.application_pids)) continue;
    if (!passesSearch(info, query.search, query.search_contains)) continue;
    ProcessRow row;
    row.info = info;
    if (auto it = limits.find(pid); it != limits.end()) {
      row.limit = it->second.cpuLimit;
      row.frontmost = it->second.frontmost;
    }
    if (query.nice_of) row.nice = query.nice_of(pid);
    if (auto share = group_share.find(pid); share != group_share.end() || trees.count(pid)) {
      row.tree_limit = true;
      row.group_share = share != group_share.end() ? share->second : 0.0;
    }
    if (auto head = head_of.find(pid); head != head_of.end()) row.held_with = head->second;
    rows.push_back(std::move(row));
  }
  const std::string key = isProcessColumn(query.sort_key) ? query.sort_key : "pctcpu";
  std::sort(rows.begin(), rows.end(), [&](const ProcessRow& a, const ProcessRow& b) {
    const int c = compareRows(key, a, b);
    if (c != 0) return query.sort_ascending ? c < 0 : c > 0;
    return a.info.pid < b.info.pid;
  });
  return query.tree ? treeOrder(std::move(rows)) : rows;
}

}  // namespace pelmora
