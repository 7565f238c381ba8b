#!/bin/bash
# Whole-program slowdown of the collector next to two tracers from Debian's packages, on one workload:
# the 32-bit pigz compressing a fixed 16 MB file of random bytes with two threads (-p 2 -c > /dev/null).
# Each figure is the best of three wall times in milliseconds (three rounds that run every tool once);
# the table gives it with the slowdown against the native run. The rows:
#   native pigz
#   uftrace record --force: every library call pigz makes through its PLT, written to a temp dir
#   the LTTng-UST pthread wrapper preloaded, idle (daemon up, no session; no daemon when lttng-tools is
#     missing) and with a session recording its lttng_ust_pthread:* events
#   vorx run -c threading,io
# After each traced run the script checks the tracer really wrote something (uftrace's report, the LTTng
# events, vorx report's record count), so a row never stands for a tracer that silently did nothing.
# Missing packages are installed (apt-get, sudo when not root); a peer that cannot be installed or run is
# skipped with a note saying why.
#   run_peers.sh [build dir]     (default /work/main/build; uses <build dir>/bin/vorx)
# VORX_PEER_ROUNDS=<n> takes the best of n rounds instead of three, for a machine too busy for three.
set -eu
build=${1:-/work/main/build}
rounds=${VORX_PEER_ROUNDS:-3}
vorx=$build/bin/vorx
pigz=/usr/bin/pigz
libdir=/usr/lib/i386-linux-gnu
wrapper=$libdir/liblttng-ust-pthread-wrapper.so.1

work=$(mktemp -d)
sessiond_pid=""
cleanup() {
  # The session daemon is ours only when we started it; it is stopped by the pid it wrote.
  if [ -n "$sessiond_pid" ]; then
    lttng destroy --all > /dev/null 2>&1 || true
    kill "$sessiond_pid" 2> /dev/null || true
    for _ in 1 2 3 4 5 6 7 8 9 10; do kill -0 "$sessiond_pid" 2> /dev/null || break; sleep 0.2; done
  fi
  rm -rf "$work"
}
trap cleanup EXIT
# The lttng client keeps its current-session file here; a non-root session daemon also lives here.
export LTTNG_HOME=$work/lttng-home
mkdir -p "$LTTNG_HOME"

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

notes=()
note() { notes+=("$*"); echo "skip: $*"; }

missing() {
  local p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2> /dev/null | grep -q 'install ok installed' || echo "$p"
  done
}

# Installs what is missing; a stale package list is refreshed once. Succeeds when all are installed.
updated=0
ensure() {
  local todo
  todo=$(missing "$@")
  [ -z "$todo" ] && return 0
  echo "installing: $todo"
  # shellcheck disable=SC2086
  if $SUDO apt-get install -y -q --no-install-recommends $todo > "$work/apt.log" 2>&1; then return 0; fi
  if [ "$updated" = 0 ]; then
    updated=1
    $SUDO apt-get update -q > "$work/apt-update.log" 2>&1 || true
    # shellcheck disable=SC2086
    if $SUDO apt-get install -y -q --no-install-recommends $todo > "$work/apt.log" 2>&1; then return 0; fi
  fi
  tail -n 3 "$work/apt.log" | sed 's/^/  apt: /'
  return 1
}

if ! ensure pigz:i386 || ! file -L "$pigz" | grep -q 'ELF 32-bit'; then
  echo "the workload needs the 32-bit pigz at $pigz" >&2
  exit 1
fi
have_uftrace=1; have_wrapper=1; have_session=1
ensure uftrace:i386 || { have_uftrace=0; note "uftrace: apt-get could not install uftrace:i386"; }
ensure liblttng-ust1:i386 || { have_wrapper=0; note "LTTng: apt-get could not install liblttng-ust1:i386 (the pthread wrapper)"; }
if [ "$have_wrapper" = 1 ]; then
  # liburcu8:i386 is what the 32-bit consumer daemon links beside liblttng-ust-ctl5:i386; babeltrace2 counts the events.
  ensure lttng-tools liburcu8:i386 babeltrace2 ||
    { have_session=0; note "LTTng session: apt-get could not install lttng-tools, liburcu8:i386 and babeltrace2"; }
else
  have_session=0
fi

head -c 16000000 < <(openssl enc -aes-128-ctr -nosalt -K 00112233445566778899aabbccddeeff -iv 0 < /dev/zero 2> /dev/null) > "$work/data"

