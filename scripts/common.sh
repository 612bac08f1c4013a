# Sourced by the other scripts: what the build needs, installed where it is missing.
# Everything said here goes to standard error; standard output belongs to what a script runs.

project_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# need_packages PACKAGE...: installs missing Debian packages as root, else names the command.
need_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ "$(id -u)" -ne 0 ]; then
    echo "Missing packages. As root: apt-get update && apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  echo "Installing: ${missing[*]}" >&2
  { apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
      "${missing[@]}"; } >&2 </dev/null || exit 1
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

# build PRESET TESTS: configures and builds, with tests (ON) or without (OFF, which needs no
# GoogleTest); the whole output only where it fails.
build() {
  local preset=$1 log
  usable_build_dir "$project_dir/build/$preset"
  log=$(mktemp)
  echo "Building ($preset) ..." >&2
  if ! { cd "$project_dir" && cmake --preset "$preset" -DORVO_BUILD_TESTS="$2" &&
         cmake --build --preset "$preset"; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "The build failed." >&2
    exit 1
  fi
  rm -f "$log"
}

build_packages=(cmake ninja-build g++)
inspection_packages=(libcli11-dev libfmt-dev libkainjow-mustache-dev nlohmann-json3-dev)
python_packages=(pybind11-dev python3-dev python3-numpy)
test_packages=("${build_packages[@]}" "${inspection_packages[@]}" "${python_packages[@]}" libgtest-dev)
