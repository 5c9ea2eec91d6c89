#pragma once
// A read-only block of monospaced text for the "ifconfig" and "Volumes" popovers, and the tool run
// that fills it.
#include <QPlainTextEdit>
#include <QStringList>

namespace pelmora {

class TextDisplay : public QPlainTextEdit {
  Q_OBJECT
 public:
  explicit TextDisplay(const QString& text, QWidget* parent = nullptr);
  QSize sizeHint() const override;

  // The tool's standard output; on failure a line that says what went wrong.
  static QString toolOutput(const QString& program, const QStringList& arguments);
};

}  // namespace pelmora
