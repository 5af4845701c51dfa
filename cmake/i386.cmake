# SPDX-License-Identifier: MIT
# A 32-bit build on a 64-bit machine: the compiler's -m32, and the libraries that scripts/get-i386-libraries unpacked.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_FLAGS_INIT "-m32 -march=i686 -mtune=generic -msse2")
set(CMAKE_CXX_FLAGS_INIT "-m32 -march=i686 -mtune=generic -msse2")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

set(ZARN_I386_LIBRARIES ${CMAKE_CURRENT_LIST_DIR}/../build/i386-sysroot)
cmake_path(ABSOLUTE_PATH ZARN_I386_LIBRARIES NORMALIZE)
set(CMAKE_PREFIX_PATH ${ZARN_I386_LIBRARIES}/usr)
set(CMAKE_FIND_ROOT_PATH ${ZARN_I386_LIBRARIES})
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# libpcap's own dependencies lie in the same place; an RPATH, unlike a RUNPATH, serves them as well.
set(directories ${ZARN_I386_LIBRARIES}/usr/lib/i386-linux-gnu ${ZARN_I386_LIBRARIES}/lib/i386-linux-gnu)
list(JOIN directories ":" directories)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags -Wl,-rpath,${directories} -Wl,-rpath-link,${directories}")
