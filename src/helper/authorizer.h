#pragma once
// Decides whether a caller may be treated as an administrator for its connection: uid 0 always;
// anyone else after polkit grants the action "net.tandrel.pelmora.admin" for the calling process
// (the user may be asked for a password; the grant is kept for a while, auth_admin_keep). Without
// a system bus only uid 0 is authorised. Runs as root in the daemon.
#include <string>

#include "helper/connection.h"

namespace pelmora {

class Authorizer {
 public:
  virtual ~Authorizer() = default;
  // "OK" or the reason the caller was refused.
  virtual std::string authorize(const CallerIdentity& caller) = 0;
};

inline constexpr const char* kAdminAction = "net.tandrel.pelmora.admin";

// What polkit's CheckAuthorization said: is_authorized, is_challenge (with user interaction allowed,
// a challenge means nobody could ask: no authentication agent serves the caller), and the detail
// "polkit.dismissed" (an agent asked and the user closed the dialog).
struct PolkitAnswer {
  bool authorised = false;
  bool challenge = false;
  bool dismissed = false;
};

// "OK", or the refusal in words the user can act on.
std::string authorizationText(const PolkitAnswer& answer);

class PolkitAuthorizer : public Authorizer {
 public:
  std::string authorize(const CallerIdentity& caller) override;
};

}  // namespace pelmora
