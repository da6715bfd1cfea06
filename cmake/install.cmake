# What `cmake --install` puts in place, and the files that let other builds find the library:
#   bin/posix-server, bin/posixctl
#   lib/libposix_client.a, lib/libposix_client.so (shared, px_ calls only)
#   include/posix_client.h, include/posix/*.h (the wire formats it includes)
#   lib/pkgconfig/posix_client.pc                 pkg-config --cflags --libs posix_client
#   lib/cmake/posix_client/posix_clientConfig.cmake
#       find_package(posix_client) gives posix_client::posix_client (shared) and
#       posix_client::posix_client_static
install(TARGETS posix-server posixctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS posix_client posix_client_shared EXPORT posix_client_targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/client/include/posix_client.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/protocol/include/posix
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(POSIX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/posix_client)
install(EXPORT posix_client_targets NAMESPACE posix_client:: DESTINATION ${POSIX_CMAKE_DIR}
  FILE posix_client_targets.cmake)
include(CMakePackageConfigHelpers)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/posix_clientConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/posix_clientConfig.cmake INSTALL_DESTINATION ${POSIX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/posix_clientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/posix_clientConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/posix_clientConfigVersion.cmake DESTINATION ${POSIX_CMAKE_DIR})

# The .pc file names its prefix relative to its own folder, so an install with
# `cmake --install --prefix P` (or a copied tree) finds its headers and library wherever it
# lands; the prefix given at configure time is used only for an absolute library folder. Its
# Libs carry an rpath to the library folder, so a program built by the one-line
# `cc prog.c $(pkg-config --cflags --libs posix_client)` runs from any prefix.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(POSIX_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH POSIX_PC_UP "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
  string(REGEX REPLACE "/$" "" POSIX_PC_UP "${POSIX_PC_UP}")
  set(POSIX_PC_PREFIX "\${pcfiledir}/${POSIX_PC_UP}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/posix_client.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/posix_client.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/posix_client.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
