#!/bin/sh
# contract_headers_test.sh ROOT COMPILER FLAG...: every header for integrators compiles on its own
# for Microsoft's ABI, as C++17 and as C++20, and the C headers as C11 and as C++. The exemption
# classes, which have another compiler's layout, fail with an error that names a replacement.
set -u
root=$1
shift
failures=0
for header in vx_service completion_callback cryptography_helper uwp_package_model client_exemption; do
  for standard in c++17 c++20; do
    echo "#include \"host/$header.h\"" |
      "$@" -std=$standard -fsyntax-only -x c++ - || { echo "failed: $header.h as $standard"; failures=1; }
  done
done
for header in vx_service_c log_sink; do
  for language in c:c11 c++:c++17 c++:c++20; do
    echo "#include \"host/$header.h\"" |
      "$@" -std=${language#*:} -Wpedantic -fsyntax-only -x ${language%%:*} - ||
      { echo "failed: $header.h as ${language#*:}"; failures=1; }
  done
done
for header in client_information exemption_white_list manifest_check_criteria matching_descriptor \
  tessel_access_manager; do
  # Checks only the directive, because the standard library's headers are missing.
  echo "#include \"exemption/client_information.h\"" | "$@" -I "$root/src" -fsyntax-only -x c++ - 2>&1 |
    grep -q 'Use the table of CreateClientExemption' || { echo "failed: $header.h is not refused"; failures=1; }
  grep -q 'client_information.h"\|matching_descriptor.h"\|manifest_check_criteria.h"\|#ifdef _MSC_VER' \
    "$root/src/exemption/$header.h" || { echo "failed: $header.h does not include the refusal"; failures=1; }
done
[ $failures = 0 ] && echo passed
exit $failures
