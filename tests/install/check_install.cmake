# Installs the build tree into a scratch prefix, builds the stand-alone example against the
# installed package and runs it; any failing step fails the test. FLAGS carries the
# sanitizer options of an instrumented build, whose library needs them at link time.
set(prefix ${BUILD_DIR}/install-check/prefix)
set(example ${BUILD_DIR}/install-check/example)
file(REMOVE_RECURSE ${BUILD_DIR}/install-check)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
set(expected include/recon/recon.hpp lib/cmake/mrkit/mrkitConfig.cmake)
# The .m files travel with the MEX modules: a build without them installs neither.
if(EXPECT_MEX)
  list(APPEND expected share/mrkit/mex/homodyne.mex share/mrkit/mex/mrkit.mex
       share/mrkit/mex/mrkit.m share/mrkit/mex/homodyne.m share/mrkit/mex/homodyne_recon.m)
endif()
foreach(f ${expected})
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${example} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release
    "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build ${example})
run(${example}/coil_combine)
