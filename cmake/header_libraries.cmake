# Libraries of headers only, as the system's packages bring them: CLI11 and nlohmann-json. They stand in /usr/include,
# among the headers of the build machine's own C library, which must never be searched: so their folders are linked into
# one of the build's own.
set(header_libraries ${PROJECT_BINARY_DIR}/header_libraries)
file(MAKE_DIRECTORY ${header_libraries})
foreach(folder CLI nlohmann)
    if(NOT IS_DIRECTORY /usr/include/${folder})
        message(FATAL_ERROR "/usr/include/${folder} is missing: scripts/setup.sh installs it")
    endif()
    file(CREATE_LINK /usr/include/${folder} ${header_libraries}/${folder} SYMBOLIC)
endforeach()

function(use_header_libraries target)
    target_include_directories(${target} SYSTEM PRIVATE ${header_libraries})
endfunction()
