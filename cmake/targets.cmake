# What every target of this project has in common.

# Warnings are errors. Applied to our own targets only.
function(tessa_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Werror)
endfunction()

# A static library of the project, with its public headers in INC.
function(tessa_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;INCLUDES;LIBRARIES")
    add_library(${target} STATIC ${arg_SOURCES})
    target_include_directories(${target} PUBLIC ${arg_INCLUDES})
    target_link_libraries(${target} PUBLIC ${arg_LIBRARIES})
    tessa_warnings(${target})
endfunction()

# Debug information goes into a PDB file beside the binary; the binary itself is stripped, because debuggers
# prefer what is left of the run time's DWARF in it and then show exports only.
function(tessa_pdb target)
    target_link_options(${target} PRIVATE
        -s "-Wl,--pdb=$<TARGET_FILE_DIR:${target}>/$<TARGET_FILE_BASE_NAME:${target}>.pdb")
endfunction()

# What a DLL of the project needs to leave nothing behind when it is unloaded.
function(tessa_dll target)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/dll_entry.cpp)
    target_link_options(${target} PRIVATE -Wl,--entry,ModuleEntryPoint)
    tessa_warnings(${target})
endfunction()

# A program of the project.
function(tessa_executable target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
    add_executable(${target} ${arg_SOURCES})
    target_link_libraries(${target} PRIVATE ${arg_LIBRARIES})
    target_link_options(${target} PRIVATE -municode)
    tessa_warnings(${target})
    tessa_pdb(${target})
endfunction()

# A GoogleTest program. Each test runs in a process of its own, so that one that ends its process, or leaves
# process-wide state behind, cannot touch the next.
include(GoogleTest)
function(tessa_test target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "ENVIRONMENT;TIMEOUT" "SOURCES;LIBRARIES")
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 60)
    endif()
    add_executable(${target} ${arg_SOURCES})
    target_link_libraries(${target} PRIVATE ${arg_LIBRARIES} gmock_main)
    tessa_warnings(${target})
    tessa_pdb(${target})
    if(TESSA_SANITIZE)
        tessa_guard_heap(${target})
    endif()
    set_property(GLOBAL APPEND PROPERTY TESSA_TESTS ${target})
    set_property(TARGET ${target} PROPERTY CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/scripts/run_test.sh)
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${arg_TIMEOUT} ENVIRONMENT "${arg_ENVIRONMENT}")
endfunction()
