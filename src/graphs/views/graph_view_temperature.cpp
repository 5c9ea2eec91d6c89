#include "graphs/views/graph_view_temperature.h"

#include <QContextMenuEvent>
#include <QMenu>
#include <QPainter>

#include <algorithm>

#include "graphs/graph_geometry.h"
#include "support/settings_keys.h"

namespace pelmora {

GraphViewTemperature::GraphViewTemperature(QWidget* parent) : GraphView(GraphClass::temp, parent) {}

void GraphViewTemperature::update(const std::vector<std::vector<temperatureStats>>& history) {
  const size_t keep = std::min(visibleColumns(width()), history.size());
  m_visible.assign(history.end() - static_cast<std::ptrdiff_t>(keep), history.end());
  recompute();
}

void GraphViewTemperature::recompute() {
  m_columns = temperatureColumns(m_visible, width(), m_choice);
  redraw();
}

void GraphViewTemperature::setSensorChoice(const std::vector<std::string>& choice) {
  m_choice = choice;
  keys::kGraphTempSensors.save(settingsStore(), choice);
  recompute();
}

void GraphViewTemperature::showEvent(QShowEvent* event) {
  GraphView::showEvent(event);
  m_choice = keys::kGraphTempSensors.load(settingsStore());  // another window may have chosen
  recompute();
}

std::vector<std::string> GraphViewTemperature::toggled(const std::string& sensor, bool on) const {
  std::vector<std::string> lines(m_columns.names.begin(), m_columns.names.end());
  if (on) {
    auto free = std::find(lines.begin(), lines.end(), std::string());
    if (free != lines.end()) *free = sensor;
  } else {
    std::replace(lines.begin(), lines.end(), sensor, std::string());
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

QMenu* GraphViewTemperature::makeSensorMenu(QWidget* parent) {
  auto* menu = new QMenu(tr("Sensors"), parent);
  const auto& drawn = m_columns.names;
  const auto lines =
      static_cast<size_t>(std::count_if(drawn.begin(), drawn.end(), [](const auto& n) { return !n.empty(); }));
  for (const auto& sensor : m_visible.empty() ? std::vector<temperatureStats>{} : m_visible.back()) {
    QAction* item = menu->addAction(QString::fromStdString(sensor.name));
    item->setCheckable(true);
    const bool on = std::find(drawn.begin(), drawn.end(), sensor.name) != drawn.end();
    item->setChecked(on);
    // Every line taken: another sensor waits until one is taken out. The last line is never emptied.
    item->setEnabled(on ? lines > 1 : lines < kTemperatureRoles);
    connect(item, &QAction::toggled, this, [this, name = sensor.name](bool checked) {
      setSensorChoice(toggled(name, checked));
    });
  }
  menu->addSeparator();
  QAction* defaults = menu->addAction(tr("Default Sensors"));
  defaults->setCheckable(true);
  defaults->setChecked(m_choice.empty());
  connect(defaults, &QAction::triggered, this, [this] { setSensorChoice({}); });
  return menu;
}

void GraphViewTemperature::contextMenuEvent(QContextMenuEvent* event) {
  QMenu* menu = makeSensorMenu(this);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  menu->popup(event->globalPos());
}

QString GraphViewTemperature::scaleText() const {
  return m_columns.scale_C > 0 ? number(m_columns.scale_C, 0) + " \u00b0C" : QString();
}

void GraphViewTemperature::updateLegend() {
  const QStringList roles{tr("Processor:"), tr("GPU:"), tr("Disk:")};
  QStringList labels;
  // The default lines are named by their role; chosen ones by their sensor.
  for (size_t line = 0; line < kTemperatureRoles; ++line)
    labels << (m_choice.empty() || m_columns.names[line].empty() ? roles[static_cast<qsizetype>(line)]
                                                                 : QString::fromStdString(m_columns.names[line]) + ":");
  setUpLegend(tr("Temperature (\u00b0C)"), labels);
}

void GraphViewTemperature::drawGraph(QPainter& painter) {
  const auto& c = m_columns.columns;
  for (size_t role = 0; role < kTemperatureRoles; ++role) {
    if (!m_columns.present(static_cast<TemperatureRole>(role))) continue;
    plot(painter, role, c.size(), role == 0, 0.75, [&](size_t i) { return c[i].value[role]; });
    drawCriticalMark(painter, role);
  }
}

void GraphViewTemperature::drawCriticalMark(QPainter& painter, size_t role) {
  const double crit = m_columns.crit_C[role];
  if (crit <= 0.0 || m_columns.scale_C <= 0.0) return;
  const double y = height() - (height() - 1) * crit / m_columns.scale_C;
  const auto& colors = GraphPalette::colors(GraphClass::temp);
  QPen pen(toQColor(role < colors.size() ? colors[role] : system_colors::gray), 1.0, Qt::DashLine);
  painter.setPen(pen);
  painter.drawLine(QPointF(0, y), QPointF(width(), y));
}

QString GraphViewTemperature::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  QString text;
  for (size_t role = 0; role < kTemperatureRoles; ++role) {
    if (!m_columns.present(static_cast<TemperatureRole>(role))) continue;
    // The live icon's label already says which sensor: its caption is the figure alone.
    if (displayDock()) {
      text += "\n" + number(m_columns.newest_C[role], 1) + " \u00b0C";
      continue;
    }
    text += "\n" + QString::fromStdString(m_columns.names[role]) + ": " + number(m_columns.newest_C[role], 1) +
            " \u00b0C";
    if (m_columns.crit_C[role] > 0) text += " (" + tr("critical") + " " + number(m_columns.crit_C[role], 0) + ")";
  }
  return text;
}

}  // namespace pelmora
