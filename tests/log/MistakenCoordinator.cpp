// A coordinator that makes, once each, the call-order mistakes an integrator is warned about,
// on the real library and host platform. Its debug log (stderr) is what tests/log/
// client_mistakes.sh gives camdeliver-log, which must blame the client, not the library.
//
//   camdeliver-mistakes lagging|out-of-order|double-prepare|send-after-drop|hung|flush
//
// Sensors 0 and 1 run unsynchronised frames unless a mode says otherwise; every call is made
// from one thread per sensor in a fixed order, so each run writes the same lines.
#include <cstdio>
#include <cstring>
#include <future>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "CamDeliver.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"

using namespace NSCam::camsys::camcoordinator;

namespace {

struct EnqueueJob : ReqBaseJob {
  int32_t execute() override {
    CamDeliver::IPipeMgr::getInstance()->releaseLicense(mpLicense, false, false);
    return 0;
  }
};

std::shared_ptr<const FrameContext> record(uint32_t frame, std::set<uint32_t> sensors,
                                           std::set<uint32_t> sync = {}) {
  std::unordered_map<uint32_t, FrameContext::SensorState> states;
  for (uint32_t s : sensors) {
    FrameContext::SensorState st;
    st.needEnq = true;
    states[s] = st;
  }
  return std::make_shared<const FrameContext>(frame, std::move(sync), sensors, std::move(states),
                                              false);
}

struct Coordinator {
  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  CamDeliver deliver{pool};
  std::unordered_map<uint32_t, std::shared_ptr<const FrameContext>> records;

  void emplace(uint32_t frame, std::set<uint32_t> sensors, std::set<uint32_t> sync = {}) {
    records[frame] = record(frame, std::move(sensors), std::move(sync));
    pool->emplace(frame, records[frame]);
  }
  void prepare(uint32_t s, uint32_t f) { deliver.prepare(s, f, records.at(f)); }
  int32_t enqueue(uint32_t s, uint32_t f) {
    return deliver.sendJobForEnque(s, f, std::make_shared<EnqueueJob>());
  }
  // Frames of one sensor, each on its own: emplaced, then prepared and sent in the orders given.
  void soloFrames(uint32_t s, std::initializer_list<uint32_t> frames,
                  std::initializer_list<uint32_t> prepares, std::initializer_list<uint32_t> sends) {
    for (uint32_t f : frames) emplace(f, {s});
    for (uint32_t f : prepares) prepare(s, f);
    for (uint32_t f : sends) enqueue(s, f);
  }
};

// Sensor 1 lags: on its own request thread it prepares and sends frame 1, then stalls while
// sensor 0 first prepares frames 2..23; it then prepares frame 2, which 21 other frames were
// first prepared after. The deliverer fetches frame 2's licences a second time and ends the
// process.
void lagging(Coordinator& c) {
  for (uint32_t f = 1; f <= 18; ++f) c.emplace(f, {0, 1});
  std::promise<void> sensor0Ahead, sensor1Sent;
  std::thread sensor1([&c, &sensor1Sent, ahead = sensor0Ahead.get_future()] {
    c.prepare(1, 1);
    c.enqueue(1, 1);
    sensor1Sent.set_value();
    ahead.wait();
    c.prepare(1, 2);  // aborts
  });
  sensor1Sent.get_future().wait();
  c.prepare(0, 1);
  c.enqueue(0, 1);
  for (uint32_t f = 2; f <= 23; ++f) {
    if (f > 18) c.emplace(f, {0});
    c.prepare(0, f);
    c.enqueue(0, f);
  }
  sensor0Ahead.set_value();
  sensor1.join();
}

// Sensor 0 prepares frame 11 before frame 10, then sends 10 first: its own call order of
// sends disagrees with the order it prepared in.
void outOfOrder(Coordinator& c) { c.soloFrames(0, {10, 11}, {11, 10}, {10, 11}); }

// Sensor 0 prepares frame 10 twice, then frame 11.
void doublePrepare(Coordinator& c) { c.soloFrames(0, {10, 11}, {10, 10, 11}, {10, 11}); }

// Frame 5 of sensor 0 is dropped, which retires it (sensor 0 was its only sensor); the
// coordinator then sends its enqueue anyway and the process ends with "FC not found".
void sendAfterDrop(Coordinator& c) {
  c.soloFrames(0, {4, 5}, {4}, {4});
  c.prepare(0, 5);
  c.deliver.notifyEvent(CamDeliver::Drop, 0, 5, 0);
  c.enqueue(0, 5);  // aborts
}

// Sensors 0 and 1 are synchronised; sensor 1 prepares frame 1 and never sends it, so sensor
// 0's send of frame 2 waits for ever. The coordinator logs nothing more: its capture ends with
// the wait line. A watchdog ends the process once the send has written that line (the guard
// writes it right before the thread sleeps), or after 5 s with exit 1 if it never does.
void hung(Coordinator& c) {
  c.emplace(1, {0, 1}, {0, 1});
  c.emplace(2, {0, 1}, {0, 1});
  c.prepare(0, 1);
  c.prepare(1, 1);
  c.enqueue(0, 1);
  c.prepare(0, 2);
  static orvcam::host::LogCapture* capture = new orvcam::host::LogCapture(/*echo=*/true);
  std::thread([] {
    bool asleep =
        capture->waitFor("[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ...");
    std::fflush(stderr);
    std::_Exit(asleep ? 0 : 1);
  }).detach();
  c.enqueue(0, 2);
}

// Three frames of sensor 0 prepared, the first enqueued, then the pipeline flushes sensor 0
// as the protocol says: notifyEvent(Flush, 0, 0, 0), then flush(0). The frames in flight
// leave; sensor 0 starts again with frame 4.
void flush(Coordinator& c) {
  for (uint32_t f = 1; f <= 3; ++f) {
    c.emplace(f, {0});
    c.prepare(0, f);
  }
  c.enqueue(0, 1);
  c.deliver.notifyEvent(CamDeliver::Flush, 0, 0, 0);
  c.deliver.flush(0);
  c.emplace(4, {0});
  c.prepare(0, 4);
  c.enqueue(0, 4);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr,
                 "usage: %s lagging|out-of-order|double-prepare|send-after-drop|hung|flush\n",
                 argv[0]);
    return 2;
  }
  orvcam::host::applyLoggerSettings({5, 0x401000, 2});
  std::string mode = argv[1];
  Coordinator c;
  if (mode == "lagging") {
    lagging(c);
  } else if (mode == "out-of-order") {
    outOfOrder(c);
  } else if (mode == "double-prepare") {
    doublePrepare(c);
  } else if (mode == "send-after-drop") {
    sendAfterDrop(c);
  } else if (mode == "hung") {
    hung(c);
  } else if (mode == "flush") {
    flush(c);
  } else {
    std::fprintf(stderr, "unknown mode %s\n", argv[1]);
    return 2;
  }
  return 0;
}
