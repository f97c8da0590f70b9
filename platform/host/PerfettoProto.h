#pragma once
// Perfetto's own trace format, written without its library: a trace is the concatenation of
// `Trace.packet` fields (number 1), each a length-delimited TracePacket, so a file cut after
// any whole packet is still a valid trace. The field numbers below are those of Perfetto's
// public protos (trace_packet.proto, track_descriptor.proto, track_event.proto,
// interned_data.proto, clock_snapshot.proto, android_log.proto, android_log_constants.proto);
// only what the host's and the tools' traces use.
//
// Internal to the host platform and the tools (not installed). Header-only: the host library
// and the tools each compile it, neither links the other.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace orvcam {
namespace pftrace {

// Whether a trace file named `path` is written in this format: by its extension (.pftrace,
// .perfetto-trace or .pb); any other name gets Chrome JSON.
inline bool isPerfettoPath(std::string_view path) {
  auto endsWith = [path](std::string_view end) {
    return path.size() >= end.size() && path.substr(path.size() - end.size()) == end;
  };
  return endsWith(".pftrace") || endsWith(".perfetto-trace") || endsWith(".pb");
}

// Whether a trace file named `path` is gzip'd (a name ending in .gz, as in run.json.gz): one
// gzip stream of the Chrome JSON, which Perfetto UI opens as it is.
inline bool isGzipPath(std::string_view path) {
  return path.size() >= 3 && path.substr(path.size() - 3) == ".gz";
}

// Wire types.
enum WireType : uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

// Field numbers, by message.
namespace field {
constexpr uint32_t kTracePacket = 1;  // Trace.packet
// TracePacket
constexpr uint32_t kClockSnapshot = 6;
constexpr uint32_t kTimestamp = 8;
constexpr uint32_t kSequenceId = 10;  // trusted_packet_sequence_id
constexpr uint32_t kTrackEvent = 11;
constexpr uint32_t kInternedData = 12;
constexpr uint32_t kSequenceFlags = 13;
constexpr uint32_t kAndroidLog = 39;
constexpr uint32_t kTimestampClockId = 58;
constexpr uint32_t kTracePacketDefaults = 59;
constexpr uint32_t kTrackDescriptor = 60;
// TracePacketDefaults
constexpr uint32_t kDefaultsClockId = 58;
// AndroidLogPacket, and its LogEvent
constexpr uint32_t kLogEvents = 1;
constexpr uint32_t kLogPid = 2;
constexpr uint32_t kLogTid = 3;
constexpr uint32_t kLogTimestamp = 5;  // CLOCK_REALTIME nanoseconds, whatever the packet's clock
constexpr uint32_t kLogTag = 6;
constexpr uint32_t kLogPrio = 7;
constexpr uint32_t kLogMessage = 8;
// ClockSnapshot and ClockSnapshot.Clock
constexpr uint32_t kClocks = 1;
constexpr uint32_t kPrimaryTraceClock = 2;
constexpr uint32_t kClockId = 1;
constexpr uint32_t kClockTimestamp = 2;
constexpr uint32_t kClockUnitNs = 4;  // unit_multiplier_ns
// TrackDescriptor
constexpr uint32_t kUuid = 1;
constexpr uint32_t kTrackName = 2;
constexpr uint32_t kProcess = 3;
constexpr uint32_t kThread = 4;
constexpr uint32_t kParentUuid = 5;
constexpr uint32_t kCounter = 8;
// ProcessDescriptor
constexpr uint32_t kProcessPid = 1;
constexpr uint32_t kProcessName = 6;
// ThreadDescriptor
constexpr uint32_t kThreadPid = 1;
constexpr uint32_t kThreadTid = 2;
constexpr uint32_t kThreadName = 5;
// CounterDescriptor
constexpr uint32_t kCounterUnit = 3;
// TrackEvent
constexpr uint32_t kCategoryIids = 3;
constexpr uint32_t kType = 9;
constexpr uint32_t kNameIid = 10;
constexpr uint32_t kTrackUuid = 11;
constexpr uint32_t kName = 23;
constexpr uint32_t kCounterValue = 30;
constexpr uint32_t kFlowIds = 47;             // fixed64
constexpr uint32_t kTerminatingFlowIds = 48;  // fixed64
// InternedData, and its EventCategory and EventName entries
constexpr uint32_t kEventCategories = 1;
constexpr uint32_t kEventNames = 2;
constexpr uint32_t kInternedIid = 1;
constexpr uint32_t kInternedName = 2;
}  // namespace field

// TrackEvent.Type
enum EventType : uint32_t { kSliceBegin = 1, kSliceEnd = 2, kInstant = 3, kCounter = 4 };
// TracePacket.SequenceFlags
constexpr uint32_t kIncrementalStateCleared = 1;
constexpr uint32_t kNeedsIncrementalState = 2;
// BuiltinClock; ids 64 to 127 are clocks of one packet sequence.
constexpr uint32_t kClockRealtime = 1;
constexpr uint32_t kClockMonotonic = 3;
constexpr uint32_t kClockBoottime = 6;
constexpr uint32_t kClockCapture = 64;
// CounterDescriptor.Unit
constexpr uint32_t kUnitCount = 2;
// AndroidLogPriority (android/log.h's values): logcat's V, D, I, W, E and F.
enum LogPriority : uint32_t {
  kPrioVerbose = 2,
  kPrioDebug = 3,
  kPrioInfo = 4,
  kPrioWarn = 5,
  kPrioError = 6,
  kPrioFatal = 7
};
// A logcat level letter's priority; an unknown letter counts as debug.
inline LogPriority logPriority(char level) {
  switch (level) {
    case 'V': return kPrioVerbose;
    case 'I': return kPrioInfo;
    case 'W': return kPrioWarn;
    case 'E': return kPrioError;
    case 'F':
    case 'A': return kPrioFatal;
    default: return kPrioDebug;
  }
}

// One message being encoded, appended to a string of the caller's (kept and reused).
class Encoder {
 public:
  explicit Encoder(std::string* out) : out_(out) {}
  void varint(uint64_t v) {
    while (v >= 0x80) {
      out_->push_back(static_cast<char>((v & 0x7F) | 0x80));
      v >>= 7;
    }
    out_->push_back(static_cast<char>(v));
  }
  void tag(uint32_t number, WireType type) { varint((uint64_t{number} << 3) | type); }
  // int32/int64/uint32/uint64/enum/bool: a negative number takes ten bytes, as protobuf does.
  void number(uint32_t f, int64_t v) {
    tag(f, kVarint);
    varint(static_cast<uint64_t>(v));
  }
  void fixed64(uint32_t f, uint64_t v) {
    tag(f, kFixed64);
    for (int i = 0; i < 8; ++i) out_->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
  }
  void bytes(uint32_t f, std::string_view data) {
    tag(f, kLengthDelimited);
    varint(data.size());
    out_->append(data.data(), data.size());
  }
  std::string& out() { return *out_; }

