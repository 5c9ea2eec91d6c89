#include "graphs/views/text_display.h"

#include <QFontDatabase>
#include <QProcess>

namespace pelmora {
namespace {
constexpr int kToolTimeout_ms = 3000;
}

TextDisplay::TextDisplay(const QString& text, QWidget* parent) : QPlainTextEdit(text, parent) {
  setReadOnly(true);
  setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  setLineWrapMode(QPlainTextEdit::NoWrap);
}

QSize TextDisplay::sizeHint() const {
  const QFontMetrics metrics(font());
  int columns = 20;
  const QStringList lines = toPlainText().split('\n');
  for (const auto& line : lines) columns = std::max<int>(columns, static_cast<int>(line.size()));
  const int rows = std::clamp<int>(static_cast<int>(lines.size()), 2, 30);
  return {std::min(metrics.horizontalAdvance('m') * (columns + 2), 900), metrics.lineSpacing() * (rows + 1)};
}

QString TextDisplay::toolOutput(const QString& program, const QStringList& arguments) {
  QProcess process;
  process.start(program, arguments);
  if (!process.waitForStarted(kToolTimeout_ms)) return tr("Cannot run %1.").arg(program);
  if (!process.waitForFinished(kToolTimeout_ms)) {
    process.kill();
    process.waitForFinished();
    return tr("%1 did not answer.").arg(program);
  }
  const QString out = QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
  if (process.exitCode() != 0 && out.isEmpty())
    return QString::fromLocal8Bit(process.readAllStandardError()).trimmed();
  return out;
}

}  // namespace pelmora
