# check_layers(ROOT RESULT): reads every source in these folders of ROOT and stores a list of "file:
# complaint" in RESULT. ARCHITECTURE.md explains the rules.

set(folders src host standins simulator hosting servicehost vxhost)

# A layer is a folder of src/ or vxhost/, or one of the other folders. Each may include itself and
# those listed for it.
set(below_managers json platform host)
set(below_service storage security packages records ${below_managers})
set(may_include_host "")
set(may_include_platform host)
set(may_include_json platform host)
set(may_include_storage ${below_managers})
set(may_include_records ${below_managers})
set(may_include_security records ${below_managers})
set(may_include_packages ${below_managers})
set(may_include_exemption ${below_managers})
set(may_include_launch ${below_service})
set(may_include_bod ${below_service})
set(may_include_companion launch ${below_service})
set(may_include_events launch ${below_service})
set(may_include_service events companion launch bod ${below_service})
set(may_include_module service exemption ${may_include_service})
set(may_include_standins platform host)
set(may_include_simulator platform host)
set(may_include_hosting ${below_managers} storage)
set(may_include_servicehost ${below_managers} hosting)
# The tool links the service for --simulate.
set(below_tool hosting service ${may_include_service})
set(may_include_vxhost/common ${below_tool})
set(may_include_vxhost/store vxhost/common ${below_tool})
set(may_include_vxhost/subscriptions vxhost/store ${may_include_vxhost/store})
set(may_include_vxhost/log vxhost/common ${below_tool})
set(may_include_vxhost/service vxhost/common servicehost ${below_tool})
set(may_include_vxhost/play vxhost/log vxhost/subscriptions standins simulator
  ${may_include_vxhost/subscriptions})
set(may_include_vxhost/commands vxhost/play vxhost/service servicehost ${may_include_vxhost/play})
set(any_layer module exemption standins vxhost/commands ${may_include_vxhost/commands})

# The layers that call Windows. bod calls WMI's interfaces itself, module contains DllMain.
set(windows_layers platform bod module standins simulator)

# These make the module large or use parts of the runtime that are faulty.
set(barred_headers "^(iostream|fstream|sstream|filesystem|regex|locale|thread|future|format)$")

# pattern|files that may contain it|why it is not allowed elsewhere
set(barred_words
  "[^A-Za-z0-9_]CloseHandle *\\(|^src/platform/|a handle is closed by its owner in platform"
  "[^A-Za-z0-9_]thread_local[^A-Za-z0-9_]|^$|a thread's value lives in a TlsAlloc slot"
  "std::j?thread[^A-Za-z0-9_]|^$|threads are started by Platform::Thread"
  "std::async[^A-Za-z0-9_]|^$|threads are started by Platform::Thread"
  "[^A-Za-z0-9_]WaitFor(Single|Multiple)Objects?(Ex)? *\\(|^(src/platform|simulator|hosting|servicehost|vxhost)/|waiting goes through the clock"
  "[^A-Za-z0-9_>.]Sleep(Ex)? *\\(|^(src/platform|simulator|hosting|servicehost|vxhost)/|waiting goes through the clock"
  "[^A-Za-z0-9_]LoadLibrary[AW]? *\\(|^$|a library is loaded from its full path")

function(layer_of path result)
  set(${result} "" PARENT_SCOPE)
  if(path MATCHES "^(src/)?((vxhost/)?[^/]+)/")
    set(${result} ${CMAKE_MATCH_2} PARENT_SCOPE)
  endif()
endfunction()

# Sets RESULT to the reason why a source of LAYER may not include "INCLUDED", or to "".
function(judge_own_include layer included result)
  set(${result} "" PARENT_SCOPE)
  layer_of(${included} target)
  if(NOT target IN_LIST any_layer)
    set(${result} "includes ${included}, which is in no folder of the project" PARENT_SCOPE)
  elseif(NOT target STREQUAL layer AND NOT target IN_LIST may_include_${layer})
    set(${result} "includes ${included}, but ${layer} may not include ${target}" PARENT_SCOPE)
  endif()
endfunction()

# The same for <INCLUDED>. Headers of Windows and of C end in .h, those of C++ do not. The contract
# headers in host use those of C, which every compiler has.
function(judge_foreign_include layer included result)
  set(${result} "" PARENT_SCOPE)
  if(layer MATCHES "^(vxhost/|hosting$|servicehost$)")
    return()
  elseif(included MATCHES "^rapidjson/")
    if(NOT layer STREQUAL "json")
      set(${result} "includes <${included}>, but JSON stops at json" PARENT_SCOPE)
    endif()
  elseif(included MATCHES "/")
    set(${result} "includes <${included}>, a library that only the tool uses" PARENT_SCOPE)
  elseif(included MATCHES "\\.h$")
    if(NOT layer IN_LIST windows_layers AND NOT (layer STREQUAL "host" AND included MATCHES "^std"))
      set(${result} "includes <${included}>, but Windows stops at platform" PARENT_SCOPE)
    endif()
  elseif(included MATCHES "${barred_headers}")
    set(${result} "includes <${included}>, which has no place in the module" PARENT_SCOPE)
  endif()
