# The Python module (python/): built when Debian's interpreter, its headers
# and pybind11 are there, or when VELTAN_BUILD_PYTHON is ON (then they must be).
# The `python3` first on PATH may be an interpreter without NumPy, so
# Debian's is named unless the caller names another.
if(VELTAN_BUILD_PYTHON STREQUAL "OFF")
  return()
endif()
if(NOT DEFINED Python_EXECUTABLE AND NOT SKBUILD AND EXISTS /usr/bin/python3)
  set(Python_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Interpreter the Python module is built and tested for")
endif()
if(VELTAN_BUILD_PYTHON STREQUAL "ON")
  set(veltan_python_required REQUIRED)
endif()
find_package(Python 3.8 COMPONENTS Interpreter Development.Module ${veltan_python_required})
if(Python_FOUND)
  find_package(pybind11 2.6 CONFIG ${veltan_python_required})
endif()
if(NOT Python_FOUND OR NOT pybind11_FOUND)
  message(STATUS "Python module: not built (needs Python headers and pybind11; see scripts/install-deps.sh)")
  return()
endif()
message(STATUS "Python module: built for ${Python_EXECUTABLE}")
add_subdirectory(python)
