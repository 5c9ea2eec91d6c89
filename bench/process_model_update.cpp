// The process window's model update for 1000 processes, beside a model that resets itself at every
// refresh. Each round changes every share (so the order changes), ends 10 processes and starts 10
// new ones, rebuilds the rows (filter, search, sort) and merges them into the model under a shown
// table view with a selected row; the view's own work (layout, painting) is included through the
// event loop. Prints the medians, their ratio, and whether the selection and scroll position
// survived each kind of update.
#include <QAbstractTableModel>
#include <QApplication>
#include <QItemSelectionModel>
#include <QScrollBar>
#include <QTableView>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include "app/process_columns.h"
#include "app/process_table_model.h"

namespace {

using namespace pelmora;
constexpr int kProcesses = 1000;
constexpr int kTurnover = 10;
constexpr int kRounds = 25;

// The same cells, but every refresh is a reset: the view forgets selection and scroll position.
class ResettingModel : public QAbstractTableModel {
 public:
  int rowCount(const QModelIndex& = {}) const override { return static_cast<int>(m_rows.size()); }
  int columnCount(const QModelIndex& = {}) const override { return static_cast<int>(processColumnIds().size()); }
  QVariant data(const QModelIndex& index, int role) const override {
    if (role != Qt::DisplayRole) return {};
    return QString::fromStdString(
        cellText(processColumnIds()[size_t(index.column())], m_rows[size_t(index.row())], m_ctx));
  }
  void setRows(std::vector<ProcessRow> rows) {
    beginResetModel();
    m_rows = std::move(rows);
    endResetModel();
  }

 private:
  std::vector<ProcessRow> m_rows;
  CellContext m_ctx;
};

struct Table {
  std::map<int32_t, procinfo> processes;
  std::mt19937 random{42};
  int32_t next_pid = 1000;

  Table() {
    for (int i = 0; i < kProcesses; ++i) addOne();
  }
  void addOne() {
    procinfo p;
    p.pid = next_pid++;
    p.name = "proc" + std::to_string(p.pid % 97);
    p.uid = p.pid % 3 == 0 ? 0 : 1000;
    p.startTime = uint64_t(p.pid) * 1'000'000'000ULL;
    processes[p.pid] = p;
  }
  // New shares everywhere, kTurnover exits (never pid 1500, the selected one) and as many starts.
  void turn() {
    std::uniform_real_distribution<double> share(0.0, 1.0);
    for (auto& [pid, p] : processes) p.pctCPU = share(random);
    for (int i = 0; i < kTurnover; ++i) {
      auto it = processes.begin();
      if (it->first == 1500) ++it;
      processes.erase(it);
      addOne();
    }
  }
};

double medianMs(const std::function<void()>& round) {
  std::vector<double> ms;
  for (int i = 0; i < kRounds; ++i) {
    const auto start = std::chrono::steady_clock::now();
    round();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(ms.begin(), ms.end());
  return ms[ms.size() / 2];
}

template <typename Model>
double measure(const char* label, Model& model, const std::function<int32_t(int)>& pid_at) {
  Table table;
  QTableView view;
  view.setModel(&model);
  view.setSelectionBehavior(QAbstractItemView::SelectRows);
  view.resize(1000, 600);
  view.show();
  RowQuery query;
  model.setRows(buildRows(table.processes, {}, query));
  QApplication::processEvents();
  view.verticalScrollBar()->setValue(view.verticalScrollBar()->maximum() / 2);
  view.selectRow(model.rowCount() / 2);
  const int32_t selected = pid_at(model.rowCount() / 2);
  const int scroll = view.verticalScrollBar()->value();
  const double ms = medianMs([&] {
    table.turn();
    model.setRows(buildRows(table.processes, {}, query));
    QApplication::processEvents();
  });
  const auto rows = view.selectionModel()->selectedRows();
  const bool kept = rows.size() == 1 && pid_at(rows.first().row()) == selected;
  std::printf("%-28s %10.3f ms   selection %s, scroll position %s\n", label, ms, kept ? "kept" : "lost",
              view.verticalScrollBar()->value() == scroll ? "kept" : "lost");
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  if (!std::getenv("QT_QPA_PLATFORM")) ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QApplication app(argc, argv);
  std::printf("Process window update, %d processes, %d exits and starts per refresh, median of %d\n",
              kProcesses, kTurnover, kRounds);
  ProcessTableModel merging;
  const double ours = measure("in-place merge (ours)", merging, [&](int row) { return merging.pidAt(row); });
  ResettingModel resetting;
  std::vector<ProcessRow> dummy;
  const double reset = measure("full reset", resetting, [&](int row) {
    return resetting.index(row, 1).data().toInt();
  });
  std::printf("ratio ours / reset: %.2f\n", reset > 0 ? ours / reset : 0.0);
  return 0;
}
