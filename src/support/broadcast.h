#pragma once
// Named broadcasts between subsystems. Listeners register under a key of their own so the same
// object can re-register or leave without holding a token. Asynchronous broadcasts are delivered on
// the main thread (MainQueue); synchronous ones run the listeners on the caller's thread.
#include <functional>
#include <string>

namespace pelmora {

using BroadcastHandler = std::function<void(const std::string& name)>;

void Broadcast(const std::string& name, bool async = true);
// Registering an existing (name, key) pair replaces its handler.
void AddListener(const std::string& name, const std::string& key, BroadcastHandler handler);
void RemoveListener(const std::string& name, const std::string& key);

}  // namespace pelmora
