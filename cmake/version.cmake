# The version of everything stands in the file VERSION; -D TESSA_VERSION=21.0.1 builds another. The limits are those of
# the installer, which compares versions by these three numbers.
if(NOT DEFINED TESSA_VERSION)
    file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../VERSION TESSA_VERSION LIMIT_COUNT 1)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/../VERSION)
endif()
set(number "(0|[1-9][0-9]*)")
if(NOT TESSA_VERSION MATCHES "^${number}\\.${number}\\.${number}$"
        OR CMAKE_MATCH_1 GREATER 99 OR CMAKE_MATCH_2 GREATER 99 OR CMAKE_MATCH_3 GREATER 99)
    message(FATAL_ERROR "\"${TESSA_VERSION}\" is no version: three numbers up to 99 are needed, such as 21.0.1")
endif()

# As the file properties and the fatal-error box show it: the version in two digits each, then the stream of the models'
# libraries that it belongs to.
set(TESSA_VERSION_TEXT V)
foreach(part ${CMAKE_MATCH_1} ${CMAKE_MATCH_2} ${CMAKE_MATCH_3})
    if(part LESS 10)
        set(part 0${part})
    endif()
    string(APPEND TESSA_VERSION_TEXT ${part}.)
endforeach()
string(APPEND TESSA_VERSION_TEXT 00_52.50.00.04)
