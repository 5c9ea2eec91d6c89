#include "support/broadcast.h"

#include <map>
#include <vector>

#include "support/main_queue.h"
#include "support/mutex.h"

namespace pelmora {
namespace {

struct Registry {
  Mutex mutex;
  // name -> (key -> handler); ordered so delivery order is stable.
  std::map<std::string, std::map<std::string, BroadcastHandler>> listeners;
};

Registry& registry() {
  static Registry* r = new Registry();
  return *r;
}

void deliver(const std::string& name) {
  std::vector<BroadcastHandler> handlers;
  {
    MutexLock lock(registry().mutex);
    auto it = registry().listeners.find(name);
    if (it == registry().listeners.end()) return;
    for (auto& [key, handler] : it->second) handlers.push_back(handler);
  }
  // Handlers run without the registry lock so they may add or remove listeners.
  for (auto& handler : handlers) handler(name);
}

}  // namespace

void Broadcast(const std::string& name, bool async) {
  if (async)
    MainQueue::post([name] { deliver(name); });
  else
    deliver(name);
}

void AddListener(const std::string& name, const std::string& key, BroadcastHandler handler) {
  MutexLock lock(registry().mutex);
  registry().listeners[name][key] = std::move(handler);
}

void RemoveListener(const std::string& name, const std::string& key) {
  MutexLock lock(registry().mutex);
  auto it = registry().listeners.find(name);
  if (it == registry().listeners.end()) return;
  it->second.erase(key);
  if (it->second.empty()) registry().listeners.erase(it);
}

}  // namespace pelmora
