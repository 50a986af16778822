# Writes small sources with one fault or none and checks that exactly these faults are reported.
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/layers.cmake)

# file|line in it|expected complaint, empty if the line is allowed
set(cases
  "src/service/a.cpp|#include \"events/x.h\"|"
  "src/module/a.cpp|#include \"service/x.h\"|"
  "src/events/a.cpp|#include \"launch/x.h\"|"
  "src/storage/a.cpp|#include \"host/logging.h\"|"
  "src/json/a.h|#include \"platform/windows_runtime_error.h\"|"
  "src/json/b.h|#include <rapidjson/document.h>|"
  "src/platform/windows/a.cpp|#include <windows.h>|"
  "src/platform/b.cpp|  CloseHandle(handle)|"
  "src/service/b.cpp|  clock->Sleep(length)|"
  "src/service/c.cpp|  // std::thread loses its callable, CloseHandle(x)|"
  "src/service/d.cpp|  LoadLibraryExW(path, nullptr, 0)|"
  "src/module/main.cpp|BOOL WINAPI DllMain(x)|"
  "host/a.h|#include <stdint.h>|"
  "host/b.h|#include <windows.h>|Windows stops at platform"
  "standins/a.cpp|#include \"platform/x.h\"|"
  "vxhost/commands/a.cpp|#include <CLI/CLI.hpp>|"
  "vxhost/subscriptions/a.cpp|#include \"vxhost/store/x.h\"|"
  "servicehost/a.cpp|#include \"hosting/x.h\"|"
  "simulator/a.h|#include \"platform/clock.h\"|"
  "src/storage/e.cpp|#include \"service/x.h\"|may not include service"
  "src/launch/e.cpp|#include \"events/x.h\"|may not include events"
  "src/bod/e.cpp|  #  include \"launch/x.h\"|may not include launch"
  "src/platform/e.cpp|#include \"json/x.h\"|may not include json"
  "src/json/e.cpp|#include \"storage/e.h\"|may not include storage"
  "src/service/e.cpp|#include \"service/x.h\"|does not begin with a header named e.h"
  "src/service/r.cpp|#include \"service/service.h\"|does not begin with a header named r.h"
  "src/service/f.cpp|#include \"vxhost/log/x.h\"|may not include vxhost"
  "vxhost/play/e.cpp|#include \"vxhost/commands/x.h\"|may not include vxhost/commands"
  "vxhost/store/f.cpp|#include \"vxhost/play/x.h\"|may not include vxhost/play"
  "servicehost/e.cpp|#include \"vxhost/service/x.h\"|may not include vxhost/service"
  "hosting/e.cpp|#include \"servicehost/x.h\"|may not include servicehost"
  "src/service/g.cpp|#include \"simulator/x.h\"|may not include simulator"
  "src/service/h.cpp|#include \"x.h\"|in no folder of the project"
  "src/service/i.cpp|#include <windows.h>|Windows stops at platform"
  "src/launch/f.h|#include <wbemcli.h>|Windows stops at platform"
  "src/service/j.cpp|#include <rapidjson/document.h>|JSON stops at json"
  "src/service/k.cpp|#include <fstream>|no place in the module"
  "src/service/l.cpp|  if (x) CloseHandle(handle)|closed by its owner"
  "src/service/m.cpp|thread_local int x|TlsAlloc slot"
  "src/service/n.cpp|  std::thread t(x)|Platform::Thread"
  "src/service/o.cpp|  WaitForSingleObject(x, 1)|through the clock"
  "src/service/p.cpp|  ::Sleep(1)|through the clock"
  "src/platform/f.cpp|  LoadLibraryW(name)|full path"
  "src/json/f.cpp|  rapidjson::Writer<Out, W, W, ScratchMemory> writer(out, &memory)|"
  "src/json/g.cpp|  rapidjson::Writer<Out, W, W> writer(out)|does not check for memory"
  "src/service/q.cpp|  rapidjson::PrettyWriter<Out> writer(out)|does not check for memory"
  "vxhost/log/b.cpp|  rapidjson::StringBuffer out|does not check for memory"
  "src/new/a.h|int x|without rules"
  "host/e.h|#include \"platform/unique_handle.h\"|host may not include platform"
  "standins/e.h|#include \"service/x.h\"|standins may not include service"
  "simulator/e.cpp|#include \"service/x.h\"|may not include service")

file(REMOVE_RECURSE ${SCRATCH})
foreach(case IN LISTS cases)
  string(REPLACE "|" ";" fields "${case}")
  list(GET fields 0 file)
  list(GET fields 1 line)
  list(GET fields 2 expected)
  # Only the cases about names test how a source begins. The others begin correctly.
  get_filename_component(stem ${file} NAME_WE)
  set(first "#include \"host/${stem}.h\"\n")
  if(file MATCHES "\\.h$" OR expected MATCHES "begin with")
    set(first "")
  endif()
  file(WRITE ${SCRATCH}/${file} "\n${first}${line}\n")
endforeach()
check_layers(${SCRATCH} complaints)

foreach(case IN LISTS cases)
  string(REPLACE "|" ";" fields "${case}")
  list(GET fields 0 file)
  list(GET fields 2 expected)
  set(said ${complaints})
  list(FILTER said INCLUDE REGEX "^${file}: ")
  list(LENGTH said count)
  if(expected STREQUAL "" AND count GREATER 0)
    message(SEND_ERROR "in order, but: ${said}")
  elseif(NOT expected STREQUAL "" AND NOT (count EQUAL 1 AND said MATCHES "${expected}"))
    message(SEND_ERROR "${file}: expected one complaint '${expected}', got '${said}'")
  endif()
endforeach()
file(REMOVE_RECURSE ${SCRATCH})
