# Two builds of a commit are the same to the bit, wherever they are made: nothing of the machine, the folder or the
# time gets into a binary or a PDB file.

# Source files are named from the project's own folder. The compiler's command line stays out of the debug information.
add_compile_options(
    "$<$<COMPILE_LANGUAGE:C,CXX>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.;-ffile-prefix-map=${PROJECT_BINARY_DIR}=build;-fdebug-compilation-dir=.;-gno-codeview-command-line>")
# The linker writes its own command line into the PDB file, and makes full paths of what it is given. In place of the
# time it puts a hash of the content into a binary: symbol stores keep binaries by that number and their size.
add_link_options(-Wl,-Xlink=-Brepro -Wl,-Xlink=-pdbaltpath:%_PDB% -Wl,-Xlink=-pdbsourcepath:.)
# The environment's library folders are for the machine's own programs.
set(CMAKE_C_LINKER_LAUNCHER env -u LIBRARY_PATH)
set(CMAKE_CXX_LINKER_LAUNCHER env -u LIBRARY_PATH)

# What is built is told by build_info.h: version, commit and the commit's date. Looked at in each build: a new commit
# needs no new configuration.
set(build_info_header ${PROJECT_BINARY_DIR}/build_info/build_info.h)
add_custom_target(build_info
    BYPRODUCTS ${build_info_header}
    COMMAND ${CMAKE_COMMAND} -D SOURCE_FOLDER=${PROJECT_SOURCE_DIR} -D HEADER=${build_info_header}
            -D TESSA_VERSION=${TESSA_VERSION} -D TESSA_VERSION_TEXT=${TESSA_VERSION_TEXT}
            -P ${PROJECT_SOURCE_DIR}/cmake/build_info.cmake
    COMMENT "Looking up what is built")
function(use_build_info target)
    target_include_directories(${target} PRIVATE ${PROJECT_BINARY_DIR}/build_info)
    add_dependencies(${target} build_info)
endfunction()
