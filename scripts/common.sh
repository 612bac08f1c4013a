# shellcheck shell=bash disable=SC2034  # what is set here is used where this is sourced
# Sourced by the other scripts: what the build needs, installed where it is missing.
# Everything said here goes to standard error; standard output belongs to what a script runs.

project_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

read -r -a compiler <<<"${CXX:-c++}"  # with options, as CMake takes it
if [ -n "${CXX-}" ] && ! command -v "${compiler[0]}" >/dev/null; then
  echo "CXX is ${compiler[0]}, which is not there: install it, or unset CXX." >&2
  exit 1
fi

build_packages=(cmake ninja-build g++)
inspection_packages=(libcli11-dev libfmt-dev libkainjow-mustache-dev nlohmann-json3-dev)
python_packages=(pybind11-dev python3-dev python3-numpy)
test_packages=("${build_packages[@]}" "${inspection_packages[@]}" "${python_packages[@]}" libgtest-dev pkgconf)

# includes HEADER: whether the compiler finds it, or a prefix that CMake is told to search has it.
includes() {
  local prefix prefixes flags=()
  IFS=:\; read -r -a prefixes <<<"${CMAKE_PREFIX_PATH-}"
  for prefix in "${prefixes[@]}"; do flags+=("-I$prefix/include"); done
  printf '#if !__has_include(<%s>)\n#error\n#endif\n' "$1" |
    "${compiler[@]}" "${flags[@]}" -E -x c++ - -o /dev/null
}

# python CODE: runs it in the Python that the module is built for.
python() {
  if [ -x /usr/bin/python3 ]; then /usr/bin/python3 -c "$1"; else python3 -c "$1"; fi
}

# found PACKAGE: whether what that Debian package brings is there, wherever it comes from.
found() {
  case $1 in
    cmake | clang-format | clang-tidy | file | mypy | shellcheck) command -v "$1" ;;
    pkgconf) command -v pkg-config ;;
    ninja-build) command -v ninja ;;
    g++) command -v "${compiler[0]}" ;;
    clang) command -v clang++ ;;
    libclang-rt-*-dev) echo 'int main() {}' | clang++ -fsanitize=address -x c++ - -o /dev/null ;;
    dpkg-dev) command -v dpkg-shlibdeps ;;
    libbenchmark-dev) includes benchmark/benchmark.h ;;
    libcli11-dev) includes CLI/CLI.hpp ;;
    libfmt-dev) includes fmt/format.h ;;
    libgtest-dev) includes gtest/gtest.h ;;
    libkainjow-mustache-dev) includes kainjow/mustache.hpp ;;
    nlohmann-json3-dev) includes nlohmann/json.hpp ;;
    pybind11-dev) includes pybind11/pybind11.h ;;
    python3-dev) python 'import os, sysconfig; os.stat(sysconfig.get_path("include") + "/Python.h")' ;;
    python3-numpy) python 'import numpy' ;;
    python3-distributed) python 'import distributed' ;;
    *) return 1 ;;
  esac >/dev/null 2>&1
}

# quietly WHAT COMMAND...: says what is done and, on a terminal, how far ninja has come. The output of
# the command is shown only where it fails, and is in no file that could be left.
quietly() {
  local what=$1 line output=
  shift
  printf '%s ...' "$what" >&2
  while IFS= read -r line || [ -n "$line" ]; do
    output+=$line$'\n'
    if [ -t 2 ] && [[ $line =~ ^'['[0-9]+/[0-9]+']' ]]; then
      printf '\r%s ... %s' "$what" "${BASH_REMATCH[0]}" >&2
    fi
  done < <("$@" 2>&1 </dev/null)
  echo >&2
  wait $! && return
  printf '%s' "$output" >&2
  return 1
}

# need_packages PACKAGE...: installs as root what is not found, else names the command that does.
need_packages() {
  local missing=() package
  for package in "$@"; do
    found "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
    echo "Missing. On Debian, as root: apt-get update && apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  quietly "Missing; installing ${missing[*]}" install_packages "${missing[@]}" || exit 1
}

install_packages() {
  apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
    -o DPkg::Lock::Timeout=60 "$@"
}

# need_sanitizers: clang with the libraries of its sanitizers, of whatever version it is.
need_sanitizers() {
  need_packages clang
  need_packages "libclang-rt-$(clang++ -dumpversion | cut -d . -f 1)-dev"
}

# usable_build_dir DIR: ends with a sentence where DIR cannot be a build folder of this checkout.
usable_build_dir() {
  local dir=$1 home
  if ! mkdir -p "$dir" 2>/dev/null || [ ! -w "$dir" ]; then
    echo "$dir cannot be written: copy the checkout to a folder of your own and start there." >&2
    exit 1
  fi
  home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:[^=]*=//p' "$dir/CMakeCache.txt" 2>/dev/null) ||
    home=  # not configured yet
  if [ -n "$home" ] && ! [ "$home" -ef "$project_dir" ]; then
    echo "$dir was made for a checkout in $home: remove it (rm -r '$dir') and start again." >&2
    exit 1
  fi
}

# same_compiler DIR: ends with a sentence where DIR was made by another compiler than CXX names.
same_compiler() {
  local dir=$1 made_by
  made_by=$(sed -n 's/^CMAKE_CXX_COMPILER:[^=]*=//p' "$dir/CMakeCache.txt" 2>/dev/null) || return 0
  if [ -n "${CXX-}" ] && ! [ "$made_by" -ef "$(command -v "${compiler[0]}")" ]; then
    echo "$dir was made by $made_by, not ${compiler[0]}: remove it (rm -r '$dir') and start again." >&2
    exit 1
  fi
}

# build PRESET TESTS [TARGET...]: configures, and builds all or the targets, with tests (ON) or without
# (OFF, which needs no GoogleTest).
build() {
  local preset=$1 dir=$project_dir/build/$1
  usable_build_dir "$dir"
  case $preset in
    release | verify | dev | bench) same_compiler "$dir" ;;  # the others bring their own
  esac
  quietly "Building ($preset)" build_quietly "$@" && return
  echo "The build failed." >&2
  exit 1
}

build_quietly() {
  cd "$project_dir" && cmake --preset "$1" -DORVO_BUILD_TESTS="$2" &&
    cmake --build --preset "$1" ${3:+--target "${@:3}"}
}
