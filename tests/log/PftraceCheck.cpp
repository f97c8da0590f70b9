#include "PftraceCheck.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>

namespace orvcam {
namespace test {

namespace {

// Field numbers from Perfetto's public protos (the same the writers use, written out again
// here so that a wrong number in the writers' header is not checked against itself).
namespace f {
constexpr uint32_t kPacket = 1;
constexpr uint32_t kClockSnapshot = 6, kTimestamp = 8, kSequenceId = 10, kTrackEvent = 11,
                   kInternedData = 12, kSequenceFlags = 13, kAndroidLog = 39, kClockId = 58,
                   kDefaults = 59, kTrackDescriptor = 60;
constexpr uint32_t kSnapshotClocks = 1, kSnapshotClockId = 1, kSnapshotClockTimestamp = 2;
constexpr uint32_t kLogEvents = 1, kLogTimestamp = 5, kLogPrio = 7, kLogMessage = 8;
constexpr uint32_t kUuid = 1, kParentUuid = 5, kCounter = 8;
constexpr uint32_t kCategoryIids = 3, kType = 9, kNameIid = 10, kTrackUuid = 11, kName = 23,
                   kCounterValue = 30, kDoubleCounterValue = 44, kFlowIdsOld = 36,
                   kTerminatingOld = 42, kFlowIds = 47, kTerminating = 48;
constexpr uint32_t kEventCategories = 1, kEventNames = 2, kIid = 1, kIidName = 2;
}  // namespace f

constexpr uint64_t kCleared = 1, kNeeds = 2;
constexpr uint32_t kRealtime = 1;
constexpr uint64_t kPrioVerbose = 2, kPrioFatal = 7;
enum Type : uint64_t { kBegin = 1, kEnd = 2, kInstant = 3, kCounter = 4 };

struct Field {
  uint32_t number = 0;
  uint32_t wire = 0;
  uint64_t value = 0;  // varint and fixed
  std::string_view bytes;
};

// Reads the fields of one message; `error` says where the encoding broke.
class Fields {
 public:
  explicit Fields(std::string_view data) : data_(data) {}
  bool next(Field* out) {
    if (pos_ >= data_.size() || !error.empty()) return false;
    uint64_t key = 0;
    if (!varint(&key)) return fail("a field's key runs past the end");
    out->number = uint32_t(key >> 3);
    out->wire = uint32_t(key & 7);
    out->bytes = {};
    if (out->number == 0) return fail("field number 0");
    switch (out->wire) {
      case 0:
        if (!varint(&out->value)) return fail("a varint runs past the end");
        return true;
      case 1:
      case 5: {
        size_t n = out->wire == 1 ? 8 : 4;
        if (data_.size() - pos_ < n) return fail("a fixed-size field runs past the end");
        out->value = 0;
        for (size_t i = 0; i < n; ++i) out->value |= uint64_t(uint8_t(data_[pos_ + i])) << (8 * i);
        pos_ += n;
        return true;
      }
      case 2: {
        uint64_t size = 0;
        if (!varint(&size)) return fail("a length runs past the end");
        if (size > data_.size() - pos_) return fail("a length-delimited field runs past the end");
        out->bytes = data_.substr(pos_, size_t(size));
        pos_ += size_t(size);
        return true;
      }
      default: return fail("wire type " + std::to_string(out->wire) + " (groups or unknown)");
    }
  }
  std::string error;

