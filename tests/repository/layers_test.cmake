# Fails if a source below ROOT breaks a rule of layers.cmake.
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/layers.cmake)

file(GLOB_RECURSE sources ${ROOT}/src/*.cpp)
if(NOT sources)
  message(FATAL_ERROR "no sources below ${ROOT}")
endif()
check_layers(${ROOT} complaints)
if(complaints)
  list(JOIN complaints "\n  " text)
  message(FATAL_ERROR "The layers are broken:\n  ${text}")
endif()
