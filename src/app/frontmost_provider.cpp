#include "app/frontmost_provider.h"

#include "support/logger.h"
#include "support/pid.h"

#ifdef PELMORA_HAVE_XCB
#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>
#endif

namespace pelmora {

#ifdef PELMORA_HAVE_XCB

struct FrontmostProvider::X11 {
  xcb_connection_t* connection = nullptr;
  xcb_ewmh_connection_t ewmh{};
  int screen = 0;
  bool atoms = false;

  ~X11() {
    if (atoms) xcb_ewmh_connection_wipe(&ewmh);
    if (connection) xcb_disconnect(connection);
  }

  bool open() {
    connection = xcb_connect(nullptr, &screen);
    if (xcb_connection_has_error(connection)) return false;
    atoms = xcb_ewmh_init_atoms_replies(&ewmh, xcb_ewmh_init_atoms(connection, &ewmh), nullptr) != 0;
    return atoms;
  }

  std::optional<int32_t> frontmostPid() {
    xcb_window_t window = XCB_NONE;
    if (!xcb_ewmh_get_active_window_reply(&ewmh, xcb_ewmh_get_active_window(&ewmh, screen), &window, nullptr) ||
        window == XCB_NONE)
      return std::nullopt;
    uint32_t pid = 0;
    if (!xcb_ewmh_get_wm_pid_reply(&ewmh, xcb_ewmh_get_wm_pid(&ewmh, window), &pid, nullptr) || pid == 0 ||
        pid > INT32_MAX)
      return std::nullopt;
    return static_cast<int32_t>(pid);
  }
};

std::shared_ptr<FrontmostProvider> FrontmostProvider::create(bool on_x11) {
  std::shared_ptr<FrontmostProvider> provider(new FrontmostProvider);
  if (!on_x11) return provider;
  auto x11 = std::make_unique<X11>();
  if (x11->open())
    provider->m_x11 = std::move(x11);
  else
    Log("Frontmost window unknown: no X11 window manager information.");
  return provider;
}

std::optional<int32_t> FrontmostProvider::frontmostPid() {
  return m_x11 ? m_x11->frontmostPid() : std::nullopt;
}

#else

struct FrontmostProvider::X11 {};

std::shared_ptr<FrontmostProvider> FrontmostProvider::create(bool) {
  return std::shared_ptr<FrontmostProvider>(new FrontmostProvider);
}

std::optional<int32_t> FrontmostProvider::frontmostPid() { return std::nullopt; }

#endif

FrontmostProvider::~FrontmostProvider() = default;

bool FrontmostProvider::connected() const { return m_x11 != nullptr; }

void FrontmostProvider::install(const std::shared_ptr<FrontmostProvider>& provider) {
  if (!provider) {
    PID::setFrontmostProvider(nullptr);
    return;
  }
  // Held weakly: once the application drops it, the limiter sees "unknown".
  std::weak_ptr<FrontmostProvider> weak = provider;
  PID::setFrontmostProvider([weak]() -> std::optional<int32_t> {
    auto strong = weak.lock();
    return strong ? strong->frontmostPid() : std::nullopt;
  });
}

}  // namespace pelmora
