# SPDX-License-Identifier: MIT
# What `cmake --install` puts where: all that somebody needs who writes a protocol module, and the program that runs it.
# Every place is told relative to the others, so the whole can be moved.
include(CMakePackageConfigHelpers)

install(TARGETS zarn RUNTIME)
install(TARGETS zarn_util ${ZARN_SAMPLE_MODULES} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/zarn/modules/network)
install(DIRECTORY include/zarn DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES platform/kern.h platform/skiplist.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zarn/platform)
install(FILES examples/modules/sample_clock.h examples/modules/sample_host.h examples/modules/sample_module.h
    examples/modules/sample_packet.h examples/modules/sample_protocol.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zarn/samples)

# The settings of somebody who has changed them stay; the sample is always there to compare with.
install(FILES examples/zarn.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/zarn)
install(CODE "
    set(place \"${CMAKE_INSTALL_SYSCONFDIR}\")
    cmake_path(ABSOLUTE_PATH place BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
    if(NOT EXISTS \"\$ENV{DESTDIR}\${place}/zarn.conf\")
        file(INSTALL \"${PROJECT_SOURCE_DIR}/examples/zarn.conf\" DESTINATION \"\${place}\")
    endif()")

file(RELATIVE_PATH prefix_from_here ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_here ${prefix_from_here})
configure_file(cmake/zarn.pc.in generated/zarn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/generated/zarn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/zarn)
add_library(zarn_headers INTERFACE)
set_target_properties(zarn_headers PROPERTIES EXPORT_NAME headers)
target_include_directories(zarn_headers INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS zarn_headers EXPORT zarn-targets)
install(EXPORT zarn-targets NAMESPACE zarn:: DESTINATION ${package})
write_basic_package_version_file(generated/zarn-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/zarn-config.cmake ${PROJECT_BINARY_DIR}/generated/zarn-config-version.cmake DESTINATION ${package})
