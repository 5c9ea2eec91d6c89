#pragma once
// Which process owns the window in front. On X11 the window manager names the active window in
// _NET_ACTIVE_WINDOW and most clients put their pid in _NET_WM_PID; elsewhere (Wayland, no display,
// a build without xcb-ewmh) the answer is "unknown", which the limiter counts as not frontmost.
// The provider is called on the limiter's timer thread: it keeps its own X connection, and xcb is
// safe to use from several threads.
#include <cstdint>
#include <memory>
#include <optional>

namespace pelmora {

class FrontmostProvider {
 public:
  // Connects to the display named by $DISPLAY when the application runs on X11.
  static std::shared_ptr<FrontmostProvider> create(bool on_x11);
  ~FrontmostProvider();
  FrontmostProvider(const FrontmostProvider&) = delete;
  FrontmostProvider& operator=(const FrontmostProvider&) = delete;

  // The pid of the active window's owner; none when unknown.
  std::optional<int32_t> frontmostPid();
  bool connected() const;

  // Makes this the provider behind PID::isFrontmost (null: back to "unknown").
  static void install(const std::shared_ptr<FrontmostProvider>& provider);

 private:
  FrontmostProvider() = default;
  struct X11;
  std::unique_ptr<X11> m_x11;
};

}  // namespace pelmora
