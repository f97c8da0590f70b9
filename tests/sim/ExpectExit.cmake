# Runs a command and checks its exit code and, optionally, that its stderr holds a text.
#   cmake -DCMD="prog;arg;..." -DEXPECT_RC=2 [-DEXPECT_STDERR=text] -P ExpectExit.cmake
execute_process(COMMAND ${CMD} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc STREQUAL EXPECT_RC)
  message(FATAL_ERROR "exit code ${rc}, expected ${EXPECT_RC}\nstdout:\n${out}\nstderr:\n${err}")
endif()
if(DEFINED EXPECT_STDERR)
  string(FIND "${err}" "${EXPECT_STDERR}" pos)
  if(pos EQUAL -1)
    message(FATAL_ERROR "stderr lacks \"${EXPECT_STDERR}\":\n${err}")
  endif()
endif()
message(STATUS "exit ${rc}: ${err}")
