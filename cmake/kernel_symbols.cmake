# SPDX-License-Identifier: MIT
# Writes what a kernel supplies, as the headers of platform/ declare it, to generated/kernel_symbols.inc: the names in quotes,
# for an initialiser.
set(names)
foreach(header kern skiplist libc)
    set(file ${PROJECT_SOURCE_DIR}/platform/${header}.h)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    file(STRINGS ${file} lines REGEX "^[^/#].*[a-z]\\(")
    foreach(line IN LISTS lines)
        string(REGEX MATCH "([a-z_0-9]+)\\(" match "${line}")
        list(APPEND names ${CMAKE_MATCH_1})
    endforeach()
endforeach()
list(FILTER names EXCLUDE REGEX "^(__|kern_fetch_)")
list(SORT names)
list(REMOVE_DUPLICATES names)
list(TRANSFORM names REPLACE "(.+)" "\"\\1\",\n")
list(JOIN names "" names)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/kernel_symbols.inc CONTENT "${names}" @ONLY)
