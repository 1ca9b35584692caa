# Installs the Python package alone into a scratch prefix and imports it from there, with the
# build tree off the path.
set(prefix ${BUILD_DIR}/install-check-python)
file(REMOVE_RECURSE ${prefix})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                        --component python RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install --component python failed")
endif()
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env PYTHONPATH=${prefix}/${PYTHON_DIR}
          ${PYTHON} -c "import mrkit, numpy as np; assert mrkit.__file__.startswith('${prefix}'); print(mrkit.sos(np.ones((2, 3)), 1).ravel())"
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the installed package does not import")
endif()
