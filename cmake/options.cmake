# Target vx_options: the compile and link options of every target of this project.
add_library(vx_options INTERFACE)
target_compile_features(vx_options INTERFACE cxx_std_20)
target_include_directories(vx_options INTERFACE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
target_compile_options(vx_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
  # GCC 12 reports overlapping copies in plain string concatenation (GCC bug 105651), and copies
  # past the end of short strings where <string> is precompiled.
  "$<$<CXX_COMPILER_ID:GNU>:-Wno-restrict;-Wno-array-bounds;-Wno-stringop-overflow;-Wno-stringop-overread>")

if(WIN32)
  target_compile_definitions(vx_options INTERFACE
    UNICODE _UNICODE _WIN32_WINNT=0x0A00 WINVER=0x0A00 NOMINMAX WIN32_LEAN_AND_MEAN)
  # The linker needs the protector's option too, to add its runtime.
  target_compile_options(vx_options INTERFACE -fstack-protector-strong)
  target_link_options(vx_options INTERFACE -fstack-protector-strong
    -Wl,--dynamicbase,--nxcompat,--high-entropy-va,--no-insert-timestamp,--build-id)
endif()

# Keeps the build machine's paths out of the binaries, so that two checkouts build identical files.
target_compile_options(vx_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

# Symbols also name the build folder, which is mapped to "." so that a resolved line reads
# "./src/..." in every build tree.
if(VX_SYMBOLS)
  target_compile_options(vx_options INTERFACE -g1 -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)
endif()

target_compile_definitions(vx_options INTERFACE
  $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
if(WIN32)
  target_compile_options(vx_options INTERFACE
    $<$<CONFIG:Debug>:-fsanitize=undefined -fsanitize-undefined-trap-on-error>)
endif()
if(VX_COVERAGE)
  # With plain counters, several threads would lose updates, and some counts would be negative.
  target_compile_options(vx_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(vx_options INTERFACE --coverage)
endif()

# The native build's sanitizers: "address;undefined", "thread", or empty for benchmarks. They apply
# to the whole build tree, including the test framework.
set(VX_SANITIZE "" CACHE STRING "Sanitizers of a native build, as a list")
if(VX_SANITIZE AND NOT WIN32)
  list(JOIN VX_SANITIZE "," sanitizers)
  add_compile_options(-fsanitize=${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer
    -fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/sanitizer-ignorelist.txt)
  add_link_options(-fsanitize=${sanitizers})
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    # Shows the fuzzers which branches an input reaches, at little cost to the tests.
    add_compile_options(-fsanitize=fuzzer-no-link)
  endif()
endif()

# Debian's rapidjson, without adding the rest of /usr/include to a cross build's include path.
find_path(VX_RAPIDJSON_ROOT rapidjson/document.h
  PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH NO_DEFAULT_PATH REQUIRED)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/third_party)
file(CREATE_LINK ${VX_RAPIDJSON_ROOT}/rapidjson ${PROJECT_BINARY_DIR}/third_party/rapidjson SYMBOLIC)
add_library(rapidjson INTERFACE)
target_include_directories(rapidjson SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/third_party)

# vx_delayed_import(NAME FUNCTION...): the library delayed_NAME, which imports functions of NAME.dll
# on their first call (src/platform/windows/deferred_library.cpp). Use it for every library that is
# not a known DLL of Windows: a program loads such a library from its own folder first, where anyone
# may have put another file of that name.
function(vx_delayed_import name)
  list(JOIN ARGN "\n" functions)
  set(folder ${PROJECT_BINARY_DIR}/delayed)
  file(WRITE ${folder}/${name}.def "LIBRARY ${name}.dll\nEXPORTS\n${functions}\n")
  execute_process(COMMAND ${CMAKE_DLLTOOL} -d ${name}.def -y lib${name}.a WORKING_DIRECTORY ${folder}
    COMMAND_ERROR_IS_FATAL ANY)
  add_library(delayed_${name} STATIC IMPORTED GLOBAL)
  set_target_properties(delayed_${name} PROPERTIES
    IMPORTED_LOCATION ${folder}/lib${name}.a INTERFACE_LINK_LIBRARIES platform)
endfunction()
if(WIN32)
  vx_delayed_import(bcrypt BCryptCloseAlgorithmProvider BCryptCreateHash BCryptDestroyHash BCryptFinishHash
    BCryptHashData BCryptOpenAlgorithmProvider)
  vx_delayed_import(crypt32 CertAddEncodedCertificateToStore CertCloseStore CertDeleteCertificateFromStore
    CertEnumCertificatesInStore CertFindCertificateInStore CertGetNameStringW CertNameToStrW CertOpenStore
    CryptDecodeObject CryptHashCertificate CryptProtectData CryptQueryObject CryptUnprotectData)
  vx_delayed_import(oleaut32 SafeArrayCreateVector SafeArrayDestroy SafeArrayGetElement SafeArrayPutElement
    SysAllocString SysFreeString VariantClear)
  vx_delayed_import(userenv CreateEnvironmentBlock DestroyEnvironmentBlock ExpandEnvironmentStringsForUserW)
  vx_delayed_import(version GetFileVersionInfoSizeW GetFileVersionInfoW VerQueryValueW)
  vx_delayed_import(wtsapi32 WTSFreeMemory WTSQuerySessionInformationW WTSQueryUserToken)
endif()

# vx_headers(TARGET OWNER [HEADER...]): precompiles the most-used headers once, for the owner.
# Targets with the same compile options share them. Files still include what they use, because
# scripts/lint compiles them without precompiled headers.
function(vx_headers target owner)
  if(target STREQUAL owner)
    target_precompile_headers(${owner} PRIVATE <algorithm> <chrono> <functional> <map> <memory> <mutex> <optional>
      <span> <stdexcept> <string> <string_view> <system_error> <utility> <vector> ${ARGN})
  else()
    target_precompile_headers(${target} REUSE_FROM ${owner})
  endif()
endfunction()

# vx_version(FILE TYPE DESCRIPTION): writes a file's version resource as version.rc to the current
# build folder. TYPE is VFT_DLL or VFT_APP. An application also gets a manifest. Without one, files
# beside it could make Windows load other libraries, even known DLLs, from its folder:
# https://learn.microsoft.com/windows/win32/sbscs/dll-com-redirection-on-windows
function(vx_version file type description)
  set(manifest "")
  if(type STREQUAL VFT_APP)
    set(manifest "1 24 \"${PROJECT_SOURCE_DIR}/cmake/application.manifest\"") # 24: RT_MANIFEST
  endif()
  string(REPLACE "." "," version_numbers ${PROJECT_VERSION})
  cmake_path(GET file STEM name)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in version.rc @ONLY)
endfunction()

# Writes a delivered program's function names to a PDB beside it. Crash dumps name the PDB, and
# debuggers find it, by the build id: a hash of the file's content, so that the same build has the
# same id in any folder.
function(vx_pdb target)
  target_link_options(${target} PRIVATE
    -Wl,--pdb=$<TARGET_FILE_DIR:${target}>/$<TARGET_FILE_BASE_NAME:${target}>.pdb)
endfunction()

# vx_library(NAME [PORTABLE SOURCES...] [WINDOWS SOURCES...] [LIBS...]): a static library. In src,
# each folder has one. The portable sources (parsers and rules) are also built for Linux, for
# sanitizers and fuzzers. There, a library without portable sources does not exist, and other
# libraries omit it.
#
# -O3 is for libraries that every request and event uses: at -O2, the JSON parser takes twice the
# time. The others spend their time in Windows, and GCC 14 makes them a quarter larger at -O3.
set(VX_FAST_LIBRARIES json storage events service)
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
function(vx_library name)
  cmake_parse_arguments(arg "" "" "PORTABLE;WINDOWS;LIBS" ${ARGN})
  set(sources ${arg_PORTABLE})
  if(WIN32)
    list(APPEND sources ${arg_WINDOWS})
  endif()
  if(NOT sources)
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC vx_options)
  if(NOT WIN32 OR name IN_LIST VX_FAST_LIBRARIES)
    target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O3>)
    vx_headers(${name} json)
  else()
    vx_headers(${name} platform <windows.h>)
  endif()
  foreach(library IN LISTS arg_LIBS)
    if(WIN32 OR TARGET ${library})
      target_link_libraries(${name} PUBLIC ${library})
    endif()
  endforeach()
endfunction()

# Debian's header-only CLI11, included in the same way as rapidjson.
find_path(VX_CLI11_ROOT CLI/CLI.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH NO_DEFAULT_PATH REQUIRED)
file(CREATE_LINK ${VX_CLI11_ROOT}/CLI ${PROJECT_BINARY_DIR}/third_party/CLI SYMBOLIC)
add_library(cli11 INTERFACE)
target_include_directories(cli11 SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/third_party)
