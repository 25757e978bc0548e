# Runs one script through qva with the leak check; all it printed (standard
# output and error, in order) must equal the expected file.
#   -DQVA=... -DSCRIPT=... -DEXPECTED=... -DEXPECT_RC=... -DWORKDIR=...
#   -DULIMIT="-s 256" (optional): the shell's resource limit to run under
#   [-DQVA_PATH=...]  the search path for routines found by file name
file(MAKE_DIRECTORY ${WORKDIR})
if(DEFINED QVA_PATH)
  set(ENV{QVA_PATH} ${QVA_PATH})
else()
  unset(ENV{QVA_PATH})
endif()
if(ULIMIT)
  set(command sh -c "ulimit ${ULIMIT} && exec \"$0\" --check-leaks \"$1\"" ${QVA} ${SCRIPT})
else()
  set(command ${QVA} --check-leaks ${SCRIPT})
endif()
execute_process(COMMAND ${command}
                WORKING_DIRECTORY ${WORKDIR}
                OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
file(READ ${EXPECTED} expected)
if(NOT "${rc}" STREQUAL "${EXPECT_RC}")
  message(FATAL_ERROR "qva exited with ${rc}, expected ${EXPECT_RC}; output:\n${out}")
endif()
if(NOT "${out}" STREQUAL "${expected}")
  file(WRITE ${WORKDIR}/actual.out "${out}")
  message(FATAL_ERROR "output differs from ${EXPECTED} (actual in ${WORKDIR}/actual.out):\n${out}")
endif()
