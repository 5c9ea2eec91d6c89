#include "app/application_list.h"

#include <QDesktopServices>
#include <QUrl>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#ifdef PELMORA_HAVE_XCB
#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>
#endif
#ifdef PELMORA_HAVE_SYSTEMD
#include <systemd/sd-bus.h>
#endif

#include "support/logger.h"

namespace pelmora {
namespace {

// Launchers and shells that start the real program: a process running one of these is not the
// application the entry names.
const std::set<std::string>& launcherNames() {
  static const std::set<std::string> names = {"env",   "sh",      "bash",        "dash",     "flatpak", "snap",
                                              "gio",   "xdg-open", "gtk-launch", "pkexec",   "sudo",    "python3",
                                              "python", "perl",    "java"};
  return names;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

// The words of an Exec value; a double-quoted word may hold spaces.
std::vector<std::string> execWords(std::string_view exec) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < exec.size()) {
    while (i < exec.size() && exec[i] == ' ') ++i;
    if (i >= exec.size()) break;
    std::string word;
    if (exec[i] == '"') {
      const size_t end = exec.find('"', i + 1);
      word = std::string(exec.substr(i + 1, end == std::string_view::npos ? std::string_view::npos : end - i - 1));
      i = end == std::string_view::npos ? exec.size() : end + 1;
    } else {
      const size_t end = exec.find(' ', i);
      word = std::string(exec.substr(i, end == std::string_view::npos ? std::string_view::npos : end - i));
      i = end == std::string_view::npos ? exec.size() : end;
    }
    words.push_back(std::move(word));
  }
  return words;
}

// The program of an Exec value: its first word, after "env" and its assignments.
std::optional<std::string> programOfExec(std::string_view exec) {
  bool after_env = false;
  for (const std::string& word : execWords(exec)) {
    if (word == "env") {
      after_env = true;
      continue;
    }
    if (after_env && word.find('=') != std::string::npos) continue;
    const std::string base = std::filesystem::path(word).filename().string();
    if (base.empty() || launcherNames().count(base)) return std::nullopt;
    return base;
  }
  return std::nullopt;
}

std::vector<std::filesystem::path> applicationFolders() {
  std::vector<std::filesystem::path> folders;
  const char* home = std::getenv("HOME");
  const char* data_home = std::getenv("XDG_DATA_HOME");
  if (data_home && *data_home)
    folders.emplace_back(data_home);
  else if (home)
    folders.emplace_back(std::filesystem::path(home) / ".local/share");
  const char* dirs = std::getenv("XDG_DATA_DIRS");
  std::istringstream list(dirs && *dirs ? dirs : "/usr/local/share:/usr/share");
  for (std::string dir; std::getline(list, dir, ':');)
    if (!dir.empty()) folders.emplace_back(dir);
  for (auto& folder : folders) folder /= "applications";
  return folders;
}

#ifdef PELMORA_HAVE_XCB
// One connection to the X server with the window manager's atoms; unusable without a display.
class Ewmh {
 public:
  Ewmh() {
    if (!std::getenv("DISPLAY")) return;
    m_conn = xcb_connect(nullptr, &m_screen);
    if (!m_conn || xcb_connection_has_error(m_conn)) return;
    xcb_intern_atom_cookie_t* cookies = xcb_ewmh_init_atoms(m_conn, &m_ewmh);
    m_ok = cookies && xcb_ewmh_init_atoms_replies(&m_ewmh, cookies, nullptr);
  }
  ~Ewmh() {
    if (m_ok) xcb_ewmh_connection_wipe(&m_ewmh);
    if (m_conn) xcb_disconnect(m_conn);
  }
  Ewmh(const Ewmh&) = delete;
  Ewmh& operator=(const Ewmh&) = delete;

  bool ok() const { return m_ok; }

