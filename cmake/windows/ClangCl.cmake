# Compiles as cl would, without cl: clang in its MSVC mode, with Wine's headers of Windows and of the C library and
# LLVM's of the C++ library. Nothing can be linked.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_AR llvm-lib-19)
set(CMAKE_MT llvm-mt-19)
set(CMAKE_RC_COMPILER llvm-rc-19)
set(_wine /usr/include/wine/wine)
# The warnings are those of cl at /W4 that clang's /W4 does not have, and what cl does not compile. Wine defines a
# function that is built into clang.
foreach(_language IN ITEMS C CXX)
  set(CMAKE_${_language}_COMPILER clang-cl-19)
  set(CMAKE_${_language}_COMPILER_TARGET x86_64-pc-windows-msvc)
  set(CMAKE_${_language}_FLAGS_INIT "-imsvc ${_wine}/msvcrt -imsvc ${_wine}/windows -D_UCRT -DWINE_UNICODE_NATIVE \
-D_InterlockedCompareExchange128=WineCompareExchange128 -Wgnu -Wimplicit-int-conversion -Wshadow-all \
-Wshorten-64-to-32")
endforeach()
string(APPEND CMAKE_CXX_FLAGS_INIT " /clang:-isystem/usr/lib/llvm-19/include/c++/v1 -D_LIBCPP_NO_VCRUNTIME \
-FI${CMAKE_CURRENT_LIST_DIR}/wine_crt.h")
