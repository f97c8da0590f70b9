#pragma once
// A history as JSON: written whole or as it is made (for a closer look, or to keep with a bug
// report), and read back, so that a saved run can be checked again.
#include <cstdint>
#include <fstream>
#include <istream>
#include <ostream>
#include <string>

#include "base/OrderedWorker.h"
#include "history/History.h"

namespace orvcam {
namespace history {

// False with a message naming the field (a JSON path such as "jobs[3].kind") and what is
// wrong; `history` is then unspecified.
bool readHistoryJson(std::istream& in, History* history, std::string* error);
bool readHistoryFile(const std::string& path, History* history, std::string* error);

// The whole recorded run as JSON, for a closer look or to keep with a bug report.
void writeHistoryJson(std::ostream& out, const History& history);

// The same JSON written as the history is made, for histories that do not fit in memory: each
// part's list items go to a file of their own named after `prefix` (prefix.jobs.part, ...),
// and finish() writes the file: the scalars, then every list. The part files are removed
// when the stream is destroyed.
//
// Threads: add() and finish() are called by one thread. With a worker, add() hands it a copy
// of the part and the worker writes it, in order; finish() drains the worker first, and the
// files are the worker's alone until then.
class HistoryJsonStream {
 public:
  explicit HistoryJsonStream(std::string prefix, base::OrderedWorker* worker = nullptr);
  ~HistoryJsonStream();
  HistoryJsonStream(const HistoryJsonStream&) = delete;
  HistoryJsonStream& operator=(const HistoryJsonStream&) = delete;
  void add(History part);
  // `scalars`: the history whose scalars (scenario, sensors, times, account) head the file;
  // its lists are not written. False when a file could not be written or read.
  bool finish(const History& scalars, const std::string& path);

 private:
  static constexpr size_t kLists = 6;
  std::string partPath(size_t list) const;
  void write(const History& part);
  std::string prefix_;
  base::OrderedWorker* worker_;
  std::ofstream files_[kLists];
  uint64_t counts_[kLists] = {};
  bool ok_ = true;
};

}  // namespace history
}  // namespace orvcam
