#include "support/logger.h"

#include <algorithm>
#include <ctime>

#include "support/paths.h"

namespace pelmora {

Logger& Logger::shared() {
  static Logger* logger = new Logger();  // never destroyed: threads may log during exit
  return *logger;
}

void Logger::openLocked() {
  if (m_open_tried) return;
  m_open_tried = true;
  if (m_path.empty()) m_path = paths::stateDir() / "pelmora.log";
  std::error_code ec;
  std::filesystem::create_directories(m_path.parent_path(), ec);
  // "e": close-on-exec, so that the tools we start never hold (or write to) our log.
  m_file = std::fopen(m_path.c_str(), "ae");
  if (!m_file) m_path.clear();
}

void Logger::log(std::string_view line) {
  MutexLock lock(m_mutex);
  if (m_capturing) {
    m_captured.emplace_back(line);
    return;
  }
  char stamp[32];
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
  openLocked();
  FILE* out = m_file ? m_file : stderr;
  std::fprintf(out, "%s %.*s\n", stamp, static_cast<int>(line.size()), line.data());
  std::fflush(out);
  if (m_echo && m_file) std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

std::filesystem::path Logger::path() {
  MutexLock lock(m_mutex);
  openLocked();
  return m_path;
}

void Logger::close() {
  MutexLock lock(m_mutex);
  if (m_file) std::fclose(m_file);
  m_file = nullptr;
  m_open_tried = false;
}

void Logger::setEcho(bool echo) {
  MutexLock lock(m_mutex);
  m_echo = echo;
}

void Logger::setPath(const std::filesystem::path& path) {
  MutexLock lock(m_mutex);
  if (m_file) std::fclose(m_file);
  m_file = nullptr;
  m_open_tried = false;
  m_path = path;
}

void Logger::startCapture() {
  MutexLock lock(m_mutex);
  m_capturing = true;
  m_captured.clear();
}

std::vector<std::string> Logger::captured() { return lockedCopy(m_mutex, m_captured); }

void Logger::stopCapture() {
  MutexLock lock(m_mutex);
  m_capturing = false;
  m_captured.clear();
}

void Log(std::string_view line) { Logger::shared().log(line); }

bool LogCapture::contains(std::string_view line) {
  auto all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}

}  // namespace pelmora
