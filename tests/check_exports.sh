#!/usr/bin/env bash
# The library exports its own classes and defines nothing of the platform it runs on: the
# logger, debug print, tracing, assertion, properties and pipe manager come from the
# platform's libraries at link time.
set -u
lib="$1"
defined=$(nm -DC --defined-only "$lib") || { echo "nm failed on $lib"; exit 1; }
status=0
platform='^[0-9a-f]+ [A-Za-z] ((typeinfo|typeinfo name|vtable|VTT) for )?(NSCam::Utils::|NSCam::camsys::pipemgr::|__android_log_assert|atrace_get_enabled_tags|log_dbg_print|get_filename_log_control|g_logInfoLv)'
if echo "$defined" | grep -E "$platform"; then
  echo "FAIL: the library defines platform symbols (above)"
  status=1
fi
for name in FrameContextPool LicenseQueue CamDeliverGuard CamDeliver ReqBaseJob ReqCfgJob; do
  if ! echo "$defined" | grep -q " NSCam::camsys::camcoordinator::$name::"; then
    echo "FAIL: NSCam::camsys::camcoordinator::$name is not exported"
    status=1
  fi
done
if ! echo "$defined" | grep -qE ' [BD] NSCam::camsys::camcoordinator::CamDeliver::mLogLevel$'; then
  echo "FAIL: CamDeliver::mLogLevel is not exported"
  status=1
fi
undefined=$(nm -DC --undefined-only "$lib")
for name in 'NSCam::camsys::pipemgr::isp7::IPipeMgr::getInstance()' __android_log_assert \
            'NSCam::Utils::Properties::property_get_int32'; do
  echo "$undefined" | grep -qF "$name" || { echo "FAIL: $name is not left to the platform"; status=1; }
done
[ $status -eq 0 ] && echo "exports OK: $(echo "$defined" | grep -c camcoordinator) library symbols, no platform symbols"
exit $status
