# Pinned keys: turns text files with one key per line into a source file to compile and a resource
# script, which holds the same keys for programs that read them from a module's file.
#
# When included, defines vx_pinned_keys_target(), which makes the target `pins` at configure time
# from VX_PINNED_KEYS_GENERAL and VX_PINNED_KEYS_RESTRICTED. When run as a script (cmake
# -DGENERAL=FILE -DRESTRICTED=FILE -DOUTPUT=FILE.cpp -P pins.cmake), writes FILE.cpp and FILE.rc
# from files that the build makes.
#
# Each line holds a key, a comment after "#", or nothing, and may end with CR LF. A key has the form
# that FormatPublicKey in src/security/signature_record.h writes. Keys are compared as text, so a
# key in another form would never match, without any error.

# Appends the keys in `file` to the list `out`. A malformed line is a fatal error. An empty file
# name means an empty set.
function(vx_read_pins file out)
  set(keys "")
  if(NOT file STREQUAL "")
    if(NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
      message(FATAL_ERROR "pinned keys: there is no file ${file}")
    endif()
    # Lines are split by position, because a ";" in a comment would split a CMake list.
    file(READ "${file}" rest)
    set(number 0)
    while(NOT rest STREQUAL "")
      math(EXPR number "${number} + 1")
      string(FIND "${rest}" "\n" end)
      if(end LESS 0)
        set(line "${rest}")
        set(rest "")
      else()
        string(SUBSTRING "${rest}" 0 ${end} line)
        math(EXPR end "${end} + 1")
        string(SUBSTRING "${rest}" ${end} -1 rest)
      endif()
      string(REGEX REPLACE "\r$" "" line "${line}")
      if(line MATCHES "#")
        string(FIND "${line}" "#" comment)
        string(SUBSTRING "${line}" 0 ${comment} line)
        string(REGEX REPLACE "[ \t]+$" "" line "${line}")
      endif()
      if(line MATCHES "^[ \t]*$")
        continue()
      endif()
      string(LENGTH "${line}" length)
      if(NOT length EQUAL 809
          OR NOT line MATCHES "^[0-9a-f][0-9a-f]( [0-9a-f][0-9a-f])+$"
          OR NOT line MATCHES "^30 82 01 0a 02 82 01 01 00 "
          OR NOT line MATCHES " 02 03 01 00 01$")
        message(FATAL_ERROR "${file}:${number}: not a pinned key. A key is the DER of an RSA-2048 "
          "public key, two lower-case hexadecimal digits a byte with single blanks between the "
          "bytes: 809 characters (this line: ${length}) that begin \"30 82 01 0a 02 82 01 01 00\" "
          "and end \"02 03 01 00 01\". `vxhost pin FILE` prints the keys of a signed file.")
      endif()
      list(APPEND keys "${line}")
    endwhile()
  endif()
  set(${out} "${keys}" PARENT_SCOPE)
endfunction()

# A C++ array of the keys, and the function that returns it.
function(vx_pins_source function keys out)
  list(LENGTH keys count)
  if(count EQUAL 0)
    set(text "KeySet ${function}() noexcept {\n  return {};\n}\n")
  else()
    set(text "KeySet ${function}() noexcept {\n  static constexpr std::string_view kKeys[] = {\n")
    foreach(key IN LISTS keys)
      string(APPEND text "      \"${key}\",\n")
    endforeach()
    string(APPEND text "  };\n  return kKeys;\n}\n")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# A resource with one line of text per key, after a comment, because a resource must not be empty.
function(vx_pins_resource name keys out)
  set(text "${name} RCDATA\nBEGIN\n  \"# ${name}\\n\"")
  foreach(key IN LISTS keys)
    string(APPEND text ",\n  \"${key}\\n\"")
  endforeach()
  set(${out} "${text}\nEND\n" PARENT_SCOPE)
endfunction()

# Writes `text` to `output`, unless it already has that content.
function(vx_write_if_new output text)
  set(old "")
  if(EXISTS "${output}")
    file(READ "${output}" old)
  endif()
  if(NOT old STREQUAL text)
    file(WRITE "${output}" "${text}")
  endif()
endfunction()

# Writes the source file `output` and the resource script beside it.
function(vx_write_pins general restricted output)
  vx_read_pins("${general}" generalKeys)
  vx_read_pins("${restricted}" restrictedKeys)
  vx_pins_source(GeneralKeys "${generalKeys}" generalText)
  vx_pins_source(RestrictedKeys "${restrictedKeys}" restrictedText)
  set(text "// Made from the files of pinned keys; see cmake/pins.cmake.\n")
  string(APPEND text "#include \"security/pinned_keys.h\"\n\n")
  string(APPEND text "namespace Vx::Tessel::Security {\n\n${generalText}\n${restrictedText}\n")
  string(APPEND text "}  // namespace Vx::Tessel::Security\n")
  vx_write_if_new("${output}" "${text}")
  vx_pins_resource(PINNED_KEYS_GENERAL "${generalKeys}" generalText)
  vx_pins_resource(PINNED_KEYS_RESTRICTED "${restrictedKeys}" restrictedText)
  string(REGEX REPLACE "\\.cpp$" ".rc" script "${output}")
  vx_write_if_new("${script}" "${generalText}${restrictedText}")
endfunction()

# vx_pins_library(NAME SOURCE): defines the target NAME for such a source and its resource.
function(vx_pins_library name source)
  set(script "")
  if(WIN32)
    string(REGEX REPLACE "\\.cpp$" ".rc" script "${source}")
  endif()
  # An object library, so that a program links it regardless of the link order.
  add_library(${name} OBJECT ${source} ${script})
  target_link_libraries(${name} PRIVATE vx_options)
endfunction()

function(vx_pinned_keys_target)
  foreach(variable IN ITEMS VX_PINNED_KEYS_GENERAL VX_PINNED_KEYS_RESTRICTED)
    set(file "${${variable}}")
    if(NOT file STREQUAL "" AND NOT IS_ABSOLUTE "${file}")
      # CMake makes a relative path absolute only if the variable is new and has no type.
      get_filename_component(file "${file}" ABSOLUTE BASE_DIR "$ENV{PWD}")
      set(${variable} "${file}" CACHE FILEPATH "Pinned keys, one a line" FORCE)
    endif()
    set(${variable} "${file}")
    if(NOT file STREQUAL "")
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    endif()
  endforeach()
  set(source ${PROJECT_BINARY_DIR}/pins/pinned_keys.cpp)
  vx_write_pins("${VX_PINNED_KEYS_GENERAL}" "${VX_PINNED_KEYS_RESTRICTED}" ${source})
  vx_pins_library(pins ${source})
endfunction()

if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  vx_write_pins("${GENERAL}" "${RESTRICTED}" "${OUTPUT}")
endif()
