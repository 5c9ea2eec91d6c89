#pragma once
// The process window's table model: the rows the window built from the limiter's table, one column
// per process column identifier. A new set of rows is merged in place: rows of processes that left
// are removed, rows of new processes are inserted, the order is changed as a layout change that
// carries every persistent index along, and the remaining cells are reported changed. The view
// therefore keeps its selection and scroll position across refreshes. Main thread only.
#include <QAbstractTableModel>
#include <QFont>
#include <QHash>
#include <QIcon>

#include <string>
#include <vector>

#include "app/process_columns.h"

namespace pelmora {

class ProcessTableModel : public QAbstractTableModel {
  Q_OBJECT
 public:
  explicit ProcessTableModel(QObject* parent = nullptr);

  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

  // Merges the new rows (already filtered and sorted) into the model in place.
  void setRows(std::vector<ProcessRow> rows);
  void setContext(const CellContext& ctx);
  void setFont(const QFont& font);

  const std::vector<ProcessRow>& rows() const { return m_rows; }
  // The row showing `pid`, or -1.
  int rowOfPid(int32_t pid) const;
  int32_t pidAt(int row) const;
  static const std::string& columnId(int column);
  static int columnOf(const std::string& id);  // -1 when unknown
  static QString columnTitle(const std::string& id);

  // Counts of the last merge, for tests and the benchmark.
  struct MergeStats {
    int removed = 0;
    int inserted = 0;
    bool reordered = false;
  };
  MergeStats lastMerge() const { return m_last_merge; }

 private:
  void removeGoneRows(const std::vector<ProcessRow>& next);
  void appendNewRows(const std::vector<ProcessRow>& next);
  void reorderTo(std::vector<ProcessRow> next);
  QIcon iconFor(const procinfo& info) const;

  std::vector<ProcessRow> m_rows;
  CellContext m_ctx;
  QFont m_font;
  MergeStats m_last_merge;
  mutable QHash<QString, QIcon> m_icons;
};

}  // namespace pelmora
