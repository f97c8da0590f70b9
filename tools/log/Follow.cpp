#include "log/Follow.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "log/LogReport.h"
#include "logread/MessageCatalogue.h"

namespace orvcam {
namespace log {

using namespace logread;
using namespace history;

namespace {

std::string ms(Nanos ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f ms", double(ns) / 1e6);
  return buf;
}

std::string processName(const Run& r) {
  return "process " + std::to_string(r.pid) +
         (r.session > 1 ? " session " + std::to_string(r.session) : std::string());
}

std::string sendName(uint32_t sensor, uint32_t frame, bool isConfig) {
  return history::sensorName(sensor) + " F:" + std::to_string(frame) +
         (isConfig ? " ConfigJob" : " EnqJob");
}

bool blocked(const Run& r, const SensorFrame& st, bool isConfig) {
  return isConfig ? st.cfgBlocked() : st.enqBlocked() && !noFrameSendWentOn(r, st);
}

// How a send reported as stalled stopped waiting.
std::string wentOn(const Run& r, const SensorFrame* st, bool isConfig) {
  if (!st) return "no longer waiting";
  if (isConfig && st->cfgStarted)
    return "its job started after " + ms(st->cfgStart - st->cfgSentAt);
  if (!isConfig && st->enqStarted)
    return "its job started after " + ms(st->enqStart - st->enqSentAt);
  if (st->enqNull) return "not run (no licence)";
  if (st->dropped) return "the frame was dropped at " + ms(st->droppedAt);
  if (st->flushed) return "the frame was flushed at " + ms(st->flushedAt);
  if (!isConfig && noFrameSendWentOn(r, *st)) return "its thread went on";
  return "no longer waiting";
}

// Silence shorter than this is the reading's own pace, not worth a word in a report.
constexpr Nanos kSilenceWorthSaying = 100 * 1000000LL;

volatile std::sig_atomic_t sigintSeen = 0;

void onInterrupt(int) { sigintSeen = 1; }

int64_t steadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Nanos Watch::stallNs(const Run& r) const {
  if (stallNs_ >= 0) return stallNs_;
  // The settled frames are in the run's figures; those still held are added as settling will
  // add them, so that the threshold is what a report at this point would derive.
  DurationHistogram waits = r.stallWaits, jobs = r.jobTimes;
  for (const auto& entry : r.states) {
    const SensorFrame& st = entry.second;
    if (r.context.count(st.frame)) continue;
    if (!st.enqStartLost) {
      if (st.enqStarted && (st.enqSentSeen || st.enqWaitSeen))
        waits.add(st.enqStart - st.enqSentAt);
      if (st.enqDone && st.enqStarted) jobs.add(st.enqEnd - st.enqStart);
    }
    if (st.cfgDone && st.cfgStarted && !st.cfgStartLost) jobs.add(st.cfgEnd - st.cfgStart);
  }
  return std::max(kStallFloorNs,
                  kStallFactor * std::max(waits.percentile(0.99), jobs.percentile(0.99)));
}

void Watch::fatals(const LogReader& reader, Nanos wallNs, bool end, std::ostream& out) {
  reader.forEachCurrentRun([&](const Run& run, Nanos) { checkFatals(run, wallNs, end, out); });
}

void Watch::stalls(const LogReader& reader, Nanos quietNs, std::ostream& out) {
  reader.forEachCurrentRun(
      [&](const Run& run, Nanos newestAt) { checkStalls(run, newestAt, quietNs, out); });
}

void Watch::checkFatals(const Run& r, Nanos wallNs, bool end, std::ostream& out) {
  std::pair<int, int> key{r.pid, r.session};
  size_t& shown = fatalsShown_[key];
  for (; shown < r.fatals.size(); ++shown) {
    const FatalAssertion& f = r.fatals[shown];
    // Its first line (the error) normally comes with the assertion line naming the function;
    // the last one may still be on its way.
    if (f.function.empty() && !end && shown + 1 == r.fatals.size()) {
      auto seen = fatalSeenAt_.emplace(key, wallNs).first;
      if (wallNs - seen->second < kFatalWaitNs) return;
    }
    fatalSeenAt_.erase(key);
    out << "[fatal] " << processName(r) << ": fatal assertion \"" << f.message << "\""
        << (f.function.empty() ? "" : " in " + f.function) << " at " << ms(f.at) << " (thread "
        << f.tid << ")\n    " << ruleForFatal(f.message) << "\n";
    ++fatalsReported_;
  }
}

void Watch::checkStalls(const Run& r, Nanos newestAt, Nanos quietNs, std::ostream& out) {
  if (!r.hasTime) return;  // no stamps, nothing to measure a wait by
  // Reported sends that went on since.
  for (auto it = stalled_.lower_bound({r.pid, r.session, 0, 0, false});
       it != stalled_.end() && std::get<0>(*it) == r.pid && std::get<1>(*it) == r.session;) {
    uint32_t sensor = std::get<2>(*it), frame = std::get<3>(*it);
    bool isConfig = std::get<4>(*it);
    auto st = r.states.find({sensor, frame});
    const SensorFrame* state = st == r.states.end() ? nullptr : &st->second;
    if (state && blocked(r, *state, isConfig)) {
      ++it;
      continue;
    }
    out << "[went on] " << processName(r) << ": " << sendName(sensor, frame, isConfig)
        << ", reported blocked: " << wentOn(r, state, isConfig) << "\n";
    it = stalled_.erase(it);
  }
  Nanos now = newestAt + quietNs;
  Nanos threshold = -1;
  // Checked on every status tick: the states are walked unsorted, and only the sends found
  // past the threshold are put in report order (by sensor, frame, configure first).
  std::vector<std::pair<const SensorFrame*, bool>> late;
  for (const auto& entry : r.states) {
    const SensorFrame& st = entry.second;
    for (bool isConfig : {true, false}) {
      if (!blocked(r, st, isConfig)) continue;
      auto key = std::make_tuple(r.pid, r.session, st.sensor, st.frame, isConfig);
      if (stalled_.count(key)) continue;
      Nanos since = isConfig ? st.cfgSentAt : st.enqSentAt;
      if (threshold < 0) threshold = stallNs(r);
      if (now - since >= threshold) late.emplace_back(&st, isConfig);
    }
  }
  std::sort(late.begin(), late.end(), [](const auto& a, const auto& b) {
    return std::make_tuple(a.first->sensor, a.first->frame, !a.second) <
           std::make_tuple(b.first->sensor, b.first->frame, !b.second);
  });
  for (const auto& [state, isConfig] : late) {
    const SensorFrame& st = *state;
    Nanos since = isConfig ? st.cfgSentAt : st.enqSentAt;
    stalled_.insert(std::make_tuple(r.pid, r.session, st.sensor, st.frame, isConfig));
    ++stallsReported_;
    out << "[blocked] " << processName(r)
        << ": blocked send: " << sendName(st.sensor, st.frame, isConfig) << " has waited "
        << ms(now - since) << " (since " << ms(since) << "), past the stall threshold of "
        << ms(threshold) << (stallNs_ < 0 ? " (derived from the log so far)" : "");
    if (quietNs >= kSilenceWorthSaying) out << "; the log has been silent for " << ms(quietNs);
    out << waitsFor(r, st, isConfig) << "\n";
  }
}

std::string Watch::status(const LogReader& reader) const {
  uint64_t frames = 0, waiting = 0;
  reader.forEachCurrentRun([&](const Run& r, Nanos) {
    frames += r.settledFrames;
    for (const auto& entry : r.frames) {
      if (entry.first != kNoFrame && !r.context.count(entry.first)) ++frames;
    }
    for (const auto& entry : r.states) {
      waiting += blocked(r, entry.second, true) + blocked(r, entry.second, false);
    }
  });
  return std::to_string(reader.totalLines()) + " lines, " + std::to_string(frames) + " frames, " +
         std::to_string(waiting) + " send(s) waiting";
}

void endInputOnInterrupt() {
  struct sigaction action = {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  // Without SA_RESTART a wait in poll() returns at once; the handler goes after one use.
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
}

FollowInput::FollowInput(int fd, const LogReader& reader, const FollowOptions& options,
                         std::ostream& out, std::ostream& status)
    : fd_(fd),
      reader_(reader),
      options_(options),
      out_(out),
      status_(status),
      watch_(options.stallNs),
      lastLineAt_(steadyNs()),
      lastStalls_(lastLineAt_),
      lastStatus_(lastLineAt_) {}

bool FollowInput::next(std::string* line) {
  for (;;) {
    size_t nl = buffer_.find('\n', pos_);
    if (nl != std::string::npos || (ended_ && pos_ < buffer_.size())) {
      if (nl == std::string::npos) nl = buffer_.size();  // the last line, without its end
      line->assign(buffer_, pos_, nl - pos_);
      pos_ = nl + 1;
      if (!started_) {
        started_ = true;
        if (line->compare(0, 3, "\xEF\xBB\xBF") == 0) line->erase(0, 3);  // a byte order mark
      }
      return true;
    }
    buffer_.erase(0, std::min(pos_, buffer_.size()));
    pos_ = 0;
    if (ended_ || !fill()) {
      if (!ended_) silenceAtEnd_ = steadyNs() - lastLineAt_;
      ended_ = true;
      if (!buffer_.empty()) continue;
      watch_.fatals(reader_, steadyNs(), true, out_);
      out_.flush();
      return false;
    }
  }
}

std::optional<CaptureEnd> FollowInput::captureEnd() const {
  if (!ended_ || silenceAtEnd_ < Nanos(options_.pollMs) * 1000000) return std::nullopt;
  CaptureEnd end;
  end.relative = true;
  end.afterNs = silenceAtEnd_;
  return end;
}

bool FollowInput::fill() {
  const Nanos pollNs = Nanos(options_.pollMs) * 1000000;
  const Nanos statusNs = Nanos(options_.statusMs) * 1000000;
  for (bool waited = false;; waited = true) {
    // Fatal assertions every time the lines are used up; the waits, which take a walk over
    // the frames held, a few times per poll period, and after every silent one.
    Nanos now = steadyNs();
    watch_.fatals(reader_, now, false, out_);
    if (waited || now - lastStalls_ >= pollNs / 2) {
      watch_.stalls(reader_, now - lastLineAt_, out_);
      lastStalls_ = now;
    }
    out_.flush();
    if (statusNs > 0 && now - lastStatus_ >= statusNs) {
      status_ << "camdeliver-log --follow: " << watch_.status(reader_) << std::endl;
      lastStatus_ = now;
    }
    if (sigintSeen) {
      interrupted_ = true;
      return false;
    }
    pollfd p{fd_, POLLIN, 0};
    int ready = ::poll(&p, 1, options_.pollMs);
    if (ready < 0 && errno != EINTR) {
      error_ = errno;
      return false;
    }
    if (ready <= 0) continue;
    char chunk[1 << 16];
    ssize_t got = ::read(fd_, chunk, sizeof chunk);
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      error_ = errno;
      return false;
    }
    if (got == 0) return false;
    buffer_.append(chunk, size_t(got));
    if (std::memchr(chunk, '\n', size_t(got))) {
      lastLineAt_ = steadyNs();
      return true;
    }
  }
}

Progress::Progress(std::ostream& out, bool enabled, uint64_t totalBytes)
    : out_(out), enabled_(enabled), total_(totalBytes), lastNs_(steadyNs()) {}

void Progress::look() {
  int64_t now = steadyNs();
  if (now - lastNs_ < 1000000000LL) return;
  lastNs_ = now;
  char text[128];
  if (total_ > 0) {
    std::snprintf(text, sizeof text, "\rcamdeliver-log: %llu lines, %.0f of %.0f MB (%.0f%%)",
                  (unsigned long long)lines_, double(bytes_) / 1e6, double(total_) / 1e6,
                  100.0 * double(bytes_) / double(total_));
  } else {
    std::snprintf(text, sizeof text, "\rcamdeliver-log: %llu lines, %.0f MB",
                  (unsigned long long)lines_, double(bytes_) / 1e6);
  }
  out_ << text << "\x1b[K" << std::flush;
  shown_ = true;
}

void Progress::done() {
  if (shown_) out_ << "\r\x1b[K" << std::flush;
  shown_ = false;
}

}  // namespace log
}  // namespace orvcam
