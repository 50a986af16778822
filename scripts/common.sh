# Functions for the scripts that source this file: to install the packages that a fresh Debian 12 or
# 13 lacks, to configure and to build.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# If standard input were closed, the first file that a program opens would take its place.
if ! { : 3<&0; } 2>/dev/null; then exec </dev/null; fi

# Builds use ccache if it is installed.
if command -v ccache >/dev/null; then
  export CMAKE_{C,CXX}_COMPILER_LAUNCHER=ccache
  export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}  # for precompiled headers
fi

# clang, lld and llvm are the Debian release's default versions.
packages=(
  g++-mingw-w64-x86-64-posix ninja-build cmake wine wine64
  rapidjson-dev googletest libcli11-dev osslsigncode openssl clang lld llvm
)
native_packages=(libclang-rt-dev libbson-dev pkg-config)
page_packages=(chromium fonts-dejavu-core python3 python3-jsonschema)  # for the tests of pages and schemas
lint_packages=(clang-tidy cppcheck)

# ensure_packages NAME...: installs the packages that are missing.
ensure_packages() {
  local missing=() name
  for name in "$@"; do
    dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'install ok installed' ||
      missing+=("$name")
  done
  if ((${#missing[@]} == 0)); then return; fi
  echo "installing: ${missing[*]}"
  # Waits for another apt-get, such as one run by a second checkout.
  local apt=(env LC_ALL=C DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=600) errors
  [[ $(id -u) == 0 ]] || apt=(sudo "${apt[@]}")
  (
    umask 022  # every account must be able to read what apt fetches
    # The timeout does not apply to the package lists' lock.
    until errors=$("${apt[@]}" update 2>&1 >/dev/null); do
      if [[ $errors != *'Could not get lock'* ]] || ((SECONDS > 600)); then
        echo "$errors" >&2
        exit 1
      fi
      sleep 1
    done
    "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null
  )
}

# build_preset PRESET [TARGET...]: configures and builds into build/PRESET.
build_preset() {
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null
  cmake --build "build/$preset" ${1:+--target "$@"}
}

# wine_run PRESET PROGRAM [ARG...]: runs a program of that build tree in its Wine prefix.
wine_run() {
  local preset=$1
  shift
  cmake/wine-run.sh "$PWD/build/$preset/wine" "$@"
}
