# Cross-compiles for 64-bit Windows with clang, on the MinGW-w64 headers, C++ library and GCC
# runtime of the GCC cross compiler (posix thread model), linked by its bfd linker.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(QO_MINGW_PREFIX x86_64-w64-mingw32)
set(QO_MINGW_GCC /usr/lib/gcc/${QO_MINGW_PREFIX}/12-posix)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${QO_MINGW_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${QO_MINGW_PREFIX})
set(CMAKE_RC_COMPILER ${QO_MINGW_PREFIX}-windres)

# clang finds the MinGW-w64 C headers itself; the C++ library is GCC's.
set(CMAKE_CXX_FLAGS_INIT "-Wno-unused-command-line-argument -nostdinc++ -isystem ${QO_MINGW_GCC}/include/c++ \
-isystem ${QO_MINGW_GCC}/include/c++/${QO_MINGW_PREFIX} -isystem ${QO_MINGW_GCC}/include/c++/backward")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=bfd -L${QO_MINGW_GCC}")
# The driver puts libgcc_eh after everything given here; its thread-local storage needs winpthread
# after it, so the C++ library, libgcc_eh and winpthread are named in that order before the driver's.
# bfd reports "duplicate section ... has different size" for type-name strings that clang and GCC
# (in the C++ library) lay out differently; it keeps one of them, and the programs are unaffected.
set(CMAKE_CXX_STANDARD_LIBRARIES "-lstdc++ -lgcc_eh -lwinpthread")

set(CMAKE_FIND_ROOT_PATH /usr/${QO_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
