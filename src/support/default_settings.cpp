#include "support/default_settings.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "support/logger.h"
#include "support/paths.h"

namespace pelmora {
namespace {

bool writeAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Walks the text before any tree is built, refusing it past max_depth: a valid file nested a
// million deep would otherwise cost gigabytes, and writing it back out recurses once per level.
class DepthCheck : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit DepthCheck(int max_depth) : m_max(max_depth) {}
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return ++m_depth <= m_max; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return --m_depth, true; }
  bool start_array(std::size_t) override { return ++m_depth <= m_max; }
  bool end_array() override { return --m_depth, true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

 private:
  const int m_max;
  int m_depth = 0;
};

}  // namespace

std::optional<nlohmann::json> parseSettingsText(const std::string& text, int max_depth) {
  DepthCheck check(max_depth);
  if (!nlohmann::json::sax_parse(text, &check, nlohmann::json::input_format_t::json, /*strict=*/true)) {
    return std::nullopt;
  }
  auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded() || !value.is_object()) return std::nullopt;
  return value;
}

DefaultSettings& DefaultSettings::shared() {
  static DefaultSettings* settings = new DefaultSettings(paths::configDir() / "defaults.json");
  return *settings;
}

DefaultSettings::DefaultSettings(std::filesystem::path file) : m_file(std::move(file)) {}

void DefaultSettings::ensureLoadedLocked() {
  if (m_loaded) return;
  m_loaded = true;
  m_read_only = false;
  m_values = nlohmann::json::object();
  if (m_file.empty()) return;
  std::ifstream in(m_file, std::ios::binary);
  if (!in) return;  // no file yet: defaults
  std::error_code ec;
  const auto size = std::filesystem::file_size(m_file, ec);
  if (!ec && size > kMaxFileBytes) {
    setAsideLocked("is larger than " + std::to_string(kMaxFileBytes) + " bytes");
    return;
  }
  std::stringstream buffer;
  buffer << in.rdbuf();
  if (auto parsed = parseSettingsText(buffer.str())) {
    m_values = std::move(*parsed);
    return;
  }
  setAsideLocked("is not valid");
}

void DefaultSettings::setAsideLocked(const std::string& why) {
  std::filesystem::path aside = m_file;
  aside += ".corrupt";
  std::error_code ec;
  std::filesystem::rename(m_file, aside, ec);
  if (!ec) {
    Log("Settings file " + m_file.string() + " " + why + "; moved aside to " + aside.string() +
        " and starting from defaults.");
    return;
  }
  // Writing our settings over it would destroy the only copy: leave it for the user.
  m_read_only = true;
  Log("Settings file " + m_file.string() + " " + why + " and could not be moved aside to " + aside.string() +
      " (" + ec.message() + "); starting from defaults, and settings are not saved in this run.");
}

DefaultSettings::Batch::Batch(DefaultSettings& settings) : m_settings(settings) {
  MutexLock lock(m_settings.m_mutex);
  ++m_settings.m_batches;
}

DefaultSettings::Batch::~Batch() {
  MutexLock lock(m_settings.m_mutex);
  if (--m_settings.m_batches == 0 && m_settings.m_dirty) m_settings.writeLocked();
}

void DefaultSettings::reload() {
  MutexLock lock(m_mutex);
  m_loaded = false;
  ensureLoadedLocked();
}

std::optional<nlohmann::json> DefaultSettings::loadValue(const std::string& key) {
  MutexLock lock(m_mutex);
  ensureLoadedLocked();
  auto it = m_values.find(key);
  if (it == m_values.end()) return std::nullopt;
  return *it;
}

bool DefaultSettings::contains(const std::string& key) { return loadValue(key).has_value(); }

bool DefaultSettings::loadBool(const std::string& key, bool def) {
  auto v = loadValue(key);
  if (v && v->is_boolean()) return v->get<bool>();
  if (v && v->is_number_integer()) return v->get<int64_t>() != 0;
  return def;
}

int64_t DefaultSettings::loadInt(const std::string& key, int64_t def) {
  auto v = loadValue(key);
  if (v && v->is_number_integer()) return v->get<int64_t>();
  if (v && v->is_number_float()) {
    const double d = v->get<double>();
    if (d >= -9.2e18 && d <= 9.2e18) return static_cast<int64_t>(d);
  }
  return def;
}

double DefaultSettings::loadDouble(const std::string& key, double def) {
  auto v = loadValue(key);
  if (v && v->is_number()) return v->get<double>();
  return def;
}

std::string DefaultSettings::loadString(const std::string& key, const std::string& def) {
  auto v = loadValue(key);
  if (v && v->is_string()) return v->get<std::string>();
  return def;
}

nlohmann::json DefaultSettings::loadDict(const std::string& key, const nlohmann::json& def) {
  auto v = loadValue(key);
  if (v && v->is_object()) return *v;
  return def;
}

void DefaultSettings::storeLocked(const std::string& key, nlohmann::json value) {
  ensureLoadedLocked();
  auto it = m_values.find(key);
  if (it != m_values.end() && *it == value) return;  // nothing changed: no write
  m_values[key] = std::move(value);
  writeLocked();
}

void DefaultSettings::saveBool(const std::string& key, bool value) {
  MutexLock lock(m_mutex);
  storeLocked(key, value);
}
void DefaultSettings::saveInt(const std::string& key, int64_t value) {
  MutexLock lock(m_mutex);
  storeLocked(key, value);
}
void DefaultSettings::saveDouble(const std::string& key, double value) {
  MutexLock lock(m_mutex);
  storeLocked(key, value);
}
void DefaultSettings::saveString(const std::string& key, const std::string& value) {
  MutexLock lock(m_mutex);
  storeLocked(key, value);
}
void DefaultSettings::saveDict(const std::string& key, const nlohmann::json& value) {
  MutexLock lock(m_mutex);
  storeLocked(key, value);
}

void DefaultSettings::remove(const std::string& key) {
  MutexLock lock(m_mutex);
  ensureLoadedLocked();
  if (m_values.erase(key) > 0) writeLocked();
}

void DefaultSettings::logWriteFailureLocked(const std::string& line) {
  // The same failure at every save (a full disk, a read-only folder) is said once.
  if (line == m_last_write_error) return;
  m_last_write_error = line;
  Log(line);
}

void DefaultSettings::writeLocked() {
  if (m_read_only || m_file.empty()) return;
  if (m_batches > 0) {
    m_dirty = true;
    return;
  }
  m_dirty = false;
  std::error_code ec;
  std::filesystem::create_directories(m_file.parent_path(), ec);
  std::filesystem::path temp = m_file;
  temp += ".tmp";
  const std::string text = m_values.dump(2) + "\n";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    logWriteFailureLocked("Could not write settings to " + temp.string() + ": " + std::strerror(errno) + ".");
    return;
  }
  const bool ok = writeAll(fd, text) && ::fsync(fd) == 0;
  ::close(fd);
  if (!ok || ::rename(temp.c_str(), m_file.c_str()) != 0) {
    logWriteFailureLocked("Could not write settings to " + m_file.string() + ": " + std::strerror(errno) + ".");
    ::unlink(temp.c_str());
    return;
  }
  m_last_write_error.clear();
}

}  // namespace pelmora
