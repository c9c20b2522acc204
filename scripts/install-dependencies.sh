#!/usr/bin/env bash
# install-dependencies.sh GROUP...: installs the Debian packages that are missing for
#   build  configuring, building and testing with GCC; what the tests of the Python package use
#   bench  the benches
#   check  clang builds, sanitizers, fuzz targets, clang-format, clang-tidy, mypy, black
#   package  making Debian packages and trying them
#   arrow  fetching the engine that scans streams of Arrow arrays
#   32-bits  compiling for 32 bits
#   windows  building for Windows with MinGW-w64, and running what was built
set -euo pipefail

packages=()
for group in "$@"; do
  case $group in
    build)
      packages+=(cmake ninja-build g++ pkg-config zlib1g-dev libdeflate-dev libgtest-dev libcli11-dev
        nlohmann-json3-dev libfmt-dev python3
        python3-can python3-dask python3-distributed python3-matplotlib python3-numpy python3-pandas
        python3-pip python3-pytest python3-tqdm python3-venv python3-xarray)
      ;;
    bench) packages+=(libbenchmark-dev libhdf5-dev libsqlite3-dev) ;;
    check) packages+=(clang libclang-rt-dev llvm clang-format clang-tidy mypy black) ;;
    package) packages+=(dpkg-dev man-db groff-base bsdextrautils zsh fish) ;;
    arrow) command -v npm >/dev/null || packages+=(npm) ;;
    32-bits) packages+=(g++-multilib) ;;
    windows)
      packages+=(g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix libz-mingw-w64-dev
        wine wine64 googletest)
      ;;
    *)
      echo "install-dependencies.sh: unknown group '$group'" >&2
      exit 2
      ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
    missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing ${missing[*]}"
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -q --no-install-recommends "${missing[@]}"
