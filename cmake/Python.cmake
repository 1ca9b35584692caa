# Python 3 with NumPy and pybind11 for the Python package. Debian's /usr/bin/python3 is taken
# first: another python3 earlier on PATH may lack NumPy. Sets MRKIT_PYTHON_FOUND.
set(MRKIT_PYTHON_FOUND OFF)
# ThreadSanitizer cannot see inside an uninstrumented interpreter; that build covers the C++.
if(MRKIT_BUILD_PYTHON AND NOT MRKIT_SANITIZE STREQUAL "thread")
  if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
    set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Python 3 for the mrkit package")
  endif()
  find_package(Python3 COMPONENTS Interpreter Development.Module NumPy)
  if(Python3_FOUND AND Python3_NumPy_FOUND)
    set(PYBIND11_FINDPYTHON ON)
    find_package(pybind11 CONFIG QUIET)
  endif()
  if(Python3_NumPy_FOUND AND pybind11_FOUND)
    set(MRKIT_PYTHON_FOUND ON)
  else()
    message(WARNING "Python 3 with NumPy and pybind11 not found: the Python package is not built")
  endif()
endif()
