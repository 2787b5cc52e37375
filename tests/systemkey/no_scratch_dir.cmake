# Runs the crypto self-test with TMPDIR pointing at a directory that does not
# exist, so that its scratch directory cannot be made. The run must fail, and
# must leave no key material behind: nothing written next to where the
# scratch directory would have been, nor at the top of the file system.
#   cmake -DSELFTEST=<zel_crypto_tests> -P no_scratch_dir.cmake
cmake_minimum_required(VERSION 3.25)
set(nowhere "/nonexistent-kv-scratch")
set(candidates /bootstrap /systemkey /kvlog.conf ${nowhere})
foreach(f IN LISTS candidates)
  if(EXISTS ${f})
    list(APPEND existing ${f})
  endif()
endforeach()
execute_process(COMMAND ${CMAKE_COMMAND} -E env TMPDIR=${nowhere} ${SELFTEST}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(stray "")
foreach(f IN LISTS candidates)
  if(EXISTS ${f} AND NOT f IN_LIST existing)
    list(APPEND stray ${f})
    file(REMOVE_RECURSE ${f})
  endif()
endforeach()
if(stray)
  message(FATAL_ERROR "the self-test wrote ${stray} without a scratch directory")
endif()
if(err MATCHES "ERROR: AddressSanitizer|ERROR: LeakSanitizer|runtime error:|WARNING: ThreadSanitizer")
  message(FATAL_ERROR "sanitizer report:\n${err}")
endif()
if(rc EQUAL 0)
  message(FATAL_ERROR "the self-test passed without a scratch directory:\n${err}")
endif()
if(NOT err MATCHES "provision/1 FAILED")
  message(FATAL_ERROR "the set-up did not report the missing scratch directory:\n${err}")
endif()
