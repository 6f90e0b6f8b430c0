# How everything here is compiled.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

find_program(VELMORA_CCACHE ccache)
if(VELMORA_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${VELMORA_CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-Wthread-safety -Wthread-safety-beta)
else()
  add_compile_options(-Wno-restrict)  # g++ 12 sees overlaps in "text" + std::string that are not there (its bug 105651)
endif()
# A server on a network: overflows are caught, addresses are fixed before the first request.
add_compile_options(-fstack-protector-strong)
add_compile_definitions($<IF:$<CONFIG:Debug>,_GLIBCXX_ASSERTIONS,_FORTIFY_SOURCE=2>)
add_link_options(-Wl,-z,relro,-z,now)
# Nobody replaces single functions of these libraries at run time, so calls inside one are inlined and bound directly.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-semantic-interposition> -fno-plt)
add_link_options(-Wl,-Bsymbolic-functions)
if(VELMORA_WERROR)
  add_compile_options(-Werror)
endif()
if(VELMORA_SANITIZE)
  add_compile_options(-fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMORA_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)  # instrumented, std::regex seems to g++ 12 to read what it has not set
  endif()
  if(VELMORA_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-tsan)  # Asio's fences, beside which it has atomics that the sanitizer understands
  endif()
endif()

# velmora_library(NAME SOURCES... ): a shared library with a SONAME that exports its own interface only.
function(velmora_library name)
  add_library(${name} SHARED ${ARGN})
  add_library(EventManager::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    INTERPROCEDURAL_OPTIMIZATION_RELEASE ON)  # calls from one source file to the next are inlined, too
  target_link_options(${name} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/EventManager>)
endfunction()

# velmora_looks_into_server(RESULT SOURCE): whether a test's, benchmark's or fuzz target's source includes headers of the
# server.
function(velmora_looks_into_server result source)
  set(${result} FALSE PARENT_SCOPE)
  file(STRINGS ${source} includes REGEX "^#include \"")
  foreach(include IN LISTS includes)
    string(REGEX REPLACE ".*\"(.*)\".*" "\\1" header "${include}")
    if(EXISTS ${PROJECT_SOURCE_DIR}/server/${header})
      set(${result} TRUE PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

# velmora_link_what_it_includes(TARGET SOURCE): the module and the server's parts for a test, benchmark or fuzz target whose
# source includes their headers. One that has the module's source inside, to reach what is local to it, is not linked
# with the module as well.
function(velmora_link_what_it_includes target source)
  file(STRINGS ${source} includes REGEX "^#include \"")
  if(includes MATCHES "EventManager\\.cpp")
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  elseif(includes MATCHES "EventManager\\.h|QueueProbe\\.h")
    target_link_libraries(${target} PRIVATE EventManager)
  endif()
  if(includes MATCHES "Cluster\\.h")
    target_link_libraries(${target} PRIVATE VelmoraCluster)
  endif()
  velmora_looks_into_server(server_too ${source})
  if(server_too)
    target_link_libraries(${target} PRIVATE server_parts)
  endif()
endfunction()
