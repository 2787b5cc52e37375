cmake_minimum_required(VERSION 3.25)
# Fails unless TEXT occurs exactly once in the library's sources: a piece of
# behaviour that must live in one place only.
#   cmake -DROOT=<source tree> -DTEXT=<text> -P single_definition.cmake
file(GLOB_RECURSE sources ${ROOT}/allshare/*.cpp ${ROOT}/allshare/*.h ${ROOT}/platform/*.cpp ${ROOT}/platform/*.h
     ${ROOT}/functional/*.cpp ${ROOT}/functional/*.h ${ROOT}/apps/*.cpp)
set(count 0)
set(where "")
foreach(f IN LISTS sources)
  file(READ ${f} text)
  string(REPLACE "${TEXT}" "" without "${text}")
  string(LENGTH "${text}" a)
  string(LENGTH "${without}" b)
  string(LENGTH "${TEXT}" n)
  math(EXPR hits "(${a} - ${b}) / ${n}")
  if(hits GREATER 0)
    math(EXPR count "${count} + ${hits}")
    list(APPEND where "${f} (${hits})")
  endif()
endforeach()
if(NOT count EQUAL 1)
  message(FATAL_ERROR "\"${TEXT}\" occurs ${count} times, expected once: ${where}")
endif()
