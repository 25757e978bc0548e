# Installs the build into a temporary prefix and runs the tour with the
# installed qva, which must find its module and its routine library from
# where it stands (nothing points it at the build tree).
#   -DBUILD_DIR=... -DTOUR=... -DWORKDIR=...
set(prefix ${WORKDIR}/prefix)
file(REMOVE_RECURSE ${WORKDIR})
file(MAKE_DIRECTORY ${WORKDIR}/run)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed:\n${out}")
endif()
foreach(f share/doc/qva_cobalt/README.md share/doc/qva_cobalt/LICENSE
          share/doc/qva_cobalt/architecture.md)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "the install lacks ${f}")
  endif()
endforeach()
# A routine put in the installed library is found by name.
file(WRITE ${prefix}/share/qva/lib/installed_probe.pro
     "FUNCTION installed_probe\n  RETURN, 'found in the installed library'\nEND\n")
unset(ENV{QVA_MODULE})
unset(ENV{QVA_PATH})
execute_process(COMMAND ${prefix}/bin/qva -e "PRINT, installed_probe()"
                WORKING_DIRECTORY ${WORKDIR}/run
                OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "found in the installed library")
  message(FATAL_ERROR "the installed qva did not find its library (${rc}):\n${out}")
endif()
execute_process(COMMAND ${prefix}/bin/qva --check-leaks ${TOUR}
                WORKING_DIRECTORY ${WORKDIR}/run
                OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the tour failed from the installed tree (${rc}):\n${out}")
endif()
file(REMOVE_RECURSE ${WORKDIR})
