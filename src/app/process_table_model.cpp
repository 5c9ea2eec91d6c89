#include "app/process_table_model.h"

#include <QApplication>
#include <QStyle>

#include <map>
#include <unordered_map>

namespace pelmora {
namespace {

// A process is the same row only while both its identifier and its start time match: a reused
// identifier is a different process and gets a fresh row.
bool sameProcess(const ProcessRow& a, const ProcessRow& b) {
  return a.info.pid == b.info.pid && a.info.startTime == b.info.startTime;
}

}  // namespace

ProcessTableModel::ProcessTableModel(QObject* parent) : QAbstractTableModel(parent) {}

int ProcessTableModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

int ProcessTableModel::columnCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(processColumnIds().size());
}

const std::string& ProcessTableModel::columnId(int column) { return processColumnIds().at(size_t(column)); }

int ProcessTableModel::columnOf(const std::string& id) {
  const auto& ids = processColumnIds();
  for (size_t i = 0; i < ids.size(); ++i)
    if (ids[i] == id) return static_cast<int>(i);
  return -1;
}

QString ProcessTableModel::columnTitle(const std::string& id) {
  static const std::map<std::string, const char*> titles = {
      {"process", "Process"},       {"pid", "PID"},
      {"kind", "Kind"},             {"elapsed", "Elapsed"},
      {"pctcpu", "% CPU"},          {"wakeups", "Idle Wake Ups"},
      {"energy", "Energy Impact"},  {"user", "User"},
      {"uid", "UID"},               {"sleep", "Preventing Sleep"},
      {"limit", "Limit %"},         {"nice", "Nice"},
      {"threads", "Threads"},       {"readpersec", "Disk Read"},
      {"writepersec", "Disk Write"}, {"netread", "Net In"},
      {"netwrite", "Net Out"},      {"memresident", "Resident Memory"},
      {"memvirtual", "Virtual Memory"}, {"command", "Command"}};
  auto it = titles.find(id);
  return it == titles.end() ? QString() : QObject::tr(it->second);
}

QVariant ProcessTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || section < 0 || section >= columnCount()) return {};
  if (role == Qt::DisplayRole) return columnTitle(columnId(section));
  if (role == Qt::TextAlignmentRole && !isTextColumn(columnId(section)))
    return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
  // The order a header click on a new column starts with.
  if (role == Qt::InitialSortOrderRole)
    return isTextColumn(columnId(section)) ? Qt::AscendingOrder : Qt::DescendingOrder;
  return {};
}

QVariant ProcessTableModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= rowCount() || index.column() >= columnCount()) return {};
  const ProcessRow& row = m_rows[size_t(index.row())];
  const std::string& id = columnId(index.column());
  switch (role) {
    case Qt::DisplayRole: {
      const std::string text = cellText(id, row, m_ctx);
      if (id == "sleep") return QObject::tr(text.c_str());
      // The tree view indents a child under its parent.
      if (id == "process" && row.depth > 0) return QString(row.depth * 3, ' ') + QString::fromStdString(text);
      return QString::fromStdString(text);
    }
    case Qt::ToolTipRole:
      return id == "process" || id == "command" ? QVariant(QString::fromStdString(commandText(row.info))) : QVariant();
    case Qt::DecorationRole:
      return id == "process" ? QVariant(iconFor(row.info)) : QVariant();
    case Qt::TextAlignmentRole:
      return isTextColumn(id) ? QVariant::fromValue(Qt::AlignLeft | Qt::AlignVCenter)
                              : QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
    case Qt::FontRole:
      return m_font;
    case Qt::UserRole:
      return row.info.pid;
    default:
      return {};
  }
}

// The theme's icon named like the program when there is one (most desktop programs install one
// under their own name), else the generic executable icon.
QIcon ProcessTableModel::iconFor(const procinfo& info) const {
  const QString name = QString::fromStdString(info.name);
  auto it = m_icons.find(name);
  if (it != m_icons.end()) return *it;
  QIcon icon = QIcon::hasThemeIcon(name) ? QIcon::fromTheme(name)
                                         : QApplication::style()->standardIcon(QStyle::SP_FileIcon);
  m_icons.insert(name, icon);
  return icon;
}

