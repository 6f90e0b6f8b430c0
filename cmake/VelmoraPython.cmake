# The Python to embed, as the target velmora_python. Debian's own Python 3 is found through pkg-config, so that another
# python3 that comes first on the PATH is not mixed up with it. VELMORA_PYTHON_PROGRAM names the program that stands
# beside the library: the interpreter finds its standard modules from there.
add_library(velmora_python INTERFACE)

if(VELMORA_PYTHON STREQUAL "3")
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(VELMORA_PYTHON3 REQUIRED python3-embed)
  pkg_get_variable(prefix python3-embed exec_prefix)
  target_include_directories(velmora_python SYSTEM INTERFACE ${VELMORA_PYTHON3_INCLUDE_DIRS})
  target_link_libraries(velmora_python INTERFACE ${VELMORA_PYTHON3_LINK_LIBRARIES})
  set(VELMORA_PYTHON_PROGRAM "${prefix}/bin/python3")
  set(VELMORA_PYTHON_DESCRIPTION "Python ${VELMORA_PYTHON3_VERSION}")
elseif(VELMORA_PYTHON STREQUAL "2.7")
  set(prefix "${VELMORA_PYTHON27_PREFIX}")
  if(NOT prefix)
    find_program(VELMORA_PYTHON27_CONFIG python2.7-config)
    if(VELMORA_PYTHON27_CONFIG)
      execute_process(COMMAND ${VELMORA_PYTHON27_CONFIG} --prefix OUTPUT_VARIABLE prefix
                      OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    endif()
  endif()
  find_path(VELMORA_PYTHON27_INCLUDE Python.h PATHS ${prefix}/include/python2.7 NO_DEFAULT_PATH)
  find_library(VELMORA_PYTHON27_LIBRARY python2.7
               PATHS ${prefix}/lib ${prefix}/lib/${CMAKE_LIBRARY_ARCHITECTURE} NO_DEFAULT_PATH)
  if(NOT VELMORA_PYTHON27_INCLUDE OR NOT VELMORA_PYTHON27_LIBRARY)
    message(FATAL_ERROR "No Python 2.7 with headers and a shared library found; give its prefix in VELMORA_PYTHON27_PREFIX.")
  endif()
  target_include_directories(velmora_python SYSTEM INTERFACE ${VELMORA_PYTHON27_INCLUDE})
  target_link_libraries(velmora_python INTERFACE ${VELMORA_PYTHON27_LIBRARY})
  # Python 2.7's headers use the register keyword, which C++17 took away.
  target_compile_options(velmora_python INTERFACE -Wno-register)
  set(VELMORA_PYTHON_PROGRAM "${prefix}/bin/python2.7")
  set(VELMORA_PYTHON_DESCRIPTION "Python 2.7")
else()
  message(FATAL_ERROR "VELMORA_PYTHON is \"${VELMORA_PYTHON}\"; it must be 3 or 2.7.")
endif()
target_compile_definitions(velmora_python INTERFACE VELMORA_PYTHON_PROGRAM="${VELMORA_PYTHON_PROGRAM}")
message(STATUS "Embedding ${VELMORA_PYTHON_DESCRIPTION}")
