# mrkit_add_mex(NAME <name> SOURCES <files...> LIBS <targets...>)
# Builds <name>.mex for GNU Octave into ${MRKIT_MEX_DIR} and, when CMake finds a MATLAB, a
# MATLAB MEX file of the same name (32-bit-index API) into ${MRKIT_MEX_DIR}/matlab. Either
# module exports mexFunction and nothing else.
set(MRKIT_MEX_DIR ${PROJECT_BINARY_DIR}/mex)

if(MRKIT_BUILD_MEX)
  find_program(MKOCTFILE_EXECUTABLE NAMES mkoctfile)
  find_program(OCTAVE_CLI_EXECUTABLE NAMES octave-cli octave)
  if(MKOCTFILE_EXECUTABLE)
    execute_process(COMMAND ${MKOCTFILE_EXECUTABLE} -p OCTINCLUDEDIR
                    OUTPUT_VARIABLE OCTAVE_INCLUDE_DIR OUTPUT_STRIP_TRAILING_WHITESPACE)
  else()
    message(WARNING "mkoctfile not found: the Octave MEX modules are not built")
  endif()
  find_package(Matlab QUIET COMPONENTS MX_LIBRARY)
endif()

function(mrkit_add_mex)
  cmake_parse_arguments(MEX "" "NAME" "SOURCES;LIBS" ${ARGN})
  if(NOT MRKIT_BUILD_MEX)
    return()
  endif()
  if(OCTAVE_INCLUDE_DIR)
    set(target ${MEX_NAME}_octave)
    add_library(${target} MODULE ${MEX_SOURCES})
    target_include_directories(${target} SYSTEM PRIVATE ${OCTAVE_INCLUDE_DIR} ${OCTAVE_INCLUDE_DIR}/..)
    target_link_libraries(${target} PRIVATE ${MEX_LIBS})
    target_link_options(${target} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/mex.map)
    # mexFunction keeps default visibility; the version script hides everything else.
    set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".mex" OUTPUT_NAME ${MEX_NAME}
                          CXX_VISIBILITY_PRESET default
                          LIBRARY_OUTPUT_DIRECTORY ${MRKIT_MEX_DIR}
                          LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/mex.map)
  endif()
  if(Matlab_FOUND)
    # Untested here (no MATLAB on the build machines); kept to the documented FindMatlab path.
    set(target ${MEX_NAME}_matlab)
    # Ctrl-C: MATLAB keeps its interrupt flag in libut (utIsInterruptPending).
    find_library(MATLAB_UT_LIBRARY ut PATHS ${Matlab_ROOT_DIR}/bin/glnxa64 NO_DEFAULT_PATH)
    set(ut "")
    if(MATLAB_UT_LIBRARY)
      set(ut ${MATLAB_UT_LIBRARY})
    endif()
    matlab_add_mex(NAME ${target} OUTPUT_NAME ${MEX_NAME} SRC ${MEX_SOURCES} LINK_TO ${MEX_LIBS} ${ut} R2017b)
    target_compile_definitions(${target} PRIVATE MX_COMPAT_32 MRKIT_MATLAB)
    if(MATLAB_UT_LIBRARY)
      target_compile_definitions(${target} PRIVATE MRKIT_MATLAB_UT)
    endif()
    set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${MRKIT_MEX_DIR}/matlab)
  endif()
endfunction()
