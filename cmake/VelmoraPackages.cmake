# The Debian packages that "cpack" makes, and what they hold beside what "cmake --install" puts into every prefix:
#
#   libeventmanager1     the libraries                libeventmanager-dev  headers, CMake package, .pc file
#   velmora-server       the server as a service      velmora-client       the terminal client
#
# Only for the prefix /usr, to which Debian's places for services and configurations belong.
set(VELMORA_MAINTAINER "The maintainers of EventManager <maintainers@eventmanager.invalid>"
    CACHE STRING "Who answers for the packages: \"Name <address>\"")
set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(packages library development)

# compressed(RESULT FILE): a copy of the file, packed the same way each time.
function(compressed result file)
  get_filename_component(name ${file} NAME)
  set(packed ${PROJECT_BINARY_DIR}/packaging/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
  execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${packed} COMMAND_ERROR_IS_FATAL ANY)
  set(${result} ${packed} PARENT_SCOPE)
endfunction()

# What every package must tell of itself.
function(package_papers component package)
  install(FILES ${packaging}/debian/copyright DESTINATION share/doc/${package} COMPONENT ${component})
  install(FILES ${changelog} DESTINATION share/doc/${package} COMPONENT ${component})
endfunction()

configure_file(${packaging}/debian/changelog ${PROJECT_BINARY_DIR}/packaging/changelog @ONLY)
compressed(changelog ${PROJECT_BINARY_DIR}/packaging/changelog)
package_papers(library libeventmanager1)
package_papers(development libeventmanager-dev)

if(VELMORA_SERVER)
  list(APPEND packages server)
  package_papers(server velmora-server)
  compressed(manual ${packaging}/velmora-server.1)
  install(FILES ${manual} DESTINATION share/man/man1 COMPONENT server)
  install(FILES ${packaging}/velmora-server.bash DESTINATION share/bash-completion/completions RENAME velmora-server
          COMPONENT server)
  install(FILES ${packaging}/velmora-server.zsh DESTINATION share/zsh/vendor-completions RENAME _velmora-server
          COMPONENT server)
  install(FILES ${packaging}/velmora-server.fish DESTINATION share/fish/vendor_completions.d COMPONENT server)
  install(FILES ${packaging}/velmora-server.service DESTINATION lib/systemd/system COMPONENT server)
  install(FILES ${packaging}/velmora-server.sysusers DESTINATION lib/sysusers.d RENAME velmora-server.conf
          COMPONENT server)
  install(FILES ${packaging}/velmora-server.tmpfiles DESTINATION lib/tmpfiles.d RENAME velmora-server.conf
          COMPONENT server)
  install(FILES ${packaging}/velmora-server.json DESTINATION /etc/velmora COMPONENT server)
  install(DIRECTORY DESTINATION /etc/velmora/handlers COMPONENT server)
  install(DIRECTORY docs/ DESTINATION share/doc/velmora-server COMPONENT server FILES_MATCHING PATTERN "*.md"
          PATTERN screenshots EXCLUDE PATTERN plots EXCLUDE)
  install(FILES CHANGELOG.md DESTINATION share/doc/velmora-server COMPONENT server)
  install(DIRECTORY examples DESTINATION share/doc/velmora-server USE_SOURCE_PERMISSIONS COMPONENT server)
endif()

if(TARGET velmora-terminal)
  list(APPEND packages client)
  package_papers(client velmora-client)
  install(TARGETS velmora-terminal RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT client)
  set(made ${PROJECT_BINARY_DIR}/packaging/client)
  add_custom_command(OUTPUT ${made}/velmora.1.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${made}
    COMMAND velmora-terminal manual | gzip -9n > ${made}/velmora.1.gz
    COMMAND velmora-terminal completion bash > ${made}/velmora
    COMMAND velmora-terminal completion zsh > ${made}/_velmora
    COMMAND velmora-terminal completion fish > ${made}/velmora.fish
    DEPENDS velmora-terminal VERBATIM)
  add_custom_target(client_texts ALL DEPENDS ${made}/velmora.1.gz)
  install(FILES ${made}/velmora.1.gz DESTINATION share/man/man1 COMPONENT client)
  install(FILES ${made}/velmora DESTINATION share/bash-completion/completions COMPONENT client)
  install(FILES ${made}/_velmora DESTINATION share/zsh/vendor-completions COMPONENT client)
  install(FILES ${made}/velmora.fish DESTINATION share/fish/vendor_completions.d COMPONENT client)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME eventmanager)
set(CPACK_PACKAGE_VENDOR EventManager)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has a first line of its own
set(CPACK_PACKAGE_CONTACT "${VELMORA_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                                WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/mirel ${PROJECT_BINARY_DIR}/velmora
                                                ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(same "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libeventmanager1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "event manager module of the Velmora server framework
Named events with their listeners, timers and filesystem watches behind one
queue, with the framework's libraries that it stands on.")

file(WRITE ${PROJECT_BINARY_DIR}/packaging/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libeventmanager-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libeventmanager1 ${same}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "event manager module of the Velmora server framework (headers)
What a program needs that is compiled with the module: headers, the CMake
package EventManager and its file for pkg-config.")

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME velmora-server)
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS
    "libeventmanager1 ${same}, systemd | systemd-sysusers, systemd | systemd-tmpfiles")
set(CPACK_DEBIAN_SERVER_PACKAGE_SUGGESTS "velmora-client ${same}")
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${packaging}/debian/conffiles ${packaging}/debian/postinst
                                              ${packaging}/debian/prerm ${packaging}/debian/postrm)
set(CPACK_DEBIAN_SERVER_DESCRIPTION "event manager as a server: REST, WebSocket feed, web console
Posts named events, by request, by timer and when watched paths change, to
listeners: URLs and Python handlers. Keeps a short history and streams every
posting to the clients of its feed.")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME velmora-client)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS "libeventmanager1 ${same}")
set(CPACK_DEBIAN_CLIENT_DESCRIPTION "client of velmora-server for the terminal
Posts, registers and watches from a terminal or a script.")
include(CPack)
