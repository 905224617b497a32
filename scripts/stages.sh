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
  # Else two builds of the same sources with the same options share nothing, since they are in two directories.
  export CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
  # Else it preprocesses what it does not find first, which costs a seventh more.
  export CCACHE_DEPEND=${CCACHE_DEPEND:-1}
}

# configure DIRECTORY CMAKE-OPTION...
configure() {
  local directory=$1
  shift
  cmake -S . -B "$directory" -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"
}

configure_and_build() { configure "$@" && cmake --build "$1"; }

# build_daemon [ECHO [TARGET...]]: build/lb, as a user builds it, and what else is named; ECHO is told what is going on.
build_daemon() {
  local tell=${1:-:}
  scripts/bootstrap || return
  if ! [ -f build/build.ninja ]; then
    "$tell" "configuring ..."
    cmake -S . -B build -G Ninja >/dev/null || return
  fi
  "$tell" "building ..."
  cmake --build build --target lb "${@:2}" >/dev/null
}

say() { printf '\n== %s\n' "$*"; }

# figures STAGE: what is shown below the stage's line, from its log; a script may have its own.
figures() { :; }

# stage NAME COMMAND...: a step that passes or fails as one; shows its output only when it fails, how long it took, when
# it began, and what it had of the processor. The log and the result go to $reports. Several may run at once: what one
# shows stays together.
stage() {
  local name=$1 started=$SECONDS status=fail used times
  local TIMEFORMAT='%0U %0S'
  shift
  echo fail >"$reports/$name.stage"  # until it has passed, also when it never ends
  if { time "$@" >"$reports/$name.log" 2>&1 </dev/null; } 2>"$reports/$name.time"; then
    status=pass
    echo pass >"$reports/$name.stage"
  fi
  # The shell's word of a command that a signal has ended comes before.
  read -r -a used < <(tail -n 1 "$reports/$name.time")
  printf -v times '%d s from %d:%02d, processor %d s' $((SECONDS - started)) \
    $((started / 60)) $((started % 60)) $((used[0] + used[1]))
  {
    flock 9
    if [ $status = pass ]; then
      echo "ok      $name ($times)"
    else
      echo "FAILED  $name ($times):"
      what_failed "$name"
    fi
    figures "$name"
  } 9>>"$reports/output.lock"
  : >"$reports/$name.ended"
  [ $status = pass ]
}

# await STAGE: until the first lane, if that is another one, has ended it or is gone; true when the stage has passed.
await() {
  until [ -e "$reports/$1.ended" ] || ! kill -0 "${groups[0]:-none}" 2>/dev/null; do sleep 0.5; done
  [ -e "$reports/$1.ended" ] && [ "$(cat "$reports/$1.stage")" = pass ]
}

# one_share [FILE]: until the script ends, sessions have no shares of the processor of their own (autogroup, sched(7)).
# With them kernel 6.18 lets whole sessions and its own threads wait for seconds at times while the processors are busy,
# and links fail that are well. Only root may change it; FILE is the kernel's switch.
one_share() {
  local switch=${1:-/proc/sys/kernel/sched_autogroup_enabled}
  [ "$(cat "$switch" 2>/dev/null)" = 1 ] || return 0
  if { echo 0 >"$switch"; } 2>/dev/null; then
    trap "echo 1 >'$switch'" EXIT
    echo "$switch is 0 until the end"
  else
    echo "$switch is 1, and only root may change it: expect stalls while the machine is busy"
  fi
}

# in_memory DIRECTORY COMMAND...: the command has it for its temporary files, and none of them is on a disk, where
# making and removing so many costs a lab a seventh of all its work. Who may mount nothing has it as it is.
in_memory() {
  local directory=$1 mounted=()
  shift
  ! unshare -m mount -t tmpfs lb "$directory" 2>/dev/null ||
    mounted=(unshare -m sh -c 'mount -t tmpfs lb "$0" && exec "$@"' "$directory")
  "${mounted[@]}" env TMPDIR="$directory" "$@"
}

# What failed, and why, comes first: the log's end may be cut off where this is shown.
what_failed() {
  {
    grep -aE '^(FAILED|ERROR|PROBLEM)[: ]|^\[  FAILED' "$reports/$1.log" | head -n 20
    grep -aE '^E  |error: |Sanitizer' "$reports/$1.log" | head -n 20
    echo "--- the end of $1.log:"
    tail -n "${LB_CHECK_LINES:-60}" "$reports/$1.log"
  } | cut -c 1-400 | sed 's/^/    /'
}

# lanes FUNCTION...: all of them at once, to their ends. An interruption ends what they have started.
groups=()
lanes() {
  local lane
  trap 'kill -- "${groups[@]/#/-}" 2>/dev/null; exit 130' INT TERM
  set -m  # a process group each
  for lane in "$@"; do
    "$lane" &
    groups+=($!)
  done
  set +m
  wait
  trap - INT TERM
}
