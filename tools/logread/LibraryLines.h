#pragma once
// Every line the library writes, declared: its tag, the macro that writes it (CD_LOGD and
// CD_LOGV at debug level, CD_LOGV only with the force-log property, CD_LOGW warning, CD_LOGE
// error, CD_FATAL error then the assertion; emit: a line built by a helper), the function that
// names it in the line, its format, and how the reader knows it:
//   "func:NAME"       LogReader dispatches on the function name alone;
//   "text:FRAGMENT"   LogReader (or the report) matches this fragment of the format;
//   "catalogue:TEXT"  MessageCatalogue.cpp knows the line by this part of its shape (numbers
//                     as N): the fatal assertions and the warnings it explains;
//   nullptr           not read, and the note says why.
// scripts/check-log-lines.py (ctest library_log_lines) compares this table with the calls in
// hw/camsys/cam_deliver/*.cpp and each key with the reader's sources, and names the place to
// update when a library line changes: change a line there, then here, then the reader.
namespace orvcam {
namespace logread {

struct LibraryLine {
  const char* tag;
  const char* macro;
  const char* function;
  const char* format;
  const char* key;   // how the reader knows it (above), or nullptr
  const char* note;  // why it is not read, or what it tells the reader
};

// clang-format off
inline constexpr LibraryLine kLibraryLines[] = {
    {"OrvCam/CamDeliver", "CD_LOGV", "CamDeliver", "[%s] vendor.debug.camcoordinator.force.log_CamDeliver(%d)", "func:CamDeliver", "a deliverer built with the force-log property: a session starts"},
    {"OrvCam/CamDeliver", "CD_LOGD", "prepare", "[%s] [F:%d] coming before, skip prepare license", nullptr, "the guard's own prepare line follows and carries the order stamp"},
    {"OrvCam/CamDeliver", "CD_FATAL", "prepareLicense", "[F:%d] weird synclist count", "catalogue:[F:N] weird synclist count", ""},
    {"OrvCam/CamDeliver", "CD_FATAL", "prepareLicense", "[F:%d] sensorId(%d) in synclist but not in enqlist", "catalogue:[F:N] sensorId(N) in synclist but not in enqlist", ""},
    {"OrvCam/CamDeliver", "CD_LOGD", "sendJobForConfigure", "[%s] [S:%d F:%d]", "func:sendJobForConfigure", "a configure send begins"},
    {"OrvCam/CamDeliver", "CD_FATAL", "sendJobForConfigure", "[S:%d F:%d] No license to config, please check flow !!", "catalogue:[S:N F:N] No license to config, please check flow !!", ""},
    {"OrvCam/CamDeliver", "CD_FATAL", "sendJobForEnque", "[S:%d F:%d] pJob is null", "catalogue:[S:N F:N] pJob is null", ""},
    {"OrvCam/CamDeliver", "CD_LOGV", "sendJobForEnque", "[%s] [S:%d F:%d]", "func:sendJobForEnque", "an enqueue send begins"},
    {"OrvCam/CamDeliver", "CD_LOGW", "sendJobForEnque", "[%s] [S:%d F:%d] null license, maybe flushed, skip execute", "text:null license", "the send returns -1 without running its job"},
    {"OrvCam/CamDeliver", "CD_LOGD", "getLicense", "[%s] [S:%d F:%d] FD(%d)", "text:FD(", "the job got its licence: the job starts"},
    {"OrvCam/CamDeliver", "CD_LOGW", "getLicense", "[%s] [S:%d F:%d] FD(NULL)", "catalogue:FD(NULL)", ""},
    {"OrvCam/CamDeliver", "CD_LOGD", "notifyEvent", "[%s] [S:%d F:%d] type(%s), value(%d)", "text:value(", "an event of the pipeline"},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "prepare", "[S:%d F:%d] pFc nullptr !", "catalogue:[S:N F:N] pFc nullptr !", ""},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "prepare", "[%s] [S:%d F:%d] prepared, order(%ld)", "text:prepared, order(", "a preparation and its order stamp"},
    {"OrvCam/CamDeliverGuard", "CD_LOGW", "setConfigured", "[%s] [S:%d F:%d] FC not found ! maybe flushed", "catalogue:FC not found ! maybe flushed", ""},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "setConfigured", "[S:%d F:%d] FC not found !", "catalogue:[S:N F:N] FC not found !", ""},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "setConfigured", "[S:%d F:%d] FC already finished, please check it !", "catalogue:[S:N F:N] FC already finished, please check it !", ""},
    {"OrvCam/CamDeliverGuard", "CD_LOGV", "isPreviousSyncFrameFinished", "[%s] [S:%d F:%d] previous synced FC not found !", "func:isPreviousSyncFrameFinished", "a wait check that found no previous frame"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "waitOffSensorPreviousFrameEnqued", "[%s] [S:%d F:%d] off sensor previous FC not found !", "func:waitOffSensorPreviousFrameEnqued", "a raw-switch check that found no previous frame"},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "wait", "[S:%d F:%d] FC not found !", "catalogue:[S:N F:N] FC not found !", ""},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "wait", "[S:%d F:%d] unexpected not enq count(%d)", "catalogue:[S:N F:N] unexpected not enq count(N)", ""},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "wait", "[%s] [S:%d F:%d][%s] wait offSensor(%d) enqed +", "text:enqed +", "a raw-switch wait begins"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "wait", "[%s] [S:%d F:%d][%s] wait offSensor(%d) enqed -", "text:offSensor(", "a raw-switch wait ends"},
    {"OrvCam/CamDeliverGuard", "CD_LOGV", "operator()", "[%s] [S:%d F:%d][%s] previous syncframe enque done", "func:operator()", "a sync wait found its group enqueued"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "operator()", "[%s] [S:%d F:%d][%s] wait previous syncframe enque ...", "text:wait previous syncframe enque ...", "a sync wait sleeps"},
    {"OrvCam/CamDeliverGuard", "CD_LOGW", "finished", "[%s] [S:%d F:%d] FC not found ! maybe flushed", "catalogue:FC not found ! maybe flushed", ""},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "finished", "[S:%d F:%d] FC not found !", "catalogue:[S:N F:N] FC not found !", ""},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "finished", "[S:%d F:%d] FC already finished, please check it !", "catalogue:[S:N F:N] FC already finished, please check it !", ""},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "finished", "[%s] [S:%d F:%d] %s", "func:finished", "a job ended: \"ConfigJob finished. \", \"EnqJob finished. \" or \"EnqJob finished. Is last, erase it.\""},
    {"OrvCam/CamDeliverGuard", "CD_LOGW", "drop", "[%s] [S:%d F:%d] FC not found", "text:FC not found", "a drop that found no record"},
    {"OrvCam/CamDeliverGuard", "CD_LOGW", "drop", "[%s] [S:%d F:%d] already finished", "func:drop", "a drop of a finished frame"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "drop", "[%s] [S:%d F:%d] drop", "text:drop", "a drop marks the sensor done"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "drop", "[%s] [S:%d F:%d] is last, erase", "text:is last, erase", "the drop retired the record"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "flush", "[%s] [S:%d F:%d] is last, erase", "func:flush", "the flush retired the record"},
    {"OrvCam/CamDeliverGuard", "CD_FATAL", "breakFrameSync", "[S:%d F:%d] pFc nullptr !", "catalogue:[S:N F:N] pFc nullptr !", ""},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "breakFrameSync", "[%s] [S:%d F:%d] come to break frameSync", "func:breakFrameSync", "a frame's sync broken"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "breakFrameSync", "[%s] [S:%d] break all frameSync, notify_all!", "func:breakFrameSync", "the in-flight report's sync break ends"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "waitUntilEnquedEmpty", "[%s] %s", "func:waitUntilEnquedEmpty", "a drain begins, with the frames it waits for"},
    {"OrvCam/CamDeliverGuard", "CD_LOGD", "waitUntilEnquedEmpty", "[%s] wait until sensorId(%d) enqued empty -", "func:waitUntilEnquedEmpty", "a drain ends"},
    {"OrvCam/CamDeliverGuard", "emit", "(the query)", "[%s] %s", "text:frame list: ", "the frames a query found, in the name of getSyncFrames, getEnquedSyncFrames"},
    {"OrvCam/FrameContextPool", "CD_FATAL", "emplace", "FCPool size > %d : %s", "catalogue:FCPool size > ", ""},
    {"OrvCam/FrameContextPool", "CD_LOGD", "getPreviousFC", "[%s] get latest frameNo(%d)", nullptr, "a no-frame send's previous frame; its wait lines say what it waited for"},
    {"OrvCam/FrameContextPool", "CD_LOGD", "getPreviousFC", "[%s] [S:%d F:%d] get previous frameNo(%d) order(%ld) < currentOrder(%ld)", "text:previous frameNo(", "the previous frame a wait check found"},
    {"OrvCam/FrameContextPool", "CD_LOGW", "erase", "[%s] [F:%d] FC not exist, skip", nullptr, "the pool's own warning: its erase after the guard's is counted by the guard's lines"},
    {"OrvCam/FrameContextPool", "CD_LOGW", "isEmpty", "[%s] not empty, S:%d F:%d still there ...", nullptr, "written by a query the library does not call"},
    {"OrvCam/LicenseQueue", "CD_LOGE", "~LicenseQueue", "[%s] %s", nullptr, "the queue's contents before its fatal assertion, which is read"},
    {"OrvCam/LicenseQueue", "CD_FATAL", "~LicenseQueue", "mQueue size should be 0!", "catalogue:mQueue size should be 0!", ""},
    {"OrvCam/LicenseQueue", "CD_FATAL", "pushLicense", "[S:%d F:%d] pLicense is null", "catalogue:[S:N F:N] pLicense is null", ""},
    {"OrvCam/LicenseQueue", "CD_FATAL", "pushLicense", "[S:%d F:%d] license should not exist !!, please check the flow !!", "catalogue:[S:N F:N] license should not exist !!, please check the flow !!", ""},
    {"OrvCam/LicenseQueue", "CD_LOGV", "pushLicense", "[%s] [S:%d F:%d] fd(%d)", "text:fd(", "a licence queued, with its FD"},
    {"OrvCam/LicenseQueue", "CD_LOGW", "popLicense", "[%s] Cam %d NOT have F:%d in licenseQueue", "catalogue:NOT have F:N in licenseQueue", ""},
    {"OrvCam/LicenseQueue", "CD_FATAL", "popLicense", "[S:%d F:%d] pLicense is null", "catalogue:[S:N F:N] pLicense is null", ""},
    {"OrvCam/LicenseQueue", "CD_LOGV", "popLicense", "[%s] [S:%d F:%d] license(%p) fd(%d)", "func:popLicense", "a licence taken by a job"},
    {"OrvCam/LicenseQueue", "CD_LOGV", "popLicense", "[%s] [S:%d F:%d] erase.", "func:popLicense", "a licence left the queue"},
    {"OrvCam/LicenseQueue", "CD_LOGW", "releaseLicense", "[%s] license is null, skip", nullptr, "a release of an empty licence; the pipe manager's account tells more"},
    {"OrvCam/LicenseQueue", "CD_LOGW", "releaseLicense", "[%s] [S:%d F:%d] license already null !", "catalogue:license already null !", ""},
    {"OrvCam/LicenseQueue", "CD_LOGD", "releaseLicense", "[%s] [S:%d F:%d] release license(%d) from pipeMgr", "text:release license(", "a licence handed back"},
    {"OrvCam/LicenseQueue", "CD_LOGW", "releaseLicense", "[%s] Cam %d NOT have F:%d in licenseQueue", "catalogue:NOT have F:N in licenseQueue", ""},
    {"OrvCam/LicenseQueue", "CD_FATAL", "changeFramesFD", "frameNo(%d) not exist, check it has been poped or not", "catalogue:frameNo(N) not exist, check it has been poped or not", ""},
    {"OrvCam/LicenseQueue", "CD_FATAL", "changeFramesFD", "frameNo(%d) doesn't contain any FD, should not happen", "catalogue:frameNo(N) doesn't contain any FD, should not happen", ""},
    {"OrvCam/LicenseQueue", "CD_FATAL", "changeFramesFD", "[S:%d] configure frame(%d) must not in change-FD flow, please check CamDeliver::prepareLicense() !", "catalogue:[S:N] configure frame(N) must not in change-FD flow", ""},
    {"OrvCam/LicenseQueue", "CD_LOGD", "changeFramesFD", "[%s] [S:%d F:%d] change FD (%d) -> (%d)", "text:change FD (", "a licence moved to a new FD"},
    {"OrvCam/LicenseQueue", "CD_LOGD", "clear", "[%s] [S:%d F:%d] release", "func:clear", "a licence handed back by the queue flush"},
};
// clang-format on

}  // namespace logread
}  // namespace orvcam
