# What every target of this project has in common.

# Warnings are errors. Applied to our own targets only.
function(tessa_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Werror)
endfunction()

# Data is reached directly, not through a pointer that the linker would need were it in a DLL: no DLL is asked for data
# without saying so.
function(tessa_own_data target)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-auto-import>)
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
    set(folder $<PATH:RELATIVE_PATH,$<TARGET_FILE_DIR:${target}>,${CMAKE_BINARY_DIR}>)
    target_link_options(${target} PRIVATE -s "-Wl,--pdb=${folder}/$<TARGET_FILE_BASE_NAME:${target}>.pdb")
endfunction()

# The names that a DLL exports, from a .def file. CMake's own way puts the file's full path into the PDB file.
function(tessa_exports target file)
    cmake_path(ABSOLUTE_PATH file OUTPUT_VARIABLE path)
    file(RELATIVE_PATH relative ${CMAKE_BINARY_DIR} ${path})
    target_link_options(${target} PRIVATE ${relative})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${path})
endfunction()

# What the file properties show of a program or library.
function(tessa_version target description)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
        set(file_type VFT_APP)
        set(file_name ${target}.exe)
    else()
        set(file_type VFT_DLL)
        set(file_name ${target}.dll)
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc @ONLY)
    target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
    set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc PROPERTIES
        OBJECT_DEPENDS ${build_info_header})
    use_build_info(${target})
endfunction()

# The manifest of the programs that are shipped.
function(tessa_manifest target)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/manifest.rc)
    set_property(SOURCE ${PROJECT_SOURCE_DIR}/cmake/manifest.rc TARGET_DIRECTORY ${target}
        PROPERTY OBJECT_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/program.manifest)
endfunction()

# What a DLL of the project needs to leave nothing behind when it is unloaded, and to go on when memory is short.
function(tessa_dll target)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/dll_entry.cpp
                                     ${PROJECT_SOURCE_DIR}/cmake/once.cpp)
    target_link_options(${target} PRIVATE -Wl,--entry,ModuleEntryPoint -Wl,--wrap=pthread_once)
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

# What a test needs, as its label (ctest -L NAME): the rarest of these. A test that runs a program of the build machine
# has the label "build" instead.
set(TESSA_LABELS plain service session driver winegap)

# Tests of a program that share a label.
include(GoogleTest)
function(tessa_label target label filter)
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 TEST_FILTER "${filter}"
        PROPERTIES LABELS ${label} ${ARGN})
endfunction()

# A GoogleTest program. Each test runs in a process of its own, so that one that ends its process, or leaves
# process-wide state behind, cannot touch the next. Its tests are labelled LABEL, or plain; those that need more are
# named by patterns: SERVICE Suite.Test Suite.*
function(tessa_test target)
    string(TOUPPER "${TESSA_LABELS}" exceptions)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "ENVIRONMENT;LABEL;TIMEOUT" "SOURCES;LIBRARIES;${exceptions}")
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 60)
    endif()
    if(NOT arg_LABEL)
        set(arg_LABEL plain)
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

    set(properties TIMEOUT ${arg_TIMEOUT})
    if(arg_ENVIRONMENT)
        list(APPEND properties ENVIRONMENT ${arg_ENVIRONMENT})
    endif()
    set(exceptions "")
    foreach(label ${TESSA_LABELS})
        string(TOUPPER ${label} patterns)
        if(arg_${patterns})
            list(JOIN arg_${patterns} ":" filter)
            tessa_label(${target} ${label} "${filter}" ${properties})
            list(APPEND exceptions ${filter})
            set_property(GLOBAL APPEND PROPERTY TESSA_LABELLED "${target} ${label} ${filter}")
        endif()
    endforeach()
    list(JOIN exceptions ":" filter)
    if(filter)
        set(filter "-${filter}")
    endif()
    tessa_label(${target} ${arg_LABEL} "${filter}" ${properties})
endfunction()

# A test that runs a program of the build machine.
function(tessa_build_test name)
    add_test(NAME ${name} COMMAND ${ARGN})
    set_tests_properties(${name} PROPERTIES LABELS build)
endfunction()
