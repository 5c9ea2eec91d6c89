#include "support/power_assertion.h"

#include <fcntl.h>

#include <mutex>

#include "support/logger.h"
#include "support/text.h"
#include "support/unique_fd.h"

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

namespace {

struct OwnAssertion {
  std::mutex mutex;
  std::string name = "Pelmora";
  UniqueFd inhibitor;  // logind keeps the inhibitor while this descriptor is open
};

OwnAssertion& ownAssertion() {
  static OwnAssertion* state = new OwnAssertion();
  return *state;
}

UniqueFd takeSleepDelayInhibitor(const std::string& name);

}  // namespace

void PowerAssertion::setName(const std::string& name) {
  std::lock_guard lock(ownAssertion().mutex);
  ownAssertion().name = name;
}

void PowerAssertion::switchAssertion(bool on) {
  OwnAssertion& state = ownAssertion();
  std::lock_guard lock(state.mutex);
  if (!on) {
    if (!state.inhibitor) return;
    state.inhibitor.reset();
    Log("Power assertion released: the \"" + state.name + "\" sleep inhibitor.");
    return;
  }
  if (state.inhibitor) return;
  state.inhibitor = takeSleepDelayInhibitor(state.name);
  Log(state.inhibitor ? "Power assertion held: the \"" + state.name + "\" sleep inhibitor."
                      : "Power assertion not held: logind gave no \"" + state.name + "\" sleep inhibitor.");
}

bool PowerAssertion::held() {
  std::lock_guard lock(ownAssertion().mutex);
  return ownAssertion().inhibitor.valid();
}

#ifdef PELMORA_HAVE_SYSTEMD

namespace {

UniqueFd takeSleepDelayInhibitor(const std::string& name) {
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) return UniqueFd();
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  UniqueFd out;
  if (sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                         "Inhibit", &error, &reply, "ssss", "sleep", name.c_str(),
                         "Continuing limited processes before sleep", "delay") >= 0) {
    int fd = -1;
    // The descriptor belongs to the reply: keep a duplicate.
    if (sd_bus_message_read(reply, "h", &fd) >= 0 && fd >= 0) out.reset(fcntl(fd, F_DUPFD_CLOEXEC, 3));
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  sd_bus_flush_close_unref(bus);
  return out;
}

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

namespace {
UniqueFd takeSleepDelayInhibitor(const std::string&) { return UniqueFd(); }
}  // namespace

#endif

}  // namespace pelmora