# The tools in table order; tool T runs as `run_T <round>` and writes its trace under "$work/T.<round>".
tools=()
declare -A label best
add_tool() { tools+=("$1"); label[$1]=$2; }

run_native() { "$pigz" -p 2 -c "$work/data"; }
add_tool native "native pigz -p 2"

# pigz is not built with -pg, so uftrace needs --force to run it at all; it then hooks the PLT, which
# records the library calls only. On i386 that hook enters the callee with the target address in %eax,
# and glibc's __pthread_register_cancel (pthread_cleanup_push, used by pigz's thread launcher) takes its
# argument in %eax, so uftrace 0.13 can crash pigz. A probe run finds out before anything is timed.
run_uftrace() { uftrace record --force -d "$work/uftrace.$1" "$pigz" -p 2 -c "$work/data"; }
if [ "$have_uftrace" = 1 ]; then
  if run_uftrace 0 > /dev/null 2> "$work/uftrace.probe.err"; then
    add_tool uftrace "uftrace record --force (library calls)"
  else
    how=$(grep -m1 -o 'terminated by signal: [0-9]*: [A-Za-z ]*' "$work/uftrace.probe.err" || echo "failed")
    where=$(grep -m1 -o '\[0\] ([A-Za-z_0-9]*' "$work/uftrace.probe.err" | sed 's/.*(//' || true)
    why=""
    if [ "$where" = __pthread_register_cancel ]; then
      why="; its i386 PLT hook clobbers %eax, where that function takes its argument"
    fi
    note "uftrace: pigz under 'uftrace record --force' ${how}${where:+ in $where}$why"
  fi
fi

# LTTng: a session daemon hands a 32-bit application to a 32-bit consumer daemon, which Debian's amd64
# lttng-tools does not ship; the one from lttng-tools:i386 is unpacked here (installing it would remove
# the amd64 lttng-tools) unless the i386 lttng-tools is the installed one.
if [ "$have_wrapper" = 1 ] && pgrep -x lttng-sessiond > /dev/null; then
  note "LTTng: a session daemon is already running on this machine; neither an idle nor a recorded run would be ours"
  have_wrapper=0; have_session=0
fi
consumerd32=$libdir/lttng/libexec/lttng-consumerd
if [ "$have_session" = 1 ] && [ ! -x "$consumerd32" ]; then
  mkdir -p "$work/deb"
  if (cd "$work/deb" && apt-get download lttng-tools:i386 > download.log 2>&1) &&
     dpkg-deb -x "$work"/deb/lttng-tools_*_i386.deb "$work/deb/root"; then
    consumerd32=$work/deb/root$libdir/lttng/libexec/lttng-consumerd
  else
    have_session=0
    note "LTTng session: could not fetch lttng-tools:i386 for its 32-bit consumer daemon; a 32-bit pigz cannot be recorded without it"
  fi
fi
if [ "$have_session" = 1 ]; then
  if lttng-sessiond --daemonize --no-kernel --pidfile="$work/sessiond.pid" \
       --consumerd32-path="$consumerd32" --consumerd32-libdir="$libdir" > "$work/sessiond.log" 2>&1; then
    sessiond_pid=$(cat "$work/sessiond.pid")
  else
    have_session=0
    note "LTTng session: lttng-sessiond did not start ($(tail -n 1 "$work/sessiond.log"))"
  fi
fi
# Idle means the wrapper is in place but no session enables its events: each call pays the wrapper and
# its tracepoint test. With the daemon up, pigz also registers with it at start, as it would in use.
run_lttng_idle() { LD_PRELOAD=$wrapper "$pigz" -p 2 -c "$work/data"; }
run_lttng_session() { LD_PRELOAD=$wrapper "$pigz" -p 2 -c "$work/data"; }
if [ "$have_wrapper" = 1 ]; then
  if [ "$have_session" = 1 ]; then
    add_tool lttng_idle "LTTng-UST pthread wrapper, idle (no session)"
    add_tool lttng_session "LTTng-UST pthread wrapper, session recording"
  else
    add_tool lttng_idle "LTTng-UST pthread wrapper, idle (no session daemon)"
  fi
fi
# Each recorded run gets a session of its own, created before and destroyed after the timed part.
session_begin() {
  lttng create "peers$1" --output="$work/lttng_session.$1" &&
    lttng enable-event -u 'lttng_ust_pthread:*' && lttng start
}
session_end() { lttng stop && lttng destroy "peers$1"; }

