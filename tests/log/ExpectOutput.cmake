# Runs a command and checks its exit code and that its output (stdout and stderr) holds every
# text of EXPECT (texts separated by "|").
#   cmake -DCMD="prog;arg;..." -DEXPECT_RC=1 "-DEXPECT=text|text" -P ExpectOutput.cmake
execute_process(COMMAND ${CMD} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc STREQUAL EXPECT_RC)
  message(FATAL_ERROR "exit code ${rc}, expected ${EXPECT_RC}\nstdout:\n${out}\nstderr:\n${err}")
endif()
string(REPLACE "|" ";" EXPECT "${EXPECT}")
foreach(text IN LISTS EXPECT)
  string(FIND "${out}${err}" "${text}" pos)
  if(pos EQUAL -1)
    message(FATAL_ERROR "output lacks \"${text}\":\n${out}${err}")
  endif()
endforeach()