endfunction()

# rapidjson's own allocator returns null if out of memory, and rapidjson then writes through the
# null pointer. Sets RESULT to a complaint about such a use in CONTENT.
function(judge_json_memory content result)
  set(${result} "" PARENT_SCOPE)
  string(REGEX MATCHALL "rapidjson::[A-Za-z]*Writer *<[^>]*>" writers "${content}")
  list(FILTER writers EXCLUDE REGEX "ScratchMemory")
  string(REGEX MATCHALL "rapidjson::(Document|[A-Za-z]*(String|Memory)Buffer)[^A-Za-z]" buffers
    "${content}")
  foreach(found IN LISTS writers buffers)
    string(REGEX REPLACE "[ \n]*[^A-Za-z>]$" "" found "${found}")
    set(${result} "uses ${found}, whose allocator does not check for memory" PARENT_SCOPE)
  endforeach()
endfunction()

# Readers look for the source of X.h in X.cpp, so X.cpp must begin with a header of that name,
# unless it is the entry point of a program or library. The tool's subcommands share commands.h.
function(judge_name file content includes result)
  set(${result} "" PARENT_SCOPE)
  if(content MATCHES "[ :](wmain|main|DllMain)\\(" OR NOT file MATCHES "([^/]+)\\.cpp$")
    return()
  endif()
  set(stem ${CMAKE_MATCH_1})
  set(names ${stem})
  if(file MATCHES "^vxhost/commands/")
    string(APPEND names "|commands")
  endif()
  if(NOT includes MATCHES "^[^<>\";]*\"([^\";]*/)?(${names})\\.h(;|$)")
    set(${result} "does not begin with a header named ${stem}.h" PARENT_SCOPE)
  endif()
endfunction()

# Appends the complaints about FILE, whose text without comments is CONTENT, to RESULT.
function(judge_file file content result)
  set(complaints ${${result}})
  layer_of(${file} layer)
  if(NOT layer IN_LIST any_layer)
    list(APPEND complaints "${file}: lies in a folder without rules")
  endif()
  string(REGEX MATCHALL "\n[ \t]*#[ \t]*include[ \t]*[<\"][^>\"\n]+" includes "${content}")
  judge_name(${file} "${content}" "${includes}" complaint)
  if(complaint)
    list(APPEND complaints "${file}: ${complaint}")
  endif()
  judge_json_memory("${content}" complaint)
  if(complaint)
    list(APPEND complaints "${file}: ${complaint}")
  endif()
  foreach(line IN LISTS includes)
    string(REGEX REPLACE ".*[<\"]" "" included "${line}")
    if(line MATCHES "<")
      judge_foreign_include(${layer} ${included} complaint)
    else()
      judge_own_include(${layer} ${included} complaint)
    endif()
    if(complaint)
      list(APPEND complaints "${file}: ${complaint}")
    endif()
  endforeach()
  foreach(rule IN LISTS barred_words)
    # The pattern may contain the separator, but the two fields after it may not.
    string(REGEX MATCH "^(.*)\\|(\\^[^|]*(\\([^)]*\\))?[^|]*)\\|([^|]*)$" unused "${rule}")
    set(pattern "${CMAKE_MATCH_1}")
    set(allowed "${CMAKE_MATCH_2}")
    set(reason "${CMAKE_MATCH_4}")
    if(content MATCHES "${pattern}")
      set(found "${CMAKE_MATCH_0}")
      if(NOT file MATCHES "${allowed}")
        string(REGEX REPLACE "[\n\t (]" "" found "${found}")
        list(APPEND complaints "${file}: uses ${found}, but ${reason}")
      endif()
    endif()
  endforeach()
  set(${result} "${complaints}" PARENT_SCOPE)
endfunction()

function(check_layers root result)
  set(complaints "")
  foreach(folder IN LISTS folders)
    file(GLOB_RECURSE files RELATIVE ${root}
      ${root}/${folder}/*.h ${root}/${folder}/*.cpp ${root}/${folder}/*.c)
    foreach(file IN LISTS files)
      file(READ ${root}/${file} content)
      # A semicolon would split a CMake list, and a bracket would join its elements.
      string(REGEX REPLACE "//[^\n]*" "" content "\n${content}")
      string(REGEX REPLACE "[][;]" " " content "${content}")
      judge_file(${file} "${content}" complaints)
    endforeach()
  endforeach()
  set(${result} "${complaints}" PARENT_SCOPE)
endfunction()