 private:
  bool varint(uint64_t* v) {
    *v = 0;
    for (int shift = 0; shift < 64 && pos_ < data_.size(); shift += 7) {
      uint8_t byte = uint8_t(data_[pos_++]);
      *v |= uint64_t(byte & 0x7F) << shift;
      if (!(byte & 0x80)) return true;
    }
    return false;
  }
  bool fail(const std::string& what) {
    error = what;
    return false;
  }
  std::string_view data_;
  size_t pos_ = 0;
};

struct Sequence {
  bool cleared = false;  // a packet has cleared the incremental state
  uint32_t defaultClock = 0;
  std::map<uint64_t, std::string> names, categories;
  std::set<uint32_t> clocks;  // clocks a snapshot on this sequence named
};

struct SliceMark {
  uint64_t ts;
  size_t order;
  bool begin;
  size_t packet;
};

struct Track {
  bool counter = false;
  uint64_t parent = 0;
  size_t packet = 0;
};

struct FlowMark {
  uint64_t ts;
  size_t packet;
  bool terminating;
};

}  // namespace

std::vector<std::string> checkPftraceStructure(std::string_view trace, bool complete,
                                               PftraceCounts* counts) {
  PftraceCounts counted;
  std::vector<std::string> problems;
  bool wallClock = false;  // a snapshot has named CLOCK_REALTIME
  uint64_t wallClockAt = 0;
  std::map<uint32_t, Sequence> sequences;
  std::map<uint64_t, Track> tracks;
  std::map<uint64_t, std::vector<SliceMark>> slices;
  std::map<uint64_t, std::vector<FlowMark>> flows;
  std::set<uint32_t> globalClocks;  // builtin clocks any snapshot named
  Fields top(trace);
  Field packetField;
  size_t index = 0;
  for (; top.next(&packetField); ++index) {
    auto bad = [&](const std::string& what) {
      problems.push_back("packet " + std::to_string(index) + ": " + what);
    };
    if (packetField.number != f::kPacket || packetField.wire != 2) {
      bad("a Trace holds only TracePacket fields (1, length-delimited), not field " +
          std::to_string(packetField.number));
      continue;
    }
    // The packet's own fields first: its sequence and flags decide how the rest reads.
    uint32_t sequenceId = 0;
    uint64_t flags = 0;
    bool timed = false;
    uint64_t ts = 0;
    uint32_t clockId = 0;
    std::string_view event, interned, descriptor, snapshot, defaults, androidLog;
    Fields fields(packetField.bytes);
    Field x;
    while (fields.next(&x)) {
      switch (x.number) {
        case f::kSequenceId: sequenceId = uint32_t(x.value); break;
        case f::kSequenceFlags: flags = x.value; break;
        case f::kTimestamp:
          timed = true;
          ts = x.value;
          break;
        case f::kClockId: clockId = uint32_t(x.value); break;
        case f::kTrackEvent: event = x.bytes; break;
        case f::kInternedData: interned = x.bytes; break;
        case f::kTrackDescriptor: descriptor = x.bytes; break;
        case f::kClockSnapshot: snapshot = x.bytes; break;
        case f::kDefaults: defaults = x.bytes; break;
        case f::kAndroidLog: androidLog = x.bytes; break;
        default: break;
      }
    }
    if (!fields.error.empty()) {
      bad("broken encoding: " + fields.error);
      continue;
    }
    Sequence& seq = sequences[sequenceId];
    if (flags & kCleared) {
      seq.cleared = true;
      seq.names.clear();
      seq.categories.clear();
      seq.defaultClock = 0;
    } else if ((flags & kNeeds) && !seq.cleared) {
      bad("needs the incremental state of sequence " + std::to_string(sequenceId) +
          " before any packet cleared it");
    }
    bool incremental = (flags & (kCleared | kNeeds)) != 0;
    if (!defaults.empty()) {
      if (!(flags & kCleared)) bad("sequence defaults outside a packet that clears the state");
      Fields d(defaults);
      while (d.next(&x)) {
        if (x.number == f::kClockId) seq.defaultClock = uint32_t(x.value);
      }
    }
    if (!interned.empty()) {
      if (sequenceId == 0) bad("interned data outside a sequence");
      if (!incremental) bad("interned data without a sequence flag");
      Fields d(interned);
      while (d.next(&x)) {
        if (x.number != f::kEventCategories && x.number != f::kEventNames) continue;
        auto& table = x.number == f::kEventNames ? seq.names : seq.categories;
        uint64_t iid = 0;
        std::string name;
        Fields entry(x.bytes);
        Field e;
        while (entry.next(&e)) {
          if (e.number == f::kIid) iid = e.value;
          if (e.number == f::kIidName) name = std::string(e.bytes);
        }
        if (iid == 0) {
          bad("an interned name without an iid");
          continue;
        }
        auto found = table.emplace(iid, name);
        if (!found.second && found.first->second != name) {
          bad("iid " + std::to_string(iid) + " interned again as \"" + name + "\", was \"" +
              found.first->second + "\"");
        }
      }
    }
    if (!snapshot.empty()) {
      Fields s(snapshot);
      while (s.next(&x)) {
        if (x.number != f::kSnapshotClocks) continue;
        Fields c(x.bytes);
        Field e;
        uint64_t id = 0, at = 0;
        while (c.next(&e)) {
          if (e.number == f::kSnapshotClockId) id = e.value;
          if (e.number == f::kSnapshotClockTimestamp) at = e.value;
        }
        if (id >= 64 && id < 128) {
          seq.clocks.insert(uint32_t(id));
        } else {
          globalClocks.insert(uint32_t(id));
        }
        if (id == kRealtime && (!wallClock || at < wallClockAt)) wallClockAt = at;
        if (id == kRealtime) wallClock = true;
      }
    }
    if (!descriptor.empty()) {
      Track track;
      uint64_t uuid = 0;
      Fields d(descriptor);
      while (d.next(&x)) {
        if (x.number == f::kUuid) uuid = x.value;
        if (x.number == f::kParentUuid) track.parent = x.value;
        if (x.number == f::kCounter) track.counter = true;
      }
      track.packet = index;
      if (uuid == 0) {
        bad("a track descriptor without a uuid");
      } else {
        auto found = tracks.emplace(uuid, track);
        if (!found.second && found.first->second.counter != track.counter) {
          bad("track " + std::to_string(uuid) + " declared again as another kind");
        }
      }
    }
    if (!androidLog.empty()) {
      Fields events(androidLog);
      while (events.next(&x)) {
        if (x.number != f::kLogEvents) continue;
        ++counted.logEvents;
        bool stamped = false, messaged = false;
        uint64_t at = 0, prio = 0;
        Fields l(x.bytes);
        Field e;
        while (l.next(&e)) {
          if (e.number == f::kLogTimestamp) stamped = true, at = e.value;
          if (e.number == f::kLogPrio) prio = e.value;
          if (e.number == f::kLogMessage) messaged = true;
        }
        if (!l.error.empty()) {
          bad("broken log event: " + l.error);
        } else if (!stamped || !messaged) {
          bad("a log event without a timestamp or a message");
        } else if (!wallClock) {
          bad("a log event before any clock snapshot names CLOCK_REALTIME, its timestamps' clock");
        } else if (at < wallClockAt) {
          bad("a log event at " + std::to_string(at) +
              " ns, before the wall-clock reading of the snapshot (" + std::to_string(wallClockAt) +
              " ns)");
        }
        if (l.error.empty() && (prio < kPrioVerbose || prio > kPrioFatal)) {
          bad("a log event of priority " + std::to_string(prio) + ", not logcat's V (2) to F (7)");
        }
      }
      if (!events.error.empty()) bad("broken log packet: " + events.error);
    }
    if (event.empty()) continue;
    // A track event: its clock, track, names, slice and flows.
    uint32_t clock = clockId ? clockId : seq.defaultClock;
    if (seq.defaultClock && !clockId && !incremental) {
      bad("takes its clock from the sequence's defaults without a sequence flag");
    }
    if (clock >= 64 && clock < 128 && !seq.clocks.count(clock)) {
      bad("timestamp on clock " + std::to_string(clock) +
          ", which no clock snapshot of its sequence names");
    }
    if (!timed) bad("a track event without a timestamp");
    uint64_t type = 0, track = 0, nameIid = 0;
    bool named = false, valued = false;
    std::vector<uint64_t> categoryIids;
    std::vector<std::pair<uint64_t, bool>> eventFlows;
    Fields e(event);
    while (e.next(&x)) {
      switch (x.number) {
        case f::kType: type = x.value; break;
        case f::kTrackUuid: track = x.value; break;
        case f::kNameIid: nameIid = x.value; break;
        case f::kName: named = true; break;
        case f::kCategoryIids: categoryIids.push_back(x.value); break;
        case f::kCounterValue:
        case f::kDoubleCounterValue: valued = true; break;
        case f::kFlowIds:
        case f::kFlowIdsOld: eventFlows.emplace_back(x.value, false); break;
        case f::kTerminating:
        case f::kTerminatingOld: eventFlows.emplace_back(x.value, true); break;
        default: break;
      }
    }
    if (!e.error.empty()) {
      bad("broken track event: " + e.error);
      continue;
    }
    if ((nameIid || !categoryIids.empty()) && !incremental) {
      bad("uses interned ids without a sequence flag");
    }
    if (nameIid && !seq.names.count(nameIid)) {
      bad("name iid " + std::to_string(nameIid) + " is not interned on its sequence");
    }
    for (uint64_t c : categoryIids) {
      if (!seq.categories.count(c)) {
        bad("category iid " + std::to_string(c) + " is not interned on its sequence");
      }
    }
    auto declared = tracks.find(track);
    if (declared == tracks.end()) {
      bad("an event on track " + std::to_string(track) +
          ", which no descriptor before it declares");
      continue;
    }
    bool counterTrack = declared->second.counter;
    if (type == kCounter) {
      if (!counterTrack)
        bad("a counter value on track " + std::to_string(track) + ", not a counter track");
      if (!valued) bad("a counter event without a value");
      continue;
    }
    if (type != kBegin && type != kEnd && type != kInstant) {
      bad("track event type " + std::to_string(type));
      continue;
    }
    if (counterTrack) bad("a slice or instant on counter track " + std::to_string(track));
    if (type != kEnd && !named && !nameIid) bad("a slice or instant without a name");
    if (type != kInstant) slices[track].push_back({ts, index, type == kBegin, index});
    for (const auto& flow : eventFlows) {
      flows[flow.first].push_back({ts, index, flow.second});
      if (!flow.second) ++counted.flows;
    }
  }
  counted.packets = index;
  if (!top.error.empty()) {
    problems.push_back("packet " + std::to_string(index) + ": broken encoding: " + top.error);
  }
  for (const auto& t : tracks) {
    if (t.second.parent && !tracks.count(t.second.parent)) {
      problems.push_back("packet " + std::to_string(t.second.packet) + ": track " +
                         std::to_string(t.first) + " has parent " +
                         std::to_string(t.second.parent) + ", which is never declared");
    }
  }
  // Slices as the importer reads them: in time order, an end closing the innermost open slice.
  for (auto& s : slices) {
    std::stable_sort(s.second.begin(), s.second.end(),
                     [](const SliceMark& a, const SliceMark& b) { return a.ts < b.ts; });
    std::vector<const SliceMark*> open;
    for (const SliceMark& m : s.second) {
      if (m.begin) {
        open.push_back(&m);
      } else if (open.empty()) {
        problems.push_back("packet " + std::to_string(m.packet) + ": ends a slice on track " +
                           std::to_string(s.first) + " with none open");
      } else {
        open.pop_back();
      }
    }
    if (complete) {
      for (const SliceMark* m : open) {
        problems.push_back("packet " + std::to_string(m->packet) + ": a slice on track " +
                           std::to_string(s.first) + " never ends");
      }
    }
  }
  // Flows: begun once, then terminated once, not before they began.
  for (auto& fl : flows) {
    std::string id = "flow " + std::to_string(fl.first);
    size_t begun = 0, ended = 0;
    uint64_t beganAt = 0;
    for (const FlowMark& m : fl.second) {
      auto bad = [&](const std::string& what) {
        problems.push_back("packet " + std::to_string(m.packet) + ": " + id + " " + what);
      };
      if (!m.terminating) {
        if (begun++) bad("begun again");
        beganAt = m.ts;
      } else if (!begun) {
        bad("terminated before it began");
      } else if (ended++) {
        bad("terminated again");
      } else if (m.ts < beganAt) {
        bad("terminated at an earlier time than it began");
      }
    }
    if (complete && begun && !ended) {
      problems.push_back("packet " + std::to_string(fl.second.front().packet) + ": " + id +
                         " never terminated");
    }
  }
  if (counts) *counts = counted;
  return problems;
}

}  // namespace test
}  // namespace orvcam
