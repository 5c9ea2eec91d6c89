#pragma once
// The user's settings: one JSON object in $XDG_CONFIG_HOME/pelmora/defaults.json.
// Every read names its default, and a value of the wrong type reads as that default. Every save
// rewrites the file atomically (temp file, fsync, rename) so a crash never leaves half a file; a file
// that does not parse is moved aside to defaults.json.corrupt and the program starts from defaults.
// Safe from several threads.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "support/mutex.h"

namespace pelmora {

class DefaultSettings {
 public:
  // The store at paths::configDir()/defaults.json, loaded on first use.
  static DefaultSettings& shared();
  // A store on its own file (tests, tools).
  explicit DefaultSettings(std::filesystem::path file);

  bool loadBool(const std::string& key, bool def);
  int64_t loadInt(const std::string& key, int64_t def);
  double loadDouble(const std::string& key, double def);
  std::string loadString(const std::string& key, const std::string& def);
  // A dictionary (JSON object); def when missing or not an object.
  nlohmann::json loadDict(const std::string& key, const nlohmann::json& def = nlohmann::json::object());
  // Any stored value, unchecked; none when missing.
  std::optional<nlohmann::json> loadValue(const std::string& key);
  bool contains(const std::string& key);

  void saveBool(const std::string& key, bool value);
  void saveInt(const std::string& key, int64_t value);
  void saveDouble(const std::string& key, double value);
  void saveString(const std::string& key, const std::string& value);
  void saveDict(const std::string& key, const nlohmann::json& value);
  void remove(const std::string& key);

  const std::filesystem::path& file() const { return m_file; }
  // Re-reads the file (tests; another process changed it).
  void reload();

 private:
  void ensureLoadedLocked();
  void storeLocked(const std::string& key, nlohmann::json value);
  void writeLocked();

  Mutex m_mutex;
  std::filesystem::path m_file;
  nlohmann::json m_values = nlohmann::json::object();
  bool m_loaded = false;
};

// Parses the settings text; none when it is not a JSON object. Pure, for tests and the loader.
std::optional<nlohmann::json> parseSettingsText(const std::string& text);

}  // namespace pelmora
