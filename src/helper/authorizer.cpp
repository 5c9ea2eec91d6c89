#include "helper/authorizer.h"

#include <cstring>
#include <memory>

#ifdef PELMORA_HAVE_SYSTEMD
#include <systemd/sd-bus.h>
#endif

namespace pelmora {

std::string authorizationText(const PolkitAnswer& answer) {
  if (answer.authorised) return "OK";
  if (answer.challenge) return "not authorised: no authentication agent could ask for the password";
  if (answer.dismissed) return "not authorised: the password was not given";
  return "not authorised: this user may not administer Pelmora";
}

#ifdef PELMORA_HAVE_SYSTEMD
namespace {

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using BusPtr = std::unique_ptr<sd_bus, BusDeleter>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageDeleter>;

// polkit's subject "unix-process": pid, start time in clock ticks since boot (so a recycled pid is
// not mistaken for the caller) and uid.
int appendSubject(sd_bus_message* m, const CallerIdentity& caller) {
  int r = sd_bus_message_open_container(m, 'r', "sa{sv}");
  if (r >= 0) r = sd_bus_message_append(m, "s", "unix-process");
  if (r >= 0) r = sd_bus_message_open_container(m, 'a', "{sv}");
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "pid", "u", static_cast<uint32_t>(caller.pid));
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "start-time", "t", static_cast<uint64_t>(caller.start_ticks));
  if (r >= 0) r = sd_bus_message_append(m, "{sv}", "uid", "i", static_cast<int32_t>(caller.uid));
  if (r >= 0) r = sd_bus_message_close_container(m);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

// The reply (bba{ss}): is_authorized, is_challenge, details.
int readAnswer(sd_bus_message* reply, PolkitAnswer& answer) {
  int authorised = 0, challenge = 0;
  int r = sd_bus_message_enter_container(reply, 'r', "bba{ss}");
  if (r >= 0) r = sd_bus_message_read(reply, "bb", &authorised, &challenge);
  if (r >= 0) r = sd_bus_message_enter_container(reply, 'a', "{ss}");
  const char* key = nullptr;
  const char* value = nullptr;
  while (r >= 0 && (r = sd_bus_message_read(reply, "{ss}", &key, &value)) > 0) {
    if (std::strcmp(key, "polkit.dismissed") == 0 && std::strcmp(value, "true") == 0) answer.dismissed = true;
  }
  answer.authorised = authorised != 0;
  answer.challenge = challenge != 0;
  return r;
}

}  // namespace

std::string PolkitAuthorizer::authorize(const CallerIdentity& caller) {
  if (caller.uid == 0) return "OK";
  sd_bus* raw_bus = nullptr;
  if (sd_bus_open_system(&raw_bus) < 0) return "not authorised: no system bus, only root is an administrator";
  BusPtr bus(raw_bus);
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_call(bus.get(), &raw, "org.freedesktop.PolicyKit1",
                                         "/org/freedesktop/PolicyKit1/Authority",
                                         "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
  MessagePtr call(raw);
  constexpr uint32_t kAllowUserInteraction = 1;
  if (r >= 0) r = appendSubject(call.get(), caller);
  if (r >= 0) r = sd_bus_message_append(call.get(), "sa{ss}us", kAdminAction, 0, kAllowUserInteraction, "");
  if (r < 0) return std::string("not authorised: ") + std::strerror(-r);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* raw_reply = nullptr;
  // The user may be typing a password: allow minutes, not the default 25 s.
  constexpr uint64_t kTimeoutUs = 300ull * 1000 * 1000;
  r = sd_bus_call(bus.get(), call.get(), kTimeoutUs, &error, &raw_reply);
  MessagePtr reply(raw_reply);
  if (r < 0) {
    std::string why = error.message ? error.message : std::strerror(-r);
    sd_bus_error_free(&error);
    return "not authorised: polkit: " + why;
  }
  PolkitAnswer answer;
  if (readAnswer(reply.get(), answer) < 0) return "not authorised: unreadable polkit reply";
  return authorizationText(answer);
}

#else

std::string PolkitAuthorizer::authorize(const CallerIdentity& caller) {
  if (caller.uid == 0) return "OK";
  return "not authorised: built without polkit support, only root is an administrator";
}

#endif

}  // namespace pelmora
