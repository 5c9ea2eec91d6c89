#include "graphs/views/graph_popover.h"

#include <QGuiApplication>
#include <QLabel>
#include <QScreen>
#include <QVBoxLayout>

namespace pelmora {

GraphPopover::GraphPopover(const QString& title, QWidget* content, QWidget* parent)
    : QFrame(parent, Qt::Popup), m_title(new QLabel(title, this)), m_content(content) {
  setFrameShape(QFrame::StyledPanel);
  setAttribute(Qt::WA_DeleteOnClose, false);  // the owner decides when it goes
  QFont bold = m_title->font();
  bold.setBold(true);
  m_title->setFont(bold);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(8, 6, 8, 8);
  layout->addWidget(m_title);
  layout->addWidget(m_content);
}

QString GraphPopover::title() const { return m_title->text(); }

void GraphPopover::showNextTo(QWidget* view) {
  adjustSize();
  QPoint at = view->mapToGlobal(QPoint(0, view->height()));
  if (const QScreen* screen = view->screen()) {
    const QRect room = screen->availableGeometry();
    if (at.y() + height() > room.bottom()) at.setY(view->mapToGlobal(QPoint(0, 0)).y() - height());
    at.setX(std::clamp(at.x(), room.left(), std::max(room.left(), room.right() - width())));
  }
  move(at);
  show();
}

void GraphPopover::hideEvent(QHideEvent* event) {
  QFrame::hideEvent(event);
  emit closed(this);
}

}  // namespace pelmora