 private:
  std::string* out_;
};

// Nested messages are encoded into strings of their own, then placed with their length.
// Nesting is shallow (at most four levels here); the strings keep their memory.
class Scratch {
 public:
  // Level `level`, emptied.
  std::string& at(size_t level) {
    if (level >= kLevels) level = kLevels - 1;
    levels_[level].clear();
    return levels_[level];
  }

 private:
  static constexpr size_t kLevels = 5;
  std::string levels_[kLevels];
};

// Track uuids: one space per kind of track, the kind in the low bits so that the uuid of a
// small id stays a short varint (every event names its track).
enum class TrackKind : uint64_t { Process = 1, Thread = 2, Async = 3, Counter = 4, Custom = 5 };
inline uint64_t trackUuid(TrackKind kind, uint64_t id) {
  return (id << 3) | static_cast<uint64_t>(kind);
}

// A packet sequence: the packets one writer emits, with its names and categories interned.
// Each call appends whole `Trace.packet` fields to `out` (the caller writes them out and
// clears it). The first packet clears the incremental state; later ones that use interned
// ids say they need it. The interning table is bounded: past kMaxInterned entries it is
// dropped and the next packet clears the incremental state again, so memory stays flat over a
// trace of any length.
class Sequence {
 public:
  static constexpr size_t kMaxInterned = 4096;
  // `clockId`: the clock of every packet's timestamp (kClockBoottime needs no default).
  explicit Sequence(uint32_t sequenceId, uint32_t clockId = kClockBoottime)
      : sequenceId_(sequenceId), clockId_(clockId) {}