int ProcessTableModel::rowOfPid(int32_t pid) const {
  for (size_t i = 0; i < m_rows.size(); ++i)
    if (m_rows[i].info.pid == pid) return static_cast<int>(i);
  return -1;
}

int32_t ProcessTableModel::pidAt(int row) const {
  if (row < 0 || row >= rowCount()) return -1;
  return m_rows[size_t(row)].info.pid;
}

void ProcessTableModel::setContext(const CellContext& ctx) { m_ctx = ctx; }

void ProcessTableModel::setFont(const QFont& font) {
  m_font = font;
  if (!m_rows.empty()) emit dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1), {Qt::FontRole});
}

void ProcessTableModel::setRows(std::vector<ProcessRow> rows) {
  m_last_merge = {};
  removeGoneRows(rows);
  appendNewRows(rows);
  reorderTo(std::move(rows));
  if (!m_rows.empty()) emit dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1));
}

// Removes, bottom up and one contiguous block at a time, the rows whose process is not in `next`.
void ProcessTableModel::removeGoneRows(const std::vector<ProcessRow>& next) {
  std::unordered_map<int32_t, uint64_t> keep;
  for (const auto& row : next) keep.emplace(row.info.pid, row.info.startTime);
  auto gone = [&](size_t i) {
    auto it = keep.find(m_rows[i].info.pid);
    return it == keep.end() || it->second != m_rows[i].info.startTime;
  };
  for (int last = rowCount() - 1; last >= 0; --last) {
    if (!gone(size_t(last))) continue;
    int first = last;
    while (first > 0 && gone(size_t(first - 1))) --first;
    beginRemoveRows({}, first, last);
    m_rows.erase(m_rows.begin() + first, m_rows.begin() + last + 1);
    endRemoveRows();
    m_last_merge.removed += last - first + 1;
    last = first;
  }
}

void ProcessTableModel::appendNewRows(const std::vector<ProcessRow>& next) {
  std::unordered_map<int32_t, size_t> present;
  for (size_t i = 0; i < m_rows.size(); ++i) present.emplace(m_rows[i].info.pid, i);
  std::vector<ProcessRow> added;
  for (const auto& row : next)
    if (!present.count(row.info.pid)) added.push_back(row);
  if (added.empty()) return;
  const int first = rowCount();
  beginInsertRows({}, first, first + static_cast<int>(added.size()) - 1);
  for (auto& row : added) m_rows.push_back(std::move(row));
  endInsertRows();
  m_last_merge.inserted = static_cast<int>(added.size());
}

// The model now holds exactly the processes of `next`; bring them into its order, moving every
// persistent index (selection, current index) with its process.
void ProcessTableModel::reorderTo(std::vector<ProcessRow> next) {
  bool same_order = next.size() == m_rows.size();
  for (size_t i = 0; same_order && i < next.size(); ++i) same_order = sameProcess(next[i], m_rows[i]);
  if (same_order) {
    m_rows = std::move(next);
    return;
  }
  m_last_merge.reordered = true;
  emit layoutAboutToBeChanged({}, QAbstractItemModel::VerticalSortHint);
  std::unordered_map<int32_t, int> new_row;
  for (size_t i = 0; i < next.size(); ++i) new_row.emplace(next[i].info.pid, static_cast<int>(i));
  const QModelIndexList from = persistentIndexList();
  QModelIndexList to;
  to.reserve(from.size());
  for (const QModelIndex& old : from) {
    auto it = new_row.find(pidAt(old.row()));
    to.append(it == new_row.end() ? QModelIndex() : index(it->second, old.column()));
  }
  m_rows = std::move(next);
  changePersistentIndexList(from, to);
  emit layoutChanged({}, QAbstractItemModel::VerticalSortHint);
}

}  // namespace pelmora
