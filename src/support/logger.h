#pragma once
// The one shared log: one timestamped line per call, appended to $XDG_STATE_HOME/pelmora/pelmora.log.
// Safe from any thread. Tests capture the lines in memory instead of reading the file.
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "support/mutex.h"

namespace pelmora {

class Logger {
 public:
  static Logger& shared();

  void log(std::string_view line);
  // The log file (opened on first use); empty when logging to stderr only.
  std::filesystem::path path();
  void close();
  // Also copy every line to stderr (the CLI's verbose mode).
  void setEcho(bool echo);
  void setPath(const std::filesystem::path& path);

  // Tests: keep lines in memory (and out of the file) until stopCapture().
  void startCapture();
  std::vector<std::string> captured();
  void stopCapture();

 private:
  Logger() = default;
  void openLocked();

  Mutex m_mutex;
  FILE* m_file = nullptr;
  bool m_open_tried = false;
  bool m_echo = false;
  bool m_capturing = false;
  std::filesystem::path m_path;
  std::vector<std::string> m_captured;
};

// Shorthand for Logger::shared().log(line).
void Log(std::string_view line);

// Tests: captures log lines for the scope of the object.
class LogCapture {
 public:
  LogCapture() { Logger::shared().startCapture(); }
  ~LogCapture() { Logger::shared().stopCapture(); }
  std::vector<std::string> lines() { return Logger::shared().captured(); }
  bool contains(std::string_view line);
};

}  // namespace pelmora
