# Checks that a library without the bundled support operations leaves nothing
# undefined but those and what libc provides.
#     cmake -DNM=... -DLIBRARY=... -DSUPPORT_HEADERS=... -P check-undefined.cmake
execute_process(COMMAND ${NM} -D --undefined-only ${LIBRARY} OUTPUT_VARIABLE lines COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "U [A-Za-z0-9_@.]+" undefined "${lines}")
set(declared "")
foreach(header ${SUPPORT_HEADERS})
    file(READ ${header} text)
    string(APPEND declared "${text}")
endforeach()
foreach(symbol ${undefined})
    string(REPLACE "U " "" symbol "${symbol}")
    if(NOT symbol MATCHES "@" AND NOT declared MATCHES "[ *]${symbol}[([]")
        message(FATAL_ERROR "${LIBRARY} needs ${symbol}, which is no support operation")
    endif()
endforeach()
