# check_layers(ROOT RESULT): reads every source of src/, host/ and simulator/ below ROOT and puts a
# list of "file: what is wrong" into RESULT. The rules are those of ARCHITECTURE.md.

# A layer is a folder of src/, or host, vxhost or simulator. Each may include itself and these.
set(below_data json platform host)
set(below_manager storage security packages ${below_data})
set(may_include_module service events launch bod ${below_manager})
set(may_include_service events launch bod ${below_manager})
set(may_include_events launch ${below_manager})
set(may_include_launch ${below_manager})
set(may_include_bod ${below_manager})
set(may_include_storage ${below_data})
set(may_include_security ${below_data})
set(may_include_packages ${below_data})
set(may_include_json platform host)
set(may_include_platform host)
set(may_include_host "")
set(may_include_simulator platform)
set(any_layer
  module service events launch bod storage security packages json platform host vxhost simulator)
set(may_include_vxhost ${any_layer})

# What src/ may see of host/. The rest belongs to the stand-ins; one of their headers is shared with
# the platform, which speaks to the same runtime.
set(contract_headers
  host/app_service_proxy.h host/completion_callback.h host/cryptography_helper.h host/logging.h
  host/uwp_package_model.h host/vx_service.h)
set(shared_with_platform host/com_ptr.h host/winrt_owners.h)
# What the layers at the bottom may see of their upper neighbours.
set(platform_for_json platform/hresult_error.h)
set(platform_for_host platform/unique_handle.h)

# These make the module large or bring what this runtime gets wrong.
set(barred_headers "^(iostream|fstream|sstream|filesystem|regex|locale|thread|future|format)$")

# pattern, files that may have it, why not elsewhere
set(barred_words
  "[^A-Za-z0-9_]CloseHandle *\\(|^src/platform/|a handle is closed by its owner in platform"
  "[^A-Za-z0-9_]thread_local[^A-Za-z0-9_]|^$|a thread's value lives in a TlsAlloc slot"
  "std::j?thread[^A-Za-z0-9_]|^$|threads are started by Platform::Thread"
  "std::async[^A-Za-z0-9_]|^$|threads are started by Platform::Thread"
  "[^A-Za-z0-9_]WaitFor(Single|Multiple)Objects?(Ex)? *\\(|^(src/platform|simulator|host/vxhost)/|waiting goes through the clock"
  "[^A-Za-z0-9_>.]Sleep(Ex)? *\\(|^(src/platform|simulator|host/vxhost)/|waiting goes through the clock"
  "[^A-Za-z0-9_]LoadLibrary[AW]? *\\(|^$|a library is loaded from its full path")

function(layer_of path result)
  if(path MATCHES "^src/([^/]+)/")
    set(${result} ${CMAKE_MATCH_1} PARENT_SCOPE)
  elseif(path MATCHES "^(host/)?(vxhost|host|simulator)/")
    set(${result} ${CMAKE_MATCH_2} PARENT_SCOPE)
  else()
    set(${result} unknown PARENT_SCOPE)
  endif()
endfunction()

# Puts into RESULT why FILE, of LAYER, may not include "INCLUDED"; empty when it may.
function(judge_own_include layer file included result)
  set(${result} "" PARENT_SCOPE)
  layer_of(${included} target)
  if(target STREQUAL "unknown")
    layer_of(src/${included} target)
  endif()
  if(NOT target IN_LIST any_layer)
    set(${result} "includes ${included}, which is in no folder of the project" PARENT_SCOPE)
  elseif(target STREQUAL layer OR layer STREQUAL "vxhost")
    return()
  elseif(layer STREQUAL "host" AND target STREQUAL "platform")
    # The contract headers are below everything; only the stand-ins behind them use an owner.
    if(file MATCHES "\\.h$" OR NOT included IN_LIST platform_for_host)
      set(${result} "includes ${included}, but host is below platform" PARENT_SCOPE)
    endif()
  elseif(NOT target IN_LIST may_include_${layer})
    set(${result} "includes ${included}, but ${layer} may not include ${target}" PARENT_SCOPE)
  elseif(target STREQUAL "host" AND NOT included IN_LIST contract_headers
      AND NOT (layer STREQUAL "platform" AND included IN_LIST shared_with_platform))
    set(${result} "includes ${included}, which is no contract header" PARENT_SCOPE)
  elseif(layer STREQUAL "json" AND target STREQUAL "platform"
      AND NOT included IN_LIST platform_for_json)
    set(${result} "includes ${included}, but json may have platform's errors alone" PARENT_SCOPE)
  endif()
endfunction()

# The same for <INCLUDED>. Headers of the system and of C end in .h; those of C++ do not.
function(judge_foreign_include layer file included result)
  set(${result} "" PARENT_SCOPE)
  if(layer STREQUAL "vxhost")
    return()
  elseif(included MATCHES "^rapidjson/")
    if(NOT layer STREQUAL "json")
      set(${result} "includes <${included}>, but JSON stops at json" PARENT_SCOPE)
    endif()
  elseif(included MATCHES "/")
    set(${result} "includes <${included}>, a library that only vxhost uses" PARENT_SCOPE)
  elseif(included MATCHES "\\.h$")
    # The firmware channel calls COM interfaces itself; module holds DllMain.
    if(NOT layer MATCHES "^(platform|host|simulator)$"
        AND NOT (layer MATCHES "^(bod|module)$" AND file MATCHES "\\.cpp$"))
      set(${result} "includes <${included}>, but Windows stops at platform" PARENT_SCOPE)
    endif()
  elseif(included MATCHES "${barred_headers}")
    set(${result} "includes <${included}>, which has no place in the module" PARENT_SCOPE)
  endif()
endfunction()

# Appends the complaints about FILE, whose text without comments is CONTENT, to the variable RESULT.
function(judge_file file content result)
  set(complaints ${${result}})
  layer_of(${file} layer)
  if(NOT layer IN_LIST any_layer)
    list(APPEND complaints "${file}: lies in a folder without rules")
  endif()
  string(REGEX MATCHALL "\n[ \t]*#[ \t]*include[ \t]*[<\"][^>\"\n]+" includes "${content}")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE ".*[<\"]" "" included "${line}")
    if(line MATCHES "<")
      judge_foreign_include(${layer} ${file} ${included} complaint)
    else()
      judge_own_include(${layer} ${file} ${included} complaint)
    endif()
    if(complaint)
      list(APPEND complaints "${file}: ${complaint}")
    endif()
  endforeach()
  foreach(rule IN LISTS barred_words)
    # The pattern may hold the separator, the two fields behind it do not.
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
  foreach(folder IN ITEMS src host simulator)
    file(GLOB_RECURSE files RELATIVE ${root}
      ${root}/${folder}/*.h ${root}/${folder}/*.cpp ${root}/${folder}/*.c)
    foreach(file IN LISTS files)
      file(READ ${root}/${file} content)
      # A semicolon would part a list of CMake's; a bracket would join its elements.
      string(REGEX REPLACE "//[^\n]*" "" content "\n${content}")
      string(REGEX REPLACE "[][;]" " " content "${content}")
      judge_file(${file} "${content}" complaints)
    endforeach()
  endforeach()
  set(${result} "${complaints}" PARENT_SCOPE)
endfunction()
