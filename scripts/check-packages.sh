#!/usr/bin/env bash
# check-packages.sh BUILD: makes the Debian packages of a release build, installs them, uses them as
# their users do, removes them, and looks whether anything stays. As root, or with sudo.
set -euo pipefail
build=$(realpath "$1")
source=$(realpath "$(dirname "$0")/..")
work=$(mktemp -d)
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
packages=(tolvex libtolvex-dev libtolvex0)

# fail WHAT...: says so and ends.
fail() {
  echo "check-packages.sh: $*" >&2
  exit 1
}

# logged COMMAND...: runs it, and shows what it said only if it fails.
logged() {
  "$@" >"$work/log" 2>&1 || { cat "$work/log"; fail "$1 failed"; }
}

# expect TEXT COMMAND...: the command prints the text.
expect() {
  "${@:2}" >"$work/out" 2>&1 || { cat "$work/out"; fail "${*:2} failed"; }
  grep -qF -- "$1" "$work/out" || { head -n 20 "$work/out"; fail "${*:2}: no \"$1\""; }
}

for package in "${packages[@]}"; do
  ! dpkg-query -s "$package" >/dev/null 2>&1 || fail "$package is installed already"
done
installed=false
finish() {
  local status=$?
  [ "$installed" = false ] || "${as_root[@]}" dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT
cd "$work"

logged cpack --config "$build/CPackConfig.cmake" -B "$work/packages"
dpkg-deb -f packages/libtolvex0_*.deb Depends | grep -q 'libc6 .*zlib1g' || fail "no dependencies"
for file in packages/*.deb; do
  dpkg-deb --fsys-tarfile "$file" | tar -t | sed 's/^\.//'
done | sort -u | while read -r path; do
  [ -e "$path" ] || echo "$path"
done >paths
installed=true
logged "${as_root[@]}" dpkg -i packages/*.deb

# The program.
data=$source/tests/data
version=$(dpkg-query -W -f='${source:Upstream-Version}' tolvex)
expect "tolvex $version" tolvex --version
expect 'dg 6 cg 0 ' tolvex info "$data/decoded-00000005.mf4"
! readelf -d /usr/bin/tolvex | grep -E 'R(UN)?PATH' || fail "the program looks for its library itself"

# states COMMAND WHERE TEXT: all options of the command's help are in the text.
states() {
  local option
  for option in $(tolvex "$1" --help | sed -nE 's/^  (-[a-zA-Z],)?(--[a-z-]+).*/\2/p'); do
    grep -qF -- "$option" <<<"$3" || fail "$1: no $option in $2"
  done
}

# complete WORDS...: what bash completes the last of them with.
complete() {
  bash -c 'source /usr/share/bash-completion/completions/tolvex
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _tolvex; echo "=${COMPREPLY[*]}="' - "$@"
}

# zsh_options COMMAND: what zsh is told of them.
zsh_options() {
  zsh -fc '_arguments() { state=argument line=("$command"); print -r -- "$@"; }
    command=$1; shift; source /usr/share/zsh/vendor-completions/_tolvex' - "$1"
}

# The manual, of which groff does not complain, and the completions: all that the help has.
commands=$(tolvex --help | sed -n '/^Subcommands:/,/^$/{/^  help /d; s/^  \([a-z]\{1,\}\) .*/\1/p}')
for command in $commands; do
  page=tolvex-$command
  manual=$(MANWIDTH=80 LC_ALL=C.UTF-8 man "$page" 2>&1 | col -b) || fail "no page $page"
  grep -qF "$page - " <<<"$manual" || fail "$page has no name"
  warnings=$(gzip -dc "/usr/share/man/man1/$page.1.gz" | groff -man -ww -z -Tutf8 2>&1)
  [ -z "$warnings" ] || fail "$page: $warnings"
  states "$command" "the manual" "$manual"
  states "$command" "bash" "$(complete tolvex "$command" -)"
  states "$command" "zsh" "$(zsh_options "$command")"
  states "$command" "fish" "$(HOME=$work fish -c "complete -C 'tolvex $command -'")"
  expect "=$command=" complete tolvex help "$command"
  expect "$page(1)" env MANWIDTH=80 LC_ALL=C.UTF-8 man tolvex
done
expect '=recover record=' complete tolvex rec
expect '=candump csv=' complete tolvex cat --format c
expect '=ndjson=' complete tolvex cat --format = nd
expect '==' complete tolvex export -o '' # files, by readline
expect "ndjson" env HOME="$work" fish -c "complete -C 'tolvex cat --format '"

# The library, without a word of where it lies.
logged cmake -G Ninja -S "$source/examples" -B examples
logged cmake --build examples
expect 'Speed [m/s]' examples/list_file "$data/decoded-00000005.mf4"
read -ra flags <<<"$(pkg-config --cflags --libs tolvex)"
logged cc -std=c11 "$source/examples/record_signals.c" -o record_signals "${flags[@]}"
logged ./record_signals recorded.mf4
[ "$(pkg-config --modversion tolvex)" = "$version" ] || fail "pkg-config has another version"

logged "${as_root[@]}" dpkg --purge "${packages[@]}"
installed=false
for path in $(<paths); do
  [ ! -e "$path" ] && [ ! -L "$path" ] || fail "$path is still there"
done
! ldconfig -p | grep tolvex || fail "the linker still knows the library"
echo "check-packages.sh: $(wc -l <paths) files and folders came and went"
