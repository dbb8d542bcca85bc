# Cross build for 64-bit ARM Linux with GNU compilers:
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake [-DCMAKE_SYSROOT=DIR]
# DIR is a tree of arm64 packages (scripts/aarch64.sh makes one). Without it the arm64 libraries are expected where a
# multiarch Debian installs them (`apt-get install libunwind-dev:arm64 ...`).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

foreach(language_and_program C:gcc CXX:g++)
  string(REPLACE ":" ";" language_and_program ${language_and_program})
  list(GET language_and_program 0 language)
  list(GET language_and_program 1 program)
  if(NOT DEFINED CMAKE_${language}_COMPILER)
    set(CMAKE_${language}_COMPILER aarch64-linux-gnu-${program})
  endif()
endforeach()

# The compiler tests of a configure run are small projects of their own that read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CMAKE_SYSROOT)

# Debian's cross compilers look into their own /usr/aarch64-linux-gnu before the sysroot, so the C library would come from
# there and every other library from the sysroot. Only the compiler's own headers and libstdc++'s stay.
set(cross_include /usr/aarch64-linux-gnu/include)
if(CMAKE_SYSROOT AND EXISTS ${cross_include}/c++)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
    OUTPUT_VARIABLE compiler_include OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(c_headers "-isystem ${compiler_include}")
  foreach(directory local/include include/aarch64-linux-gnu include)
    string(APPEND c_headers " -isystem ${CMAKE_SYSROOT}/usr/${directory}")
  endforeach()
  set(cxx_headers "-isystem ${cross_include}/c++/${version}")
  foreach(directory aarch64-linux-gnu backward)
    string(APPEND cxx_headers " -isystem ${cross_include}/c++/${version}/${directory}")
  endforeach()
  set(libraries "-B${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu")  # before the compiler's own folders
  set(CMAKE_C_FLAGS_INIT "-nostdinc ${c_headers} ${libraries}")
  set(CMAKE_CXX_FLAGS_INIT "-nostdinc ${cxx_headers} ${c_headers} ${libraries}")
endif()

if(CMAKE_SYSROOT)
  set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must see the target's libraries and none of the host's.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