  // One clock's reading in a snapshot; `unitNs` its tick when not a nanosecond (a clock of the
  // sequence's own only).
  struct ClockReading {
    uint32_t id = 0;
    uint64_t timestamp = 0;
    uint64_t unitNs = 1;
  };
  // A snapshot relating the sequence's clock to others: readings taken at one moment.
  // `primary`: the clock a reader puts the trace's timeline on (0: its default).
  void clockSnapshot(std::string* out, const ClockReading* clocks, size_t n, uint32_t primary = 0) {
    std::string& snapshot = scratch_.at(1);
    Encoder s(&snapshot);
    for (size_t i = 0; i < n; ++i) {
      std::string& clock = scratch_.at(2);
      Encoder c(&clock);
      c.number(field::kClockId, clocks[i].id);
      c.number(field::kClockTimestamp, static_cast<int64_t>(clocks[i].timestamp));
      if (clocks[i].unitNs != 1) {
        c.number(field::kClockUnitNs, static_cast<int64_t>(clocks[i].unitNs));
      }
      s.bytes(field::kClocks, clock);
    }
    if (primary != 0) s.number(field::kPrimaryTraceClock, primary);
    Encoder p = packet(false);
    p.bytes(field::kClockSnapshot, snapshot);
    close(out);
  }

  void processTrack(std::string* out, uint64_t uuid, int pid, std::string_view name) {
    std::string& process = scratch_.at(2);
    Encoder d(&process);
    d.number(field::kProcessPid, pid);
    if (!name.empty()) d.bytes(field::kProcessName, name);
    std::string& track = scratch_.at(1);
    Encoder t(&track);
    t.number(field::kUuid, static_cast<int64_t>(uuid));
    t.bytes(field::kProcess, process);
    descriptor(out, track);
  }

  // A thread's track; declared again with its name once the name is known.
  void threadTrack(std::string* out, uint64_t uuid, uint64_t parent, int pid, int tid,
                   std::string_view name) {
    std::string& thread = scratch_.at(2);
    Encoder d(&thread);
    d.number(field::kThreadPid, pid);
    d.number(field::kThreadTid, tid);
    if (!name.empty()) d.bytes(field::kThreadName, name);
    std::string& track = scratch_.at(1);
    Encoder t(&track);
    t.number(field::kUuid, static_cast<int64_t>(uuid));
    t.number(field::kParentUuid, static_cast<int64_t>(parent));
    t.bytes(field::kThread, thread);
    descriptor(out, track);
  }

  // A track of its own (an async track, or one for instants), or a counter track.
  void track(std::string* out, uint64_t uuid, uint64_t parent, std::string_view name,
             bool counter = false) {
    std::string& track = scratch_.at(1);
    Encoder t(&track);
    t.number(field::kUuid, static_cast<int64_t>(uuid));
    t.bytes(field::kTrackName, name);
    if (parent != 0) t.number(field::kParentUuid, static_cast<int64_t>(parent));
    if (counter) {
      std::string& desc = scratch_.at(2);
      Encoder c(&desc);
      c.number(field::kCounterUnit, kUnitCount);
      t.bytes(field::kCounter, desc);
    }
    descriptor(out, track);
  }

  // Flow ids an event starts (`flows`) or ends (`terminating`).
  struct Flow {
    uint64_t id = 0;
    bool terminating = false;
  };

  // A slice's begin, or an instant. `name` is interned when `internName`; a name made for one
  // event (a frame number in it) is written as it is.
  void event(std::string* out, EventType type, uint64_t ts, uint64_t track,
             std::string_view category, std::string_view name, bool internName,
             const Flow* flow = nullptr) {
    // Room for both entries first: a table dropped between them would orphan the first.
    if (internedCount() + 2 > kMaxInterned) reset();
    uint64_t categoryIid = category.empty() ? 0 : intern(category, kCategories);
    uint64_t nameIid = internName ? intern(name, kNames) : 0;
    std::string& ev = scratch_.at(1);
    Encoder e(&ev);
    e.number(field::kType, type);
    e.number(field::kTrackUuid, static_cast<int64_t>(track));
    if (categoryIid) e.number(field::kCategoryIids, static_cast<int64_t>(categoryIid));
    if (nameIid) {
      e.number(field::kNameIid, static_cast<int64_t>(nameIid));
    } else if (!name.empty()) {
      e.bytes(field::kName, name);
    }
    if (flow) e.fixed64(flow->terminating ? field::kTerminatingFlowIds : field::kFlowIds, flow->id);
    Encoder p = packet(true);
    p.number(field::kTimestamp, static_cast<int64_t>(ts));
    p.bytes(field::kTrackEvent, ev);
    if (!interned_.empty()) p.bytes(field::kInternedData, interned_);
    interned_.clear();
    close(out);
  }