  // (window, pid) of every managed top-level window that names its process.
  std::vector<std::pair<xcb_window_t, int32_t>> clients() {
    std::vector<std::pair<xcb_window_t, int32_t>> out;
    xcb_ewmh_get_windows_reply_t list;
    if (!xcb_ewmh_get_client_list_reply(&m_ewmh, xcb_ewmh_get_client_list(&m_ewmh, m_screen), &list, nullptr))
      return out;
    std::vector<xcb_get_property_cookie_t> cookies;
    for (uint32_t i = 0; i < list.windows_len; ++i) cookies.push_back(xcb_ewmh_get_wm_pid(&m_ewmh, list.windows[i]));
    for (uint32_t i = 0; i < list.windows_len; ++i) {
      uint32_t pid = 0;
      if (xcb_ewmh_get_wm_pid_reply(&m_ewmh, cookies[i], &pid, nullptr) && pid > 0)
        out.emplace_back(list.windows[i], static_cast<int32_t>(pid));
    }
    xcb_ewmh_get_windows_reply_wipe(&list);
    return out;
  }

  void activate(xcb_window_t window) {
    // Source 2 (a pager): window managers honour it without focus-stealing prevention.
    xcb_ewmh_request_change_active_window(&m_ewmh, m_screen, window, XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER,
                                          XCB_CURRENT_TIME, XCB_NONE);
    xcb_flush(m_conn);
  }

 private:
  xcb_connection_t* m_conn = nullptr;
  xcb_ewmh_connection_t m_ewmh{};
  int m_screen = 0;
  bool m_ok = false;
};
#endif

}  // namespace

std::optional<std::string> desktopEntryProgram(std::string_view text) {
  bool in_entry = false;
  std::optional<std::string> program;
  bool application = false;
  std::istringstream lines{std::string(text)};
  for (std::string raw; std::getline(lines, raw);) {
    const std::string_view line = trim(raw);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      in_entry = line == "[Desktop Entry]";
      continue;
    }
    if (!in_entry) continue;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view key = trim(line.substr(0, eq));
    const std::string_view value = trim(line.substr(eq + 1));
    if (key == "Type") application = value == "Application";
    if ((key == "Hidden" || key == "NoDisplay") && value == "true") return std::nullopt;
    if (key == "Exec") program = programOfExec(value);
  }
  return application ? program : std::nullopt;
}

ApplicationList::ApplicationList() {
  for (const auto& folder : applicationFolders()) {
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(folder, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (it->path().extension() != ".desktop") continue;
      std::ifstream in(it->path());
      std::stringstream text;
      text << in.rdbuf();
      if (auto program = desktopEntryProgram(text.str())) m_programs.insert(*program);
    }
  }
}

ApplicationList::ApplicationList(std::set<std::string> programs) : m_programs(std::move(programs)) {}

std::set<int32_t> ApplicationList::applicationPids(
    const std::vector<std::pair<int32_t, std::string>>& candidates) const {
  std::set<int32_t> pids = windowPids();
  for (const auto& [pid, name] : candidates)
    if (m_programs.count(name)) pids.insert(pid);
  return pids;
}

std::set<int32_t> ApplicationList::windowPids() {
  std::set<int32_t> pids;
#ifdef PELMORA_HAVE_XCB
  Ewmh ewmh;
  if (ewmh.ok())
    for (const auto& [window, pid] : ewmh.clients()) pids.insert(pid);
#endif
  return pids;
}

bool ApplicationList::bringToFront(int32_t pid) {
#ifdef PELMORA_HAVE_XCB
  Ewmh ewmh;
  if (!ewmh.ok()) return false;
  for (const auto& [window, owner] : ewmh.clients()) {
    if (owner != pid) continue;
    ewmh.activate(window);
    return true;
  }
#else
  (void)pid;
#endif
  return false;
}

void ApplicationList::showInFileManager(const std::string& path) {
  const QUrl url = QUrl::fromLocalFile(QString::fromStdString(path));
#ifdef PELMORA_HAVE_SYSTEMD
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) >= 0) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const std::string uri = url.toString(QUrl::FullyEncoded).toStdString();
    const int r = sd_bus_call_method(bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                                     "org.freedesktop.FileManager1", "ShowItems", &error, nullptr, "ass", 1,
                                     uri.c_str(), "");
    sd_bus_error_free(&error);
    sd_bus_unref(bus);
    if (r >= 0) return;
  }
#endif
  // No file manager service: open the folder with the desktop's default handler (xdg-open).
  const QString folder = QString::fromStdString(std::filesystem::path(path).parent_path().string());
  if (!QDesktopServices::openUrl(QUrl::fromLocalFile(folder))) Log("Could not open the folder " + folder.toStdString() + ".");
}

}  // namespace pelmora
