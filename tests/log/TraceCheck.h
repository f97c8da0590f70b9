#pragma once
// The structure a Chrome JSON trace must have for Perfetto's importer to show it as meant,
// checked without a viewer: events with the fields of their phase, "B"/"E" nested per thread
// with matching names, "X" with a duration, async "b"/"e" paired by category, id and name,
// flow "s"/"f" paired by id, counters with numeric values and well-formed metadata.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace orvcam {
namespace test {

// Every problem found, as "event N (ph X, name ...): what is wrong". `complete` also asks
// that every section, async track and flow that began has ended; a trace cut by an abort
// may leave some open.
std::vector<std::string> checkTraceStructure(const nlohmann::json& trace, bool complete);

}  // namespace test
}  // namespace orvcam
