# SPDX-License-Identifier: MIT
# find_package(zarn): the target zarn::headers, the directory ZARN_MODULE_DIRECTORY that the installed program loads modules
# from, and zarn_add_module(NAME SOURCE...), which makes the protocol module network/NAME.
include(${CMAKE_CURRENT_LIST_DIR}/zarn-targets.cmake)
get_filename_component(ZARN_MODULE_DIRECTORY ${CMAKE_CURRENT_LIST_DIR}/../../zarn/modules ABSOLUTE)

function(zarn_add_module name)
    add_library(${name} MODULE ${ARGN})
    set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".so"
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/network)
    target_link_libraries(${name} PRIVATE zarn::headers)
    install(TARGETS ${name} LIBRARY DESTINATION ${ZARN_MODULE_DIRECTORY}/network)
endfunction()
