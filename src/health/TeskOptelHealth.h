// The companion app's screen-capture heartbeat, as one doctor row: is the capture
// process alive, is it committing events, can it read window titles, and is the running
// executable the installed one. Reads one small JSON status file; never writes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "health/TeskDoctor.h"

namespace TeskOptelHealth {

// The "optel" row from home + "/.harbend/optel/capture-status.json" at `now` (unix
// seconds). A missing, unreadable or non-object file is ABSENT; a file without a
// parseable heartbeat is STALE. Never throws.
TeskDoctor::Row row(const std::string& home, double now);

// Unix seconds for an ISO 8601 internet date-time with or without fractional seconds;
// nothing for any other text.
std::optional<double> date(std::string_view text);

}  // namespace TeskOptelHealth
