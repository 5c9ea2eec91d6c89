#pragma once
// The columns of the temperature and battery graphs. Temperatures are drawn against a fixed scale in
// °C (the next ten degrees above the hottest visible value and every known critical limit), so a
// critical mark always lies inside the view; the charge against 0...100 %, its rate against the peak
// rate of the visible columns. Pure functions.
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "sampling/sample_records.h"

namespace pelmora {

// The temperature graph's lines, in the order the sensors are chosen by default; a user's own choice
// of sensors fills them in its own order.
enum class TemperatureRole : size_t { processor = 0, gpu = 1, disk = 2 };
inline constexpr size_t kTemperatureRoles = 3;

struct temperature_column {
  std::array<double, kTemperatureRoles> value{};  // fractions of the scale; 0 where the role had no sensor
  bool operator==(const temperature_column&) const = default;
};

struct TemperatureColumns {
  std::vector<temperature_column> columns;
  double scale_C = 0.0;  // the top of the view; 0 when there is nothing to draw
  // Of the newest sample, per role: the chosen sensor's name ("" where the machine has none), its
  // temperature and its critical limit (0 where the driver publishes none).
  std::array<std::string, kTemperatureRoles> names;
  std::array<double, kTemperatureRoles> newest_C{};
  std::array<double, kTemperatureRoles> crit_C{};
  bool present(TemperatureRole role) const { return !names[static_cast<size_t>(role)].empty(); }
};

// The role a sensor of this kind plays, or none ("other" sensors are not drawn by default).
std::optional<TemperatureRole> temperatureRole(const std::string& kind);
// The sensor drawn in each line of one sample. With no choice (or none of the chosen sensors in the
// sample), the default: processor package, hottest GPU, hottest disk, each in its role's line so that
// a line keeps its colour. A user's choice of sensor names fills the lines in the order chosen, any
// kind allowed; names beyond the third are left out, and a sensor the sample lacks leaves its line empty.
std::array<const temperatureStats*, kTemperatureRoles> chosenSensors(const std::vector<temperatureStats>& sensors,
                                                                      const std::vector<std::string>& choice);
TemperatureColumns temperatureColumns(const std::vector<std::vector<temperatureStats>>& history, double width,
                                      const std::vector<std::string>& choice = {});

struct battery_column {
  double charge = 0.0;  // fraction of a full battery
  double rate = 0.0;    // fraction of the peak rate
  bool operator==(const battery_column&) const = default;
};

struct BatteryColumns {
  std::vector<battery_column> columns;
  double peak_rate_w = 0.0;
};

// One battery's history; empty when there is none.
BatteryColumns batteryColumns(const std::vector<batteryStats>& history, double width);

}  // namespace pelmora
