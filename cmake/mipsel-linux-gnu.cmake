# SPDX-License-Identifier: Apache-2.0
# 32-bit little-endian MIPS Linux (Debian's cross compiler); tests run under
# qemu-mipsel. MIPSEL_EXTRA_ROOT is the folder where the mipsel -dev
# packages that the build needs (SQLite) were unpacked.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_NM mipsel-linux-gnu-nm CACHE FILEPATH "")

set(MIPSEL_EXTRA_ROOT "" CACHE PATH "unpacked mipsel -dev packages")
set(CMAKE_FIND_ROOT_PATH /usr/mipsel-linux-gnu ${MIPSEL_EXTRA_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-mipsel;-L;/usr/mipsel-linux-gnu;-E;LD_LIBRARY_PATH=${MIPSEL_EXTRA_ROOT}/usr/lib/mipsel-linux-gnu
    CACHE STRING "")
