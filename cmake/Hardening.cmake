# What makes a fault in native code harder to exploit, in every build: checked stacks and copies, control-flow
# protection, and addresses of imports that are read-only once the object is loaded. On Windows the linker's own
# defaults cover the last.
include(CheckCXXCompilerFlag)

foreach(_flag IN ITEMS -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "SKIFFPORT${_flag}" _has)
  check_cxx_compiler_flag("${_flag};-Werror" ${_has})
  if(${_has})
    target_compile_options(skiffport_options INTERFACE ${_flag})
  endif()
endforeach()
# The C library checks copies in optimised code only, and the sanitizers replace its checked functions by their own.
if(NOT SKIFFPORT_SANITIZE)
  target_compile_options(skiffport_options INTERFACE
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
if(WIN32) # has its library of checked functions linked
  target_link_options(skiffport_options INTERFACE -fstack-protector-strong)
else()
  target_link_options(skiffport_options INTERFACE LINKER:-z,relro LINKER:-z,now)
endif()
