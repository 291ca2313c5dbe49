# Writes the header that tells what was built: the version, the commit of the sources, with a "+" behind it if they were
# changed since, and their date. The date is SOURCE_DATE_EPOCH if that is set, else the commit's, and without a git
# working tree that of the project file. __DATE__ would be the time of the build, and a compiler cache would keep an old
# one.
execute_process(COMMAND git -C ${SOURCE_FOLDER} describe --always --abbrev=12 --dirty=+ --exclude *
    OUTPUT_VARIABLE TESSA_COMMIT OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT TESSA_COMMIT)
    set(TESSA_COMMIT unknown)
endif()
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND git -C ${SOURCE_FOLDER} log -1 --format=%ct
        OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(NOT epoch)
        file(TIMESTAMP ${SOURCE_FOLDER}/CMakeLists.txt epoch "%s" UTC)
    endif()
    set(ENV{SOURCE_DATE_EPOCH} ${epoch})
endif()
string(TIMESTAMP TESSA_BUILD_DATE "%b %d %Y %H:%M:%S" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/build_info.h.in ${HEADER} @ONLY)
