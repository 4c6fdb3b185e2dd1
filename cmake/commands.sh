# shellcheck shell=bash disable=SC2034
# Shared by the commands run, test and .ci/run: the Debian packages that each needs and the display of a step. Sourced,
# never run.

# run needs the first list, test the first two, bench/run these and its own, the checks of test --all, test --fuzz and
# .ci/run also the others. test --coverage and test --browser need the first two and their own, the latter also the fonts
# for pictures; the preset arm9 needs the first list and the last.
build_packages=(cmake ninja-build g++ pkg-config
                libboost-context-dev libdvbpsi-dev libcli11-dev nlohmann-json3-dev libfmt-dev libncurses-dev
                libpng-dev libsnmp-dev libcpp-httplib-dev unifont)
test_packages=(help2man libgtest-dev libgmock-dev ffmpeg iproute2 python3 sigrok-cli socat tmux valgrind
               smitools erlang-base erlang-snmp python3-pysmi snmp snmptrapd strace parallel)
bench_packages=(valgrind snmpd)
check_packages=(g++-11 afl++ clang clang-tidy clang-format libclang-rt-14-dev libclang-14-dev llvm-14-dev)
coverage_packages=(gcovr)
browser_packages=(chromium chromium-driver python3-selenium)
picture_packages=(fonts-noto-cjk)
arm_packages=(g++-arm-linux-gnueabi googletest qemu-user)

say() { printf '%s\n' "$@" >&2; }
die() { say "$@"; exit 1; }

failed() { say "$1" "" "Failed: ${*:2}"; }  # OUTPUT COMMAND...

# Runs a command and shows its output only if it fails.
quietly() {
  local output status=0
  output=$("$@" 2>&1 </dev/null) || status=$?
  if ((status)); then failed "$output" "$@"; fi
  return $status
}

# Removes the build folder of a checkout that was copied or moved since, because its files name the old place.
# Copies keep the times of their files, so ninja would find nothing to do.
remove_moved_build() {  # FOLDER ROOT
  local cache=$1/CMakeCache.txt
  [[ -e $cache ]] || return 0
  grep -qFx "CMAKE_HOME_DIRECTORY:INTERNAL=$2" "$cache" || rm -rf "$1"
}

# Shows how far ninja is: each step on a terminal, else a line every half minute.
build_with_progress() {  # COMMAND...
  if [[ -t 2 ]]; then "$@" >&2; return; fi
  local log status=0 builder waited=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 </dev/null &
  builder=$!
  while kill -0 "$builder" 2>/dev/null; do
    sleep 1
    ((++waited % 30)) || say "$(sed -n 's/^\(\[[0-9]*\/[0-9]*\]\).*/\1 built so far/p' "$log" | tail -n1)"
  done
  wait "$builder" || status=$?
  if ((status)); then failed "$(cat "$log")" "$@"; fi
  rm -f "$log"
  return $status
}

missing_packages() {
  comm -13 <(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null | sed -n 's/ installed$//p' | sort -u) \
           <(printf '%s\n' "$@" | sort -u)
}

# Installs missing packages. Asks dpkg first, so that a machine with all packages needs no network.
install_packages() {
  command -v dpkg-query >/dev/null || { say "No dpkg here, so packages are not checked; needed: $*"; return; }
  local missing as_root=()
  mapfile -t missing < <(missing_packages "$@")
  ((${#missing[@]})) || return 0
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      die "Packages are missing and neither root nor sudo is at hand. As root: apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  say "Installing ${missing[*]} ..."
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
  # A list that cannot be fetched is ignored: only the installation of the packages matters.
  local update_log
  update_log=$("${apt[@]}" update 2>&1 </dev/null) || true
  quietly "${apt[@]}" install --no-install-recommends -y "${missing[@]}" && return
  [[ -z $update_log ]] || say "$update_log"
  die "Could not install packages (is there a network?). As root: apt-get update && apt-get install ${missing[*]}"
}
