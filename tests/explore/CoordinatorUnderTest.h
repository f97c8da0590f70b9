#pragma once
// A small coordinator of the kind an integrator writes, to be explored with the harness
// (Explore.h): two sensors in frame sync over three frames, one request thread per sensor, a
// pipeline thread for the events, and a mutex and condition variable of its own between them.
// It is built on the library and the host platform like any client.
//
// Its request threads prepare their three frames first (as the records arrive) and then send
// them in frame order; every enqueue must return 0. The pipeline thread takes one of two paths:
//   - Drop: the pipeline drops sensor 1's request for frame 2 unless the sensor has already
//     handed it over (claimed its send under the coordinator's lock); a dropped request is not
//     sent, and the sensor goes on once the drop has been reported.
//   - Flush: frame 3 is discarded by a flush at a quiet barrier: its sends are held, and the
//     flush is reported once frames 1 and 2 are finished (no send pending) and frame 3 is
//     prepared by both sensors; then the request threads skip it.
// At the end every frame must have left the pool and every send that was made must have run.
//
// A Bug seeds one ordering fault of the kind coordinators have; the explorer must find each.
#include <cstdint>

namespace coordinator_under_test {

enum class Path { Drop, Flush };

enum class Bug {
  None,
  // Sensor 0 holds the coordinator's mutex across its send of frame 2, which waits in the
  // deliverer for sensor 1's frame 1; sensor 1 needs that mutex before it sends frame 1.
  LockAcrossSend,
  // Drop path: sensor 1 reads the "dropped" flag in one hold of the lock and claims its send
  // in another, so the pipeline can record and report the drop in between and the sensor
  // then sends the enqueue of a dropped frame.
  DropFlagReadEarly,
  // Flush path: the pipeline reports the flush as soon as frame 3 is prepared, without
  // waiting for frames 1 and 2 to finish: their sends may be pending or still to come.
  FlushWithoutBarrier,
  // Flush path: the pipeline marks the flush done without notifying the coordinator's
  // condition, on which the request threads wait to learn that frame 3 was discarded.
  LostNotification,
};

// One session: builds the pool, the deliverer and the coordinator, runs the three threads to
// their end and checks the outcome with orvcam::explore::fail(). Run it as a body of
// orvcam::explore::check(), or on real threads (then fail() only prints).
void runSession(Path path, Bug bug);

}  // namespace coordinator_under_test
