# Compiler settings shared by every target.

# Warnings are on everywhere; making them fatal is for CI and developers, since a
# packager's compiler version or flags (-Os ...) may warn where ours does not.
option(QWD_WERROR "Treat compiler warnings as errors" OFF)
add_compile_options(-Wall -Wextra -Wformat=2)
if(QWD_WERROR)
  add_compile_options(-Werror)
endif()
# Log lines carry the source path relative to the tree, never the build machine's.
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=../)
# Frame pointers carry the crash handler's stack walk on the build machine; the
# router's walk reads function prologues instead.
if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "mips")
  add_compile_options(-fno-omit-frame-pointer)
endif()

if(QWD_FUZZ)
  # Coverage for every library the fuzz targets link.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize=vptr)
  add_link_options(-fsanitize=address,undefined)
endif()

if(QWD_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr
                      -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Product code: no exceptions, no RTTI and no guards on local statics (one
# thread sets them up), as on the router build. Nothing unwinds through it
# (the SDK calls no code of the agent's), so it carries no unwind tables:
# debuggers read the debug information, the crash handler walks frames itself.
function(qwd_product_target target)
  target_compile_options(${target} PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics
                                           -fno-asynchronous-unwind-tables)
  target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR})
endfunction()
