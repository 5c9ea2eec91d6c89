#pragma once
// The user's settings: one JSON object in $XDG_CONFIG_HOME/pelmora/defaults.json.
// Every read names its default, and a value of the wrong type reads as that default. A save that
// changes something rewrites the file atomically (temp file, fsync, rename) so a crash never leaves
// half a file; saves inside a Batch are written once, when the batch ends. A file that does not
// parse, or that is larger or deeper than any settings this program writes, is moved aside to
// defaults.json.corrupt and the program starts from defaults. Safe from several threads.
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
  // A store on its own file (tests, tools). An empty path: a store in memory only, that never reads
  // or writes a file (command-line runs that must not touch the desktop's settings).
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

  // Bounds of a file worth loading; settings this program writes are far inside them.
  static constexpr size_t kMaxFileBytes = 1 << 20;
  static constexpr int kMaxDepth = 32;

  // While one lives, saves change the values at once but the file only when the last batch ends
  // (many keys saved together, as at quit, cost one write).
  class Batch {
   public:
    explicit Batch(DefaultSettings& settings);
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

   private:
    DefaultSettings& m_settings;
  };

  const std::filesystem::path& file() const { return m_file; }
  // Re-reads the file (tests; another process changed it).
  void reload();

 private:
  void ensureLoadedLocked();
  void storeLocked(const std::string& key, nlohmann::json value);
  void writeLocked();
  void setAsideLocked(const std::string& why);
  void logWriteFailureLocked(const std::string& line);

  Mutex m_mutex;
  std::filesystem::path m_file;
  nlohmann::json m_values = nlohmann::json::object();
  bool m_loaded = false;
  int m_batches = 0;
  bool m_dirty = false;             // changed inside a batch, not written yet
  bool m_read_only = false;         // a bad file could not be set aside: never overwrite it
  std::string m_last_write_error;   // logged once until a write succeeds
};

// Parses the settings text; none when it is not a JSON object or nests deeper than max_depth. Pure,
// for tests and the loader.
std::optional<nlohmann::json> parseSettingsText(const std::string& text, int max_depth = DefaultSettings::kMaxDepth);

}  // namespace pelmora
