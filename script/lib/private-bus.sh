# shellcheck shell=bash
# A message bus of its own with the helper on it, and a home directory of its own where the practice engine replaces
# both engines. For scripts that source it:
#
#   . script/lib/private-bus.sh
#   trap 'private_bus_stop || true' EXIT
#   private_bus_start BUILD_DIRECTORY/bin
#
# Afterwards the bus starts the helper with the first call, and these are set:
#   PRIVATE_BUS_ROOT          a temporary directory of mode 0700, removed by private_bus_stop
#   PRIVATE_BUS_HOME          the home directory that the helper sees, with .local/bin/claude and codex in it
#   PRIVATE_BUS_LOG           what the bus and the helper wrote to standard error
#   PRIVATE_BUS_USER          an array: as the first words of a command they give it the same home directory
#   DBUS_SESSION_BUS_ADDRESS  exported, as is PRIVATE_BUS_LOG
#
# The helper's executable is the unchanged one: the home directory comes from the user database, through nss_wrapper.

private_bus_pid=
PRIVATE_BUS_USER=()

# The process that owns the helper's name, or nothing.
private_bus_helper_pid() {
  {
    dbus-send --session --print-reply=literal --dest=org.freedesktop.DBus / \
      org.freedesktop.DBus.GetConnectionUnixProcessID string:group.com.brindlemoor.Tessaloom.helper \
      2>/dev/null || true
  } | awk '$1 == "uint32" { print $2 }'
}

# Whether a process runs; one that has ended and waits for its parent, whoever that is by now, does not.
private_bus_runs() {
  local state
  state=$(ps -o stat= -p "$1")
  [[ -n $state && $state != Z* ]]
}

# private_bus_end_tree SIGNAL PROCESS: a process and those below it.
private_bus_end_tree() {
  local child children
  children=$(ps -o pid= --ppid "$2") || true
  kill -s "$1" "$2" 2>/dev/null || true
  for child in $children; do private_bus_end_tree "$1" "$child"; done
}

private_bus_write_config() {
  cat >"$PRIVATE_BUS_ROOT/bus.conf" <<CONFIG
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$PRIVATE_BUS_ROOT/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$PRIVATE_BUS_ROOT/services</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <!-- The limits of an ordinary session bus. -->
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="service_start_timeout">120000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
CONFIG
}

# private_bus_write_activation BIN [NAME=VALUE...]: how the bus starts BIN/tessaloom-helper.
private_bus_write_activation() {
  local bin=$1 wrapper
  shift
  # Read to the end: a pipe that is closed early fails the side that still writes.
  wrapper=$(/sbin/ldconfig -p | awk '$1 == "libnss_wrapper.so" && !path { path = $NF } END { print path }')
  if [[ -z $wrapper ]]; then
    echo "private-bus: libnss_wrapper.so is missing (package libnss-wrapper)" >&2
    return 1
  fi
  local entry uid
  uid=$(id -u)
  entry="$(id -un):x:$uid:$(id -g)::$PRIVATE_BUS_HOME:/bin/sh"
  printf '%s\n' "$entry" >"$PRIVATE_BUS_ROOT/passwd"
  printf '%s\n' "$(id -gn):x:$(id -g):" >"$PRIVATE_BUS_ROOT/group"
  mkdir "$PRIVATE_BUS_ROOT/services"
  PRIVATE_BUS_USER=(/usr/bin/env "LD_PRELOAD=$wrapper" "NSS_WRAPPER_PASSWD=$PRIVATE_BUS_ROOT/passwd"
    "NSS_WRAPPER_GROUP=$PRIVATE_BUS_ROOT/group" "$@")
  cat >"$PRIVATE_BUS_ROOT/services/helper.service" <<SERVICE
[D-BUS Service]
Name=group.com.brindlemoor.Tessaloom.helper
Exec=$(printf '"%s" ' "${PRIVATE_BUS_USER[@]}" "$bin/tessaloom-helper")
SERVICE
}

# private_bus_start BIN [NAME=VALUE...]: BIN holds the executables and the practice engine; the variables are for the
# helper's environment.
private_bus_start() {
  local bin=$1 attempts=0 program
  for program in tessaloom-helper practice-engine; do
    if [[ ! -x $bin/$program ]]; then
      echo "private-bus: $bin/$program is not built" >&2
      return 1
    fi
  done
  # Not below TMPDIR: the path is part of addresses, which escape most characters, and of sockets, which may not be long.
  PRIVATE_BUS_ROOT=$(mktemp -d /tmp/tessaloom-bus-XXXXXX)
  PRIVATE_BUS_HOME=$PRIVATE_BUS_ROOT/home
  export PRIVATE_BUS_LOG=$PRIVATE_BUS_ROOT/log
  (
    umask 022
    mkdir -p "$PRIVATE_BUS_HOME/.local/bin"
    install -m 0755 "$bin/practice-engine" "$PRIVATE_BUS_HOME/.local/bin/claude"
    install -m 0755 "$bin/practice-engine" "$PRIVATE_BUS_HOME/.local/bin/codex"
  )
  private_bus_write_config
  private_bus_write_activation "$@"
  # A session of its own: what a person's Ctrl-C ends is the script, which then ends the bus in order.
  setsid dbus-daemon --config-file="$PRIVATE_BUS_ROOT/bus.conf" --nofork --nopidfile --nosyslog \
    --print-address >"$PRIVATE_BUS_ROOT/address" 2>>"$PRIVATE_BUS_LOG" </dev/null &
  private_bus_pid=$!
  export DBUS_SESSION_BUS_ADDRESS="unix:path=$PRIVATE_BUS_ROOT/bus"
  # It prints its address once it listens; its socket is there before.
  until [[ -s $PRIVATE_BUS_ROOT/address ]]; do
    if ((++attempts > 200)) || ! kill -0 "$private_bus_pid" 2>/dev/null; then
      cat "$PRIVATE_BUS_LOG" >&2
      echo "private-bus: the bus did not start" >&2
      return 1
    fi
    sleep 0.05
  done
}

# Ends the helper and the bus, and removes everything. Fails when a sanitizer has reported something of the helper, and
# prints that. Safe to call twice, and before the start.
private_bus_stop() {
  local helper attempts=0 status=0
  [[ -n ${PRIVATE_BUS_ROOT:-} ]] || return 0
  if [[ -n $private_bus_pid ]]; then
    helper=$(DBUS_SESSION_BUS_ADDRESS=unix:path=$PRIVATE_BUS_ROOT/bus private_bus_helper_pid)
    kill "$private_bus_pid" 2>/dev/null || true
    wait "$private_bus_pid" 2>/dev/null || true
    private_bus_pid=
    # A helper without a bus exits by itself, after 3 seconds if an engine ignores SIGTERM.
    while [[ -n $helper ]] && private_bus_runs "$helper"; do
      if ((++attempts > 200)); then
        kill -KILL "$helper" 2>/dev/null
        break
      fi
      sleep 0.05
    done
  fi
  ! grep -aE -A 40 'Sanitizer|runtime error: ' "$PRIVATE_BUS_LOG" 2>/dev/null || status=1
  rm -rf "$PRIVATE_BUS_ROOT"
  PRIVATE_BUS_ROOT=
  return "$status"
}