run_vorx() { "$vorx" run -c threading,io -r "$work/vorx.$1" -- "$pigz" -p 2 -c "$work/data"; }
if [ -x "$vorx" ]; then
  add_tool vorx "vorx run -c threading,io"
else
  note "vorx: no $vorx (build the tree first)"
fi

# Three rounds, each running every tool once, so a busy spell on the machine hits all tools alike;
# a tool's figure is its best round.
declare -A failed
for round in $(seq "$rounds"); do
  for t in "${tools[@]}"; do
    [ -z "${failed[$t]:-}" ] || continue
    if [ "$t" = lttng_session ] && ! session_begin "$round" > /dev/null 2>&1; then
      failed[$t]=1; note "LTTng session: could not create a session"; continue
    fi
    t0=$(date +%s%N)
    if ! "run_$t" "$round" > /dev/null 2> "$work/$t.err"; then
      failed[$t]=1; note "${label[$t]}: pigz failed ($(tail -n 1 "$work/$t.err"))"
    fi
    t1=$(date +%s%N)
    if [ "$t" = lttng_session ]; then session_end "$round" > /dev/null 2>&1 || true; fi
    ms=$(( (t1 - t0) / 1000000 ))
    if [ -z "${best[$t]:-}" ] || [ "$ms" -lt "${best[$t]}" ]; then best[$t]=$ms; fi
  done
done

# What each tracer wrote in the last round; a tool with an empty trace keeps no row.
check() { echo "check $1: $2"; }
if [ -n "${label[uftrace]:-}" ] && [ -z "${failed[uftrace]:-}" ]; then
  calls=$(uftrace report -d "$work/uftrace.$rounds" 2> /dev/null |
          awk '$NF ~ /^(pthread_|read|write)/ { n += $(NF - 1) } END { print n + 0 }')
  check uftrace "$(find "$work/uftrace.$rounds" -type f | wc -l) files in its data dir, $calls pthread_*/read/write calls in uftrace report"
  [ "$calls" -gt 0 ] || { failed[uftrace]=1; note "uftrace: its report shows no pthread or I/O calls"; }
fi
if [ -n "${label[lttng_idle]:-}" ] && [ -z "${failed[lttng_idle]:-}" ]; then
  if LD_PRELOAD=$wrapper LD_TRACE_LOADED_OBJECTS=1 "$pigz" 2> /dev/null | grep -q pthread-wrapper; then
    check "LTTng idle" "the wrapper is among pigz's loaded objects"
  else
    failed[lttng_idle]=1; note "LTTng idle: the wrapper does not load into pigz"
  fi
fi
if [ -n "${label[lttng_session]:-}" ] && [ -z "${failed[lttng_session]:-}" ]; then
  events=$(babeltrace2 "$work/lttng_session.$rounds" 2> /dev/null | grep -c 'lttng_ust_pthread:' || true)
  kinds=$(babeltrace2 "$work/lttng_session.$rounds" 2> /dev/null | grep -o 'lttng_ust_pthread:[a-z_]*' | sort -u | tr '\n' ' ' || true)
  check "LTTng session" "$(find "$work/lttng_session.$rounds" -type f | wc -l) files in the trace dir, $events events ($kinds)"
  [ "$events" -gt 0 ] || { failed[lttng_session]=1; note "LTTng session: the trace holds no pthread events"; }
fi
if [ -n "${label[vorx]:-}" ] && [ -z "${failed[vorx]:-}" ]; then
  records=$("$vorx" report --no-progress "$work/vorx.$rounds" 2> /dev/null | sed -n '1s/.*records: \([0-9]*\).*/\1/p')
  waits=$("$vorx" report --no-progress --csv "$work/vorx.$rounds" 2> /dev/null | grep -c 'pthread_' || true)
  check vorx "${records:-0} records, $waits report rows naming pthread_* functions"
  [ "${records:-0}" -gt 0 ] || { failed[vorx]=1; note "vorx: vorx report finds no records"; }
fi

echo
echo "pigz:i386 -p 2 -c, 16 MB of random bytes, best of $rounds wall times (ms)," \
     "load average $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
printf '  %-52s %8s %9s\n' tool ms slowdown
for t in "${tools[@]}"; do
  [ -z "${failed[$t]:-}" ] || continue
  printf '  %-52s %8s %9s\n' "${label[$t]}" "${best[$t]}" \
    "$(awk -v a="${best[native]}" -v b="${best[$t]}" 'BEGIN { printf "%.2fx", b / a }')"
done
for n in ${notes[@]+"${notes[@]}"}; do echo "  note: $n"; done
