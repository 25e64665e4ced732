# Fails when mossly-agent loads libcurl or libsecret at start-up: every agent
# command would pay for them (and the libraries they pull in), though only
# import-granola uses them, and it opens them itself when it runs.
# Usage: cmake -DAGENT=<path to mossly-agent> -P check-start-up-libraries.cmake
execute_process(COMMAND ldd ${AGENT} OUTPUT_VARIABLE libraries RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "ldd ${AGENT} failed")
endif()
string(REGEX MATCHALL "lib(curl|secret)[^ \t\n]*" loaded "${libraries}")
list(REMOVE_DUPLICATES loaded)
if(loaded)
    message(FATAL_ERROR "mossly-agent loads ${loaded} at start-up")
endif()
