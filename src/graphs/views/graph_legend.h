#pragma once
// The legend of a graph: its title and up to four series, each a label with a colour button beside
// it. A new colour is handed to the graph's closure with the series index (-1 when the sender is
// none of the four buttons), which stores and saves it.
#include <QColor>
#include <QStringList>
#include <QWidget>

#include <array>
#include <functional>

class QLabel;
class QPushButton;

namespace pelmora {

class GraphLegend : public QWidget {
  Q_OBJECT
 public:
  using Closure = std::function<void(int index, const QColor& color)>;
  static constexpr int kRows = 4;

  explicit GraphLegend(QWidget* parent = nullptr);

  // Shows min(labels, 4) rows; the rest are hidden.
  void setUp(const QString& title, const QStringList& labels, const QList<QColor>& colors, Closure closure);

  // The colour buttons' action. Public so the closure can be driven without the colour dialog.
  void colorChanged(QObject* sender, const QColor& color);

  QString title() const;
  QLabel* label(int row) const { return m_labels[static_cast<size_t>(row)]; }
  QPushButton* colorButton(int row) const { return m_colors[static_cast<size_t>(row)]; }
  QColor color(int row) const;

 private:
  void chooseColor(QPushButton* well);
  static void paintWell(QPushButton* well, const QColor& color);

  QLabel* m_title;
  std::array<QLabel*, kRows> m_labels{};
  std::array<QPushButton*, kRows> m_colors{};
  Closure m_closure;
};

}  // namespace pelmora
