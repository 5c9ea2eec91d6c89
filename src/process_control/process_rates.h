#pragma once
// The per-second rates of one process-table row from its previous refresh. Pure.
#include <cstdint>

#include "process_control/procinfo.h"

namespace pelmora {

// `row` holds the new totals, `old` the row of the previous refresh; `now` is this refresh's time.
// Counters that went backwards (a reused process identifier) give 0, never a negative rate. Nothing
// changes when less than a microsecond has passed. Disk rates are smoothed with a time constant of a
// tenth of the refresh interval.
void updateProcessRates(procinfo& row, const procinfo& old, const Timeval& now, int64_t refresh_interval_ms);
// A row whose previous totals are unknown (first sighting, or kept across passes that read none):
// every rate back to zero, as for a new row.
void clearProcessRates(procinfo& row);

}  // namespace pelmora
