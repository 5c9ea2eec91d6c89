#include "graphs/views/graph_legend.h"

#include <QColorDialog>
#include <QGridLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>

#include <algorithm>

namespace pelmora {

GraphLegend::GraphLegend(QWidget* parent) : QWidget(parent), m_title(new QLabel(this)) {
  auto* grid = new QGridLayout(this);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->addWidget(m_title, 0, 0, 1, 2);
  for (int row = 0; row < kRows; ++row) {
    auto* label = new QLabel(this);
    auto* well = new QPushButton(this);
    well->setObjectName(QStringLiteral("m_color_%1").arg(row + 1));
    well->setFixedSize(36, 20);
    well->setFlat(false);
    connect(well, &QPushButton::clicked, this, [this, well] { chooseColor(well); });
    grid->addWidget(label, row + 1, 0);
    grid->addWidget(well, row + 1, 1);
    m_labels[static_cast<size_t>(row)] = label;
    m_colors[static_cast<size_t>(row)] = well;
  }
}

void GraphLegend::setUp(const QString& title, const QStringList& labels, const QList<QColor>& colors,
                        Closure closure) {
  m_closure = std::move(closure);
  m_title->setText(title);
  for (int row = 0; row < kRows; ++row) {
    m_labels[static_cast<size_t>(row)]->hide();
    m_colors[static_cast<size_t>(row)]->hide();
  }
  const int rows = std::min<int>(static_cast<int>(labels.size()), kRows);
  for (int row = 0; row < rows; ++row) {
    m_labels[static_cast<size_t>(row)]->setText(labels[row]);
    const QColor color = row < colors.size() ? colors[row].toRgb() : QColor(Qt::gray);
    paintWell(m_colors[static_cast<size_t>(row)], color);
    m_labels[static_cast<size_t>(row)]->show();
    m_colors[static_cast<size_t>(row)]->show();
  }
}

QString GraphLegend::title() const { return m_title->text(); }

QColor GraphLegend::color(int row) const {
  return m_colors[static_cast<size_t>(row)]->property("wellColor").value<QColor>();
}

void GraphLegend::paintWell(QPushButton* well, const QColor& color) {
  well->setProperty("wellColor", color);
  well->setStyleSheet(QStringLiteral("background-color: %1; border: 1px solid palette(mid);")
                          .arg(color.name(QColor::HexArgb)));
}

void GraphLegend::chooseColor(QPushButton* well) {
  // The legend lives in a popup that closes as soon as another window opens, and its owner then
  // deletes popup and legend. So the dialog belongs to the window the graph is in, not to the legend,
  // and it does not run a nested event loop here: the legend may be gone before the user answers.
  QWidget* popup = window();
  QWidget* owner = popup->parentWidget() ? popup->parentWidget()->window() : nullptr;
  auto* dialog = new QColorDialog(well->property("wellColor").value<QColor>(), owner);
  dialog->setOption(QColorDialog::ShowAlphaChannel);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  const int index = static_cast<int>(std::find(m_colors.begin(), m_colors.end(), well) - m_colors.begin());
  QPointer<GraphLegend> self(this);
  connect(dialog, &QColorDialog::colorSelected, dialog, [self, well, index, closure = m_closure](const QColor& chosen) {
    if (self)
      self->colorChanged(well, chosen);  // the well is the legend's child: alive exactly while it is
    else if (closure)
      closure(index < kRows ? index : -1, chosen);
  });
  if (popup != this && popup->windowType() == Qt::Popup) popup->close();
  dialog->open();
}

void GraphLegend::colorChanged(QObject* sender, const QColor& color) {
  int index = -1;
  for (int row = 0; row < kRows; ++row)
    if (sender == m_colors[static_cast<size_t>(row)]) index = row;
  if (index >= 0) paintWell(m_colors[static_cast<size_t>(index)], color);
  if (m_closure) m_closure(index, color);
}

}  // namespace pelmora
