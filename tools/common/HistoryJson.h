#pragma once
// Reading a history back from the JSON that `writeHistoryJson` (Report.h) and
// camdeliver-log's --history write, so that a saved run can be checked again.
#include <istream>
#include <string>

#include "History.h"

namespace orvcam {
namespace sim {

// False with a message naming the field (a JSON path such as "jobs[3].kind") and what is
// wrong; `history` is then unspecified.
bool readHistoryJson(std::istream& in, History* history, std::string* error);
bool readHistoryFile(const std::string& path, History* history, std::string* error);

}  // namespace sim
}  // namespace orvcam
