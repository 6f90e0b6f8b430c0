# What "cmake --install" puts where: libraries, headers, the CMake package, the .pc file and the server. Everything finds
# the rest from where it stands, so that the prefix may also be chosen when installing.
include(CMakePackageConfigHelpers)

install(TARGETS mirel velmora EventManager EXPORT EventManagerTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(DIRECTORY mirel/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/EventManager COMPONENT development
        FILES_MATCHING PATTERN "MR_*.h")
# The rooms above have headers of their own beside these.
install(FILES velmora/LocalAccessManager.h velmora/VL_HTTP.h velmora/VL_PList.h velmora/VL_PListText.h
              velmora/VL_Python.h velmora/VL_Socket.h velmora/VL_WebSocket.h src/EventManager.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/EventManager COMPONENT development)
# For tests of handlers, with PYTHONPATH set to it; inside the server the module is there without it.
install(FILES velmora/python/velmora.py DESTINATION ${CMAKE_INSTALL_DATADIR}/velmora/python COMPONENT library)
# Libraries of other places (another Python, say) are found at run time where they were linked from.
set_target_properties(mirel velmora EventManager PROPERTIES
  INSTALL_RPATH_USE_LINK_PATH ON INSTALL_RPATH "$ORIGIN")
if(VELMORA_SERVER)
  install(TARGETS velmora-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT server)
  set_target_properties(velmora-server PROPERTIES
    INSTALL_RPATH_USE_LINK_PATH ON INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

install(EXPORT EventManagerTargets NAMESPACE EventManager:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/EventManager
        COMPONENT development)
configure_package_config_file(cmake/EventManagerConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/EventManager)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/EventManager COMPONENT development)

file(RELATIVE_PATH VELMORA_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/EventManager.pc.in ${CMAKE_CURRENT_BINARY_DIR}/EventManager.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/EventManager.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# In the system's own places nothing has to be told where the rest is.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set_target_properties(mirel velmora EventManager PROPERTIES INSTALL_RPATH_USE_LINK_PATH OFF INSTALL_RPATH "")
  if(VELMORA_SERVER)
    set_target_properties(velmora-server PROPERTIES INSTALL_RPATH_USE_LINK_PATH OFF INSTALL_RPATH "")
  endif()
  include(VelmoraPackages)
endif()
