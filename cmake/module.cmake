# SPDX-License-Identifier: MIT
# How the module is compiled, wherever it is compiled: for the hosted build, for the tests, and as a kernel would.

function(zarn_module_sources result)
    set(sources)
    foreach(folder module memory data sync roster diagnostics)
        file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cc)
        list(APPEND sources ${found})
    endforeach()
    set(${result} ${sources} PARENT_SCOPE)
endfunction()

function(zarn_module_options target)
    target_compile_options(${target} PRIVATE
        -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables
        -fvisibility=hidden -fvisibility-inlines-hidden -Wpedantic -Wconversion -Wno-sign-conversion)
endfunction()
