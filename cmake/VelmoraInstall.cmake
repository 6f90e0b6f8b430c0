# What "cmake --install" puts where: libraries, headers, the CMake package, the .pc file and the server.
include(CMakePackageConfigHelpers)

install(TARGETS mirel velmora EventManager EXPORT EventManagerTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY mirel/ velmora/ src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/EventManager
        FILES_MATCHING PATTERN "MR_*.h" PATTERN "VL_*.h" PATTERN "EventManager.h" PATTERN "LocalAccessManager.h")
install(TARGETS velmora-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
set_target_properties(mirel velmora EventManager PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(velmora-server PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(EXPORT EventManagerTargets NAMESPACE EventManager:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/EventManager)
configure_package_config_file(cmake/EventManagerConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/EventManager)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
configure_file(cmake/EventManager.pc.in ${CMAKE_CURRENT_BINARY_DIR}/EventManager.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/EventManagerConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/EventManager)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/EventManager.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
