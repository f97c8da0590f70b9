#pragma once
// camdeliver-log --follow: a live capture (adb logcat -v threadtime | camdeliver-log --follow -)
// read as it comes, with what is already certain reported at once: a send that has waited past
// the stall threshold, a fatal assertion. A process that hung stops logging, so a wait is
// measured to the later of the log's newest stamp and that stamp plus the time the input has
// been silent; reading therefore never blocks without a deadline. The usual report follows at
// the end of the input.
#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "logread/LogReader.h"

namespace orvcam {
namespace log {

using history::Nanos;
using logread::CaptureEnd;
using logread::LogReader;
using logread::Run;

// What a live watch has reported so far, and what it reports next.
class Watch {
 public:
  // A fatal assertion's first line waits this long for the assertion line that names its
  // function, which normally comes with it.
  static constexpr Nanos kFatalWaitNs = 200 * 1000000LL;
  // `stallNs` < 0: each session's threshold is derived from its own waits and job times so
  // far, as the report at the end derives it from all of them.
  explicit Watch(Nanos stallNs) : stallNs_(stallNs) {}
  // Reports on `out` the fatal assertions of the reader's current sessions not reported yet.
  // `wallNs`: a steady clock, for the wait for the assertion line; `end`: the input ended.
  void fatals(const LogReader& reader, Nanos wallNs, bool end, std::ostream& out);
  // Reports on `out` the sends of the reader's current sessions that have waited past the
  // threshold by the newest stamp plus `quietNs` (how long the input has been silent), and the
  // sends reported before that went on since.
  void stalls(const LogReader& reader, Nanos quietNs, std::ostream& out);
  // "N lines, F frames, W sends waiting": for a status line.
  std::string status(const LogReader& reader) const;
  uint64_t stallsReported() const { return stallsReported_; }
  uint64_t fatalsReported() const { return fatalsReported_; }
  // The threshold for `run` now: `stallNs`, or derived from its settled figures and those of
  // the frames it still holds.
  Nanos stallNs(const Run& run) const;

 private:
  void checkFatals(const Run& run, Nanos wallNs, bool end, std::ostream& out);
  void checkStalls(const Run& run, Nanos now, Nanos quietNs, std::ostream& out);
  Nanos stallNs_;
  // (pid, session) -> fatal assertions reported, and when the next one was first seen.
  std::map<std::pair<int, int>, size_t> fatalsShown_;
  std::map<std::pair<int, int>, Nanos> fatalSeenAt_;
  // (pid, session, sensor, frame, configure): sends reported as stalled and still waiting.
  std::set<std::tuple<int, int, uint32_t, uint32_t, bool>> stalled_;
  uint64_t stallsReported_ = 0, fatalsReported_ = 0;
};

struct FollowOptions {
  Nanos stallNs = -1;   // -1: derived (Watch)
  int pollMs = 200;     // the longest a read waits before the waits are looked at again
  int statusMs = 5000;  // between status lines; 0: none
};

// The lines of a live input, read from `fd` as they come, with a Watch over `reader` between
// them: the caller gives each line next() returns to the reader before asking for the next,
// so that whenever the lines read so far are used up the reader holds them all, and what they
// make certain is reported on `out` before the next read. A read waits at most
// options.pollMs; while the input is silent, the waits are looked at again after each such
// period. A status line goes to `status` every options.statusMs. Lines are taken as UTF-8.
class FollowInput {
 public:
  FollowInput(int fd, const LogReader& reader, const FollowOptions& options, std::ostream& out,
              std::ostream& status);
  // The next line, without its '\n'; false at the end of the input, or when reading failed.
  bool next(std::string* line);
  // The read error that ended the input (errno), 0 if none did.
  int error() const { return error_; }
  const Watch& watch() const { return watch_; }
  // Where the capture ended, once the input has: as much after its last line as the input
  // was silent before it ended, when that was longer than a poll period (a process that hung
  // and a capture stopped by hand), so that the report at the end measures waits as the watch
  // did. Nothing otherwise.
  std::optional<CaptureEnd> captureEnd() const;
  bool interrupted() const { return interrupted_; }

 private:
  // Reports what the lines so far make certain, then waits for and reads more input; false
  // at its end.
  bool fill();
  int fd_;
  const LogReader& reader_;
  FollowOptions options_;
  std::ostream& out_;
  std::ostream& status_;
  Watch watch_;
  std::string buffer_;  // read, from pos_ on not yet given out
  size_t pos_ = 0;
  bool ended_ = false, started_ = false, interrupted_ = false;
  Nanos silenceAtEnd_ = 0;
  int error_ = 0;
  Nanos lastLineAt_, lastStalls_, lastStatus_;  // on a steady clock
};

// The first SIGINT (Ctrl-C) ends a FollowInput's input, so that the report on what was read
// follows; a second one ends the process as usual.
void endInputOnInterrupt();

// A progress line for reading a long file, on a terminal: rewritten in place at most once a
// second and cleared when reading ends.
class Progress {
 public:
  // `totalBytes`: the file's size, 0 when unknown (a pipe). Says nothing unless `enabled`.
  Progress(std::ostream& out, bool enabled, uint64_t totalBytes);
  ~Progress() { done(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  // A line of `bytes` (without its newline) was read.
  void line(size_t bytes) {
    bytes_ += bytes + 1;
    if (enabled_ && ++lines_ % kLinesBetweenLooks == 0) look();
  }
  void done();

 private:
  static constexpr uint64_t kLinesBetweenLooks = 8192;
  void look();
  std::ostream& out_;
  bool enabled_;
  uint64_t total_, bytes_ = 0, lines_ = 0;
  int64_t lastNs_ = 0;  // when the line was last written, on a steady clock
  bool shown_ = false;
};

}  // namespace log
}  // namespace orvcam
