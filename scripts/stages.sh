# What the scripts that build and test have in common; they source it first, then go to the checkout's root.
# shellcheck shell=bash

self=$(realpath "$0") || exit 1
python=/usr/bin/python3
jobs=$(nproc)

# usage LINES: shows those lines of the script's first comment, and ends it.
usage() {
  sed -n "$1s/^# \{0,1\}//p" "$self" >&2
  exit 2
}

# absolute PATH: the same from every directory; nothing for nothing.
absolute() { [ -z "$1" ] || realpath -m "$1"; }

# use_ccache DIRECTORY: the compiler's cache, where the caller has none of his own.
use_ccache() {
  export CCACHE_DIR=${CCACHE_DIR:-$1}
  # Else nothing with a precompiled header is cached.
  export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}
}

# configure DIRECTORY CMAKE-OPTION...
configure() {
  local directory=$1
  shift
  cmake -S . -B "$directory" -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"
}

configure_and_build() { configure "$@" && cmake --build "$1"; }

# build_daemon [ECHO]: build/lb, as a user builds it; ECHO is told what is going on.
build_daemon() {
  local tell=${1:-:}
  scripts/bootstrap || return
  if ! [ -f build/build.ninja ]; then
    "$tell" "configuring ..."
    cmake -S . -B build -G Ninja >/dev/null || return
  fi
  "$tell" "building ..."
  cmake --build build --target lb >/dev/null
}

say() { printf '\n== %s\n' "$*"; }

# stage NAME COMMAND...: a step that passes or fails as one; shows its output only when it fails. The log and the
# result go to $reports.
stage() {
  local name=$1 started=$SECONDS
  shift
  echo fail >"$reports/$name.stage"  # until it has passed, also when it never ends
  if "$@" >"$reports/$name.log" 2>&1 </dev/null; then
    echo "ok      $name ($((SECONDS - started)) s)"
    echo pass >"$reports/$name.stage"
    return 0
  fi
  echo "FAILED  $name ($((SECONDS - started)) s):"
  # What failed, and why, comes first: the log's end may be cut off where this is shown.
  {
    grep -aE '^(FAILED|ERROR)[: ]|^\[  FAILED' "$reports/$name.log" | head -n 20
    grep -aE '^E  |error: |Sanitizer' "$reports/$name.log" | head -n 20
    echo "--- the end of $name.log:"
    tail -n "${LB_CHECK_LINES:-60}" "$reports/$name.log"
  } | cut -c 1-400 | sed 's/^/    /'
  return 1
}
