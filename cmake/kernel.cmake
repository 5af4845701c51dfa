# SPDX-License-Identifier: MIT
# The module as a kernel compiles it: freestanding, general registers only, one relocatable object for each width. Nothing is
# run here; the test is that it compiles, links and asks only for what a kernel supplies.

enable_testing()
zarn_module_sources(sources)
foreach(width 64 32)
    set(objects zarn_kernel_objects_${width})
    add_library(${objects} OBJECT ${sources})
    zarn_module_options(${objects})
    set_target_properties(${objects} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_include_directories(${objects} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
    target_compile_options(${objects} PRIVATE -m${width} -ffreestanding -mgeneral-regs-only -fno-stack-protector
        -fno-pic -Wall -Wextra -Wshadow -Werror $<IF:$<EQUAL:${width},32>,-march=i686,-mcx16$<SEMICOLON>-mno-red-zone>)

    set(linked ${PROJECT_BINARY_DIR}/zarn_util.${width}.o)
    add_custom_command(OUTPUT ${linked} DEPENDS ${objects} $<TARGET_OBJECTS:${objects}>
        COMMAND ${CMAKE_CXX_COMPILER} -m${width} -nostdlib -r -o ${linked} $<TARGET_OBJECTS:${objects}>
        # Inside one link everything sees everything; to the outside only the exported list stays visible.
        COMMAND ${CMAKE_OBJCOPY} --keep-global-symbol=modules ${linked}
        COMMAND_EXPAND_LISTS VERBATIM)
    add_custom_target(zarn_kernel_${width} ALL DEPENDS ${linked})
    add_test(NAME kernel_symbols_${width} COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-symbols ${linked})
endforeach()
