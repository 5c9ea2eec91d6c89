#include "support/power_assertion.h"

#include "support/text.h"

#ifdef PELMORA_HAVE_SYSTEMD
#include <systemd/sd-bus.h>
#endif

namespace pelmora {

bool PowerAssertion::keepsAwake(std::string_view what, std::string_view mode) {
  if (mode != "block") return false;
  for (auto item : split(what, ':', false))
    if (item == "sleep" || item == "idle") return true;
  return false;
}

#ifdef PELMORA_HAVE_SYSTEMD

namespace {

// Reads the a(ssssuu) array of ListInhibitors: what, who, why, mode, uid, pid.
void readInhibitors(sd_bus_message* reply, std::map<int32_t, bool>& out) {
  if (sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "(ssssuu)") < 0) return;
  const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
  uint32_t uid = 0, pid = 0;
  while (sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0) {
    if (pid == 0 || pid > INT32_MAX) continue;
    if (PowerAssertion::keepsAwake(what ? what : "", mode ? mode : "")) out[static_cast<int32_t>(pid)] = true;
  }
  sd_bus_message_exit_container(reply);
}

}  // namespace

std::map<int32_t, bool> PowerAssertion::assertions() {
  std::map<int32_t, bool> out;
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) return out;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                         "ListInhibitors", &error, &reply, "") >= 0) {
    readInhibitors(reply, out);
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  sd_bus_flush_close_unref(bus);
  return out;
}

#else

std::map<int32_t, bool> PowerAssertion::assertions() { return {}; }

#endif

}  // namespace pelmora
