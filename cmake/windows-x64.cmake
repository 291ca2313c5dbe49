# Cross tool chain: clang for x86-64 Windows against the MinGW-w64 headers and GCC's static C++ run time,
# so that nothing built here needs a run-time DLL beyond Windows' own.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(triple x86_64-w64-mingw32)
foreach(language C CXX)
    set(CMAKE_${language}_COMPILER_TARGET ${triple})
endforeach()
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_RC_COMPILER ${triple}-windres)
set(CMAKE_MC_COMPILER ${triple}-windmc)
set(CMAKE_IDL_COMPILER ${triple}-widl)
set(CMAKE_AR ${triple}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${triple}-ranlib CACHE FILEPATH "")

# -fms-extensions: structured exception handling (__try, __except).
set(CMAKE_C_FLAGS_INIT "-fms-extensions")
set(CMAKE_CXX_FLAGS_INIT "-fms-extensions")
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -static")
endforeach()
# A plain set would be overwritten by CMake's own platform file.
set(CMAKE_CXX_STANDARD_LIBRARIES
    "-Wl,--start-group -lpthread -lstdc++ -lgcc -lgcc_eh -lmingwex -lkernel32 -Wl,--end-group"
    CACHE STRING "")

# The wine wrapper warns about missing 32-bit support; the loader itself does not.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)

set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
