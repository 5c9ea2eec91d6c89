#pragma once
// A graph of any kind (graph_kind.h): the kind says what is drawn and written, the view keeps the
// model of the newest history and draws it. Every kind without behaviour of its own is this view
// under its own name at the end; the temperature graph adds its sensor menu (graph_view_temperature.h).
// Not a QObject of its own: find these views with dynamic_cast. Main thread only.
#include <QPainter>

#include <type_traits>
#include <utility>

#include "graphs/views/graph_kind.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

template <const auto& kKind, typename Kind = std::remove_cvref_t<decltype(kKind)>>
class KindGraphView;

template <const auto& kKind, typename M, typename... Inputs>
class KindGraphView<kKind, GraphKind<M, Inputs...>> : public GraphView {
 public:
  using Model = M;

  explicit KindGraphView(QWidget* parent = nullptr) : GraphView(kKind.graph, parent) { setDevice({}); }

  using QWidget::update;
  // The kind's inputs (graph_kind.h): the history, oldest first, and what else the kind needs.
  void update(Inputs... inputs) { setModel(kKind.model(width(), inputs...)); }
  const Model& model() const { return m_model; }
  // The disk or interface drawn (empty: all of them), for the right click's tool.
  void setDevice(const QString& device) {
    if (kKind.details) setDetails(kKind.details(device));
  }

 protected:
  void setModel(Model model) {
    m_model = std::move(model);
    redraw();
  }

  void updateLegend() override {
    QStringList labels;
    for (const auto& series : kKind.series) labels << tr(series.label);
    setUpLegend(tr(kKind.title), labels);
  }

  void drawGraph(QPainter& painter) override {
    for (size_t k = 0; k < kKind.series.size(); ++k) drawSeries(painter, k);
  }
  // Series k in its colour, where the kind draws it now.
  void drawSeries(QPainter& painter, size_t k) {
    const auto& series = kKind.series[k];
    const auto& columns = m_model.columns;
    if (series.drawn && !series.drawn(m_model)) return;
    plot(painter, k, columns.size(), series.fill_factor > 0.0, series.fill_factor,
         [&](size_t i) { return series.value(columns[i]); });
  }

  QString currentText() const override {
    return GraphSwitches::current().show_current ? kKind.current(m_model, displayDock()) : QString();
  }
  QString scaleText() const override { return kKind.scale(m_model); }

 private:
  Model m_model;
};

using GraphViewCPU = KindGraphView<kCpuGraph>;
using GraphViewMEM = KindGraphView<kMemGraph>;
using GraphViewIO = KindGraphView<kIoGraph>;
using GraphViewNet = KindGraphView<kNetGraph>;
using GraphViewLoad = KindGraphView<kLoadGraph>;
using GraphViewProc = KindGraphView<kProcGraph>;
using GraphViewPower = KindGraphView<kPowerGraph>;
using GraphViewFan = KindGraphView<kFanGraph>;
using GraphViewGFX = KindGraphView<kGfxGraph>;
using GraphViewBattery = KindGraphView<kBatteryGraph>;

}  // namespace pelmora