  void end(std::string* out, uint64_t ts, uint64_t track) {
    std::string& ev = scratch_.at(1);
    Encoder e(&ev);
    e.number(field::kType, kSliceEnd);
    e.number(field::kTrackUuid, static_cast<int64_t>(track));
    Encoder p = packet(false);
    p.number(field::kTimestamp, static_cast<int64_t>(ts));
    p.bytes(field::kTrackEvent, ev);
    close(out);
  }

  void counter(std::string* out, uint64_t ts, uint64_t track, int64_t value) {
    std::string& ev = scratch_.at(1);
    Encoder e(&ev);
    e.number(field::kType, kCounter);
    e.number(field::kTrackUuid, static_cast<int64_t>(track));
    e.number(field::kCounterValue, value);
    Encoder p = packet(false);
    p.number(field::kTimestamp, static_cast<int64_t>(ts));
    p.bytes(field::kTrackEvent, ev);
    close(out);
  }

  // One log line, appended to `events` as an AndroidLogPacket.events field; androidLog()
  // writes a packet of them. `realtimeNs`: the line's time on CLOCK_REALTIME.
  static void logEvent(std::string* events, uint64_t realtimeNs, int pid, int tid, LogPriority prio,
                       std::string_view tag, std::string_view message) {
    std::string event;
    Encoder e(&event);
    e.number(field::kLogPid, pid);
    e.number(field::kLogTid, tid);
    e.number(field::kLogTimestamp, static_cast<int64_t>(realtimeNs));
    e.bytes(field::kLogTag, tag);
    e.number(field::kLogPrio, prio);
    e.bytes(field::kLogMessage, message);
    Encoder(events).bytes(field::kLogEvents, event);
  }
  void androidLog(std::string* out, std::string_view events) {
    Encoder p = packet(false);
    p.bytes(field::kAndroidLog, events);
    close(out);
  }

  size_t internedCount() const { return names_[kNames].size() + names_[kCategories].size(); }

 private:
  enum Table { kCategories, kNames, kTables };

  // Starts a packet in scratch level 0: its sequence, flags and, on the first packet after
  // the state was cleared, the sequence's defaults.
  Encoder packet(bool interning) {
    packet_.clear();
    Encoder p(&packet_);
    p.number(field::kSequenceId, sequenceId_);
    if (cleared_) {
      p.number(field::kSequenceFlags, kIncrementalStateCleared);
      if (clockId_ != kClockBoottime) {
        std::string defaults;
        Encoder d(&defaults);
        d.number(field::kDefaultsClockId, clockId_);
        p.bytes(field::kTracePacketDefaults, defaults);
      }
      cleared_ = false;
    } else if (interning || clockId_ != kClockBoottime) {
      p.number(field::kSequenceFlags, kNeedsIncrementalState);
    }
    return p;
  }

  // Appends the packet begun by packet() to `out` as a field of the Trace.
  void close(std::string* out) {
    Encoder o(out);
    o.bytes(field::kTracePacket, packet_);
  }

  void descriptor(std::string* out, const std::string& track) {
    Encoder p = packet(false);
    p.bytes(field::kTrackDescriptor, track);
    close(out);
  }

  // The iid of `text` in `table`, adding it (to this packet's InternedData) when new.
  uint64_t intern(std::string_view text, Table table) {
    auto& names = names_[table];
    auto it = names.find(std::string(text));
    if (it != names.end()) return it->second;
    uint64_t iid = names.size() + 1;
    names.emplace(std::string(text), iid);
    std::string entry;
    Encoder e(&entry);
    e.number(field::kInternedIid, static_cast<int64_t>(iid));
    e.bytes(field::kInternedName, text);
    Encoder i(&interned_);
    i.bytes(table == kNames ? field::kEventNames : field::kEventCategories, entry);
    return iid;
  }

  // Drops the interned names; the next packet clears the incremental state.
  void reset() {
    names_[kCategories].clear();
    names_[kNames].clear();
    interned_.clear();
    cleared_ = true;
  }

  uint32_t sequenceId_;
  uint32_t clockId_;
  bool cleared_ = true;
  Scratch scratch_;
  std::string packet_;    // the packet being made
  std::string interned_;  // this packet's new InternedData entries
  std::unordered_map<std::string, uint64_t> names_[kTables];
};

}  // namespace pftrace
}  // namespace orvcam
