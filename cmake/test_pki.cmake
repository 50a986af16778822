# vx_test_pki(PROGRAM LIBRARY): the targets of the throwaway test authority.
#
# test_pki    tests/pki/ in the build tree: pinned_general.txt and pinned_restricted.txt (usable as
#             VX_PINNED_KEYS_...), and copies of the target PROGRAM:
#               pinned.exe       signed with a key in both sets
#               general.exe      signed with a key in the general set only
#               unpinned.exe     signed with a key in neither
#               expired.exe      pinned key, certificate expired in 2016
#               self_signed.exe  pinned key, self-signed certificate
#               dual.exe         two signatures, the second with a pinned key
#               dropbox.exe      unpinned key, common name of the Dropbox table
#               tampered.exe     pinned.exe with a byte changed after signing
#               appended.exe     pinned.exe with bytes after its signature
#               unsigned.exe     not signed
#             and of the target LIBRARY:
#               pinned.dll, general.dll, unpinned.dll, unsigned.dll
# pins_test   the two key files compiled in, instead of `pins`
function(vx_test_pki program library)
  set(folder ${PROJECT_BINARY_DIR}/tests/pki)
  set(script ${PROJECT_SOURCE_DIR}/cmake/test_pki.sh)
  set(keys ${folder}/pinned_general.txt ${folder}/pinned_restricted.txt)
  set(certificates ca pinned general unpinned expired self_signed dropbox)
  list(TRANSFORM certificates REPLACE "(.+)" "${folder}/\\1.crt")
  add_custom_command(OUTPUT ${keys} ${certificates}
    COMMAND ${script} keys ${folder}
    DEPENDS ${script} VERBATIM COMMENT "Making the test certificate authority")

  set(programs pinned general unpinned expired self_signed dual dropbox tampered appended unsigned)
  list(TRANSFORM programs REPLACE "(.+)" "${folder}/\\1.exe")
  set(libraries pinned general unpinned unsigned)
  list(TRANSFORM libraries REPLACE "(.+)" "${folder}/\\1.dll")
  add_custom_command(OUTPUT ${programs} ${libraries}
    COMMAND ${script} sign ${folder} $<TARGET_FILE:${program}> $<TARGET_FILE:${library}>
    DEPENDS ${script} ${program} ${library} ${certificates} VERBATIM COMMENT "Signing the test programs")
  add_custom_target(test_pki ALL DEPENDS ${keys} ${programs} ${libraries})

  set(source ${PROJECT_BINARY_DIR}/pins/test_pinned_keys.cpp)
  set(resource ${PROJECT_BINARY_DIR}/pins/test_pinned_keys.rc)
  add_custom_command(OUTPUT ${source} ${resource}
    COMMAND ${CMAKE_COMMAND} -DGENERAL=${folder}/pinned_general.txt
      -DRESTRICTED=${folder}/pinned_restricted.txt -DOUTPUT=${source}
      -P ${PROJECT_SOURCE_DIR}/cmake/pins.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${source} ${resource}
    DEPENDS ${keys} ${PROJECT_SOURCE_DIR}/cmake/pins.cmake VERBATIM)
  vx_pins_library(pins_test ${source})
endfunction()
