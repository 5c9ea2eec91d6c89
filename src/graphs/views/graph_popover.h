#pragma once
// A small frame that pops up next to a graph view (the legend, "ifconfig", "Volumes") and closes when
// the user clicks elsewhere. Tells its owner when it closes, however that happens.
#include <QFrame>
#include <QString>

class QLabel;

namespace pelmora {

class GraphPopover : public QFrame {
  Q_OBJECT
 public:
  // The popover takes ownership of content.
  GraphPopover(const QString& title, QWidget* content, QWidget* parent = nullptr);
  QWidget* content() const { return m_content; }
  QString title() const;
  // Shows the frame below the view (above it when the screen has no room below).
  void showNextTo(QWidget* view);

 signals:
  void closed(pelmora::GraphPopover* popover);

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  QLabel* m_title;
  QWidget* m_content;
};

}  // namespace pelmora
