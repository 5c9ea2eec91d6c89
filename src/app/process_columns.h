#pragma once
// The process window's columns, filters and search, free of Qt so they can be tested directly:
// each column's cell text and ascending comparator, the owner filters and the name search, and the
// rebuild that applies them to the limiter's table. Units as in the table: shares are fractions of
// one processor, disk rates bytes per second, network rates bits per second, sizes bytes.
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "process_control/pid_info.h"
#include "process_control/procinfo.h"

namespace pelmora {

// Which processes the table shows; the integer is what "process_filter" stores.
enum class processesView : int { all = 0, mine = 1, system = 2, other = 3, application = 4 };

// A stored filter value; out-of-range values mean all.
processesView processesViewFrom(int64_t stored);

// One row as the window shows it: the table's record and, when limited, the limiter's share and
// whether the limiter sees the process as the frontmost application.
struct ProcessRow {
  procinfo info;
  std::optional<double> limit;  // share of one processor; none when not limited
  bool frontmost = false;
  int nice = 0;  // the current priority, read from the process when the rows are built
  int depth = 0;  // in the tree view: how many ancestors are shown above the row
  // A limit that holds the process with all its descendants: this row shows the group's summed
  // share (`group_share`) and limit, each marked "Σ"; a member's row names the process that heads
  // its group in `held_with`.
  bool tree_limit = false;
  double group_share = 0.0;
  std::optional<int32_t> held_with;
};

// The column identifiers in their default order.
const std::vector<std::string>& processColumnIds();
bool isProcessColumn(std::string_view id);
// Text columns: name, kind, user, preventing sleep. They align left and open sorted A to Z; every
// other column opens largest first, as a person looking for the busiest process expects.
bool isTextColumn(std::string_view id);

// What the cell text depends on besides the row.
struct CellContext {
  bool limit_frontmost = false;  // the limiter may hold the frontmost application stopped
  uint64_t now_ns = 0;           // wall clock, for "elapsed"
};

// The text of one cell; empty for an unknown identifier. Numbers use the C library's current locale.
std::string cellText(std::string_view column, const ProcessRow& row, const CellContext& ctx);
// The "limit" cell: empty, the percentage, or the percentage in parentheses while the limit is not
// applied because the process is in front and frontmost limiting is off.
std::string limitText(const ProcessRow& row, bool limit_frontmost);
// hh:mm:ss of a duration (hours grow past 99 as needed).
std::string elapsedText(uint64_t elapsed_ns);

// Ascending comparison of two rows by a column: <0, 0, >0. An unknown identifier compares as same.
// Text columns compare without regard to case.
int compareRows(std::string_view column, const ProcessRow& a, const ProcessRow& b);

// Whether a row passes the owner filter. `application_pids` is only consulted for `application`.
bool passesFilter(processesView view, const procinfo& info, uint32_t my_uid,
                  const std::set<int32_t>& application_pids);
// The name search: `needle` is lowercase; with `contains` a row is kept when its lowercased name
// holds the needle, otherwise when it does not. An empty needle keeps every row.
bool passesSearch(const procinfo& info, std::string_view needle, bool contains);
std::string lowercase(std::string_view text);

struct RowQuery {
  processesView view = processesView::all;
  uint32_t my_uid = 0;
  std::set<int32_t> application_pids;
  std::string search;  // lowercase
  bool search_contains = true;
  std::string sort_key = "pctcpu";
  bool sort_ascending = false;
  std::function<int(int32_t pid)> nice_of;  // none: every priority reads 0
  bool tree = false;                        // children under their parents
};

// The full command line, or "[name]" for a process without one (a kernel thread).
std::string commandText(const procinfo& info);
// Sorted rows rearranged so that every child follows its parent (depth first, siblings in their
// sorted order) with its depth set; a row whose parent is not shown is a root.
std::vector<ProcessRow> treeOrder(std::vector<ProcessRow> rows);

// The rows shown: the table filtered, searched and sorted (ties broken by pid so the order is
// stable between refreshes), with each row's limit and frontmost state from the limiter's records,
// and the held trees (first process -> members) marked.
std::vector<ProcessRow> buildRows(const std::map<int32_t, procinfo>& table, const std::map<int32_t, pidInfo>& limits,
                                  const RowQuery& query, const std::map<int32_t, std::set<int32_t>>& trees = {});

}  // namespace pelmora
