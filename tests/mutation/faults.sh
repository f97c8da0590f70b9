# shellcheck shell=bash
# Seeded faults of the mutation check (sourced by run.sh). Each one edits one library source:
#   fault NAME FILE FUNCTION OLD NEW [OLD NEW ...]
# In FILE, inside the definition of FUNCTION (from the line that starts the definition, at
# column 0, to the next "}" at column 0), the text OLD must occur exactly once; it becomes NEW
# (empty: deleted). Further pairs are applied in turn to the result. A fault that no longer matches the code stops the check instead of
# passing unnoticed. Faults of one file follow each other, so each costs one recompile.

guard=hw/camsys/cam_deliver/CamDeliverGuard.cpp
deliver=hw/camsys/cam_deliver/CamDeliver.cpp
queue=hw/camsys/cam_deliver/LicenseQueue.cpp

# A sensor no longer waits for the sync group of its previous frame.
fault sync-check-always-true "$guard" "CamDeliverGuard::isPreviousSyncFrameFinished(" \
  "if (!isEnquedLocked(*prev, s)) return false;" \
  "if (!isEnquedLocked(*prev, s)) return true;"

# A raw-switch frame no longer waits for the off sensor's previous frame.
fault off-sensor-check-always-true "$guard" "CamDeliverGuard::waitOffSensorPreviousFrameEnqued(" \
  "if (prev) return prev->getIsEnqued(offSensor);" \
  "if (prev) return true;"

# A completed job wakes nobody: waiters sleep on until some other change.
fault finished-wakes-nobody "$guard" "CamDeliverGuard::finished(" "cond.notify_all();" ""

# The last enqueue of a frame leaves its record in the pool.
fault last-enqueue-keeps-record "$guard" "CamDeliverGuard::finished(" "fcPool->erase(frameNo);" ""

# A drop hands out the sensor's next stamp without moving the counter on.
fault drop-keeps-order-counter "$guard" "CamDeliverGuard::drop(" "next = order + 1;" ""

# A flush leaves the sensor's order counter where it was.
fault flush-keeps-order-counter "$guard" "CamDeliverGuard::flush(" "orderMap[sensorId] = 0;" ""

# Faults that only some interleavings expose; camdeliver-explore is meant to catch them.
# A completed job notifies before it takes the guard's lock and marks its progress: a waiter
# that checks in between sleeps on with nobody left to wake it.
fault finished-notifies-before-update "$guard" "CamDeliverGuard::finished(" \
  "  cond.notify_all();" \
  "" \
  "  std::lock_guard<std::mutex> lock(mutex);" \
  "  cond.notify_all();
  std::lock_guard<std::mutex> lock(mutex);"

# The raw-switch wait tests its predicate once: a wake-up for anything else, or a spurious
# one, lets the sensor go before the off sensor's previous frame is enqueued.
fault off-sensor-wait-tests-once "$guard" "CamDeliverGuard::wait(" \
  "while (!waitOffSensorPreviousFrameEnqued(offSensor, frameNo)) lock.wait(cond);" \
  "if (!waitOffSensorPreviousFrameEnqued(offSensor, frameNo)) lock.wait(cond);"

# A drop retires the record but wakes nobody: a sensor waiting for the dropped frame's sync
# group sleeps on unless some later change happens to wake it.
fault drop-wakes-nobody "$guard" "CamDeliverGuard::drop(" "  cond.notify_all();" ""

# A flush retires the sensor's frames but wakes nobody: a partner's send waiting for one of
# them sleeps on (explored_wakeup_test: the flush is its only wake-up there).
fault flush-wakes-nobody "$guard" "CamDeliverGuard::flush(" "  cond.notify_all();" ""

# A sync break lets the waiters go but does not tell them (explored_wakeup_test: a sensor
# reporting nothing in flight, whose sends are held until its partner is through).
fault sync-break-wakes-nobody "$guard" "CamDeliverGuard::breakFrameSync(" "  cond.notify_all();" ""

# Each way a record leaves the pool must wake a drain (waitUntilEnquedEmpty) by itself.
fault last-enqueue-erase-wakes-no-drain "$guard" "CamDeliverGuard::finished(" \
  "eraseCond.notify_all();" \
  ""
fault drop-erase-wakes-no-drain "$guard" "CamDeliverGuard::drop(" "eraseCond.notify_all();" ""
fault flush-erase-wakes-no-drain "$guard" "CamDeliverGuard::flush(" "eraseCond.notify_all();" ""

# A sync group's licences each get an FD of their own.
fault sync-group-own-fds "$deliver" "CamDeliver::prepareLicense(" \
  "mLicenseQueue.pushLicense(s, frame, mpPipeMgr->acquireLicenseForFD(fd));" \
  "mLicenseQueue.pushLicense(s, frame, mpPipeMgr->acquireLicense());"

# An in-flight report moves the frames to new FDs but leaves them in sync.
fault inflight-keeps-sync "$deliver" "CamDeliver::notifyEvent(" \
  "mGuard.breakFrameSync(sensorId, frames);" \
  ""

# clear() drops the queued licences without handing them back.
fault clear-keeps-licences "$queue" "LicenseQueue::clear(" \
  "releaseLicense(std::move(entry.second));" \
  ""

# A licence released by key is handed to the pipe manager twice.
fault release-hands-back-twice "$queue" "LicenseQueue::releaseLicense(uint32_t" \
  "license.reset();" \
  "static_cast<pipemgr::isp7::ILicenseMgr&>(*mpPipeMgr).releaseLicense(license, false, true); license.reset();"
