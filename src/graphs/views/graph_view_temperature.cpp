#include "graphs/views/graph_view_temperature.h"

#include <QContextMenuEvent>
#include <QMenu>
#include <QPainter>

#include <algorithm>

#include "graphs/graph_geometry.h"
#include "support/settings_keys.h"

namespace pelmora {

GraphViewTemperature::GraphViewTemperature(QWidget* parent) : KindGraphView(parent) {}

void GraphViewTemperature::update(const std::vector<std::vector<temperatureStats>>& history) {
  const size_t keep = std::min(visibleColumns(width()), history.size());
  m_visible.assign(history.end() - static_cast<std::ptrdiff_t>(keep), history.end());
  recompute();
}

void GraphViewTemperature::recompute() { KindGraphView::update(m_visible, m_choice); }

void GraphViewTemperature::setSensorChoice(const std::vector<std::string>& choice) {
  m_choice = choice;
  keys::kGraphTempSensors.save(settingsStore(), choice);
  recompute();
}

void GraphViewTemperature::showEvent(QShowEvent* event) {
  KindGraphView::showEvent(event);
  m_choice = keys::kGraphTempSensors.load(settingsStore());  // another window may have chosen
  recompute();
}

std::vector<std::string> GraphViewTemperature::toggled(const std::string& sensor, bool on) const {
  std::vector<std::string> lines(columns().names.begin(), columns().names.end());
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
  const auto& drawn = columns().names;
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

// The default lines are named by their role; chosen ones by their sensor.
void GraphViewTemperature::updateLegend() {
  QStringList labels;
  for (size_t line = 0; line < kTemperatureRoles; ++line)
    labels << (m_choice.empty() || columns().names[line].empty() ? tr(kTemperatureGraph.series[line].label)
                                                                 : QString::fromStdString(columns().names[line]) + ":");
  setUpLegend(tr(kTemperatureGraph.title), labels);
}

void GraphViewTemperature::drawGraph(QPainter& painter) {
  // Each line with its own mark, so that the next line is drawn over both.
  for (size_t role = 0; role < kTemperatureRoles; ++role) {
    drawSeries(painter, role);
    if (columns().present(static_cast<TemperatureRole>(role))) drawCriticalMark(painter, role);
  }
}

void GraphViewTemperature::drawCriticalMark(QPainter& painter, size_t role) {
  const double crit = columns().crit_C[role];
  if (crit <= 0.0 || columns().scale_C <= 0.0) return;
  const double y = height() - (height() - 1) * crit / columns().scale_C;
  const auto& colors = GraphPalette::colors(GraphClass::temp);
  QPen pen(toQColor(role < colors.size() ? colors[role] : system_colors::gray), 1.0, Qt::DashLine);
  painter.setPen(pen);
  painter.drawLine(QPointF(0, y), QPointF(width(), y));
}

}  // namespace pelmora
