# shellcheck shell=bash
# The macOS helper as an agent of a launchd of its own, with the client signed like the editor. Takes the place of
# script/lib/private-bus.sh in scripts that source it, by the same names:
#
#   private_bus_start BUILD_DIRECTORY/bin [NAME=VALUE...]
#   private_bus_stop
#   PRIVATE_BUS_HOME, PRIVATE_BUS_USER   as there; everything started later sees that home directory
#   PRIVATE_BUS_CLIENT                   the client that is signed

private_agent_launchd=
PRIVATE_BUS_USER=()

private_bus_start() {
  local here build=${1%/bin} attempts=0 variables
  here=$(dirname "${BASH_SOURCE[0]}")
  shift
  PRIVATE_BUS_ROOT=$(mktemp -d "${TMPDIR:-/tmp}/tessaloom-agent-XXXXXX")
  variables=$("$here/machine.py" "$build" "$PRIVATE_BUS_ROOT" "$@") || return 1
  set -a
  eval "$variables"
  set +a
  PRIVATE_BUS_HOME=$PRIVATE_BUS_ROOT/home
  PRIVATE_BUS_CLIENT=$PRIVATE_BUS_ROOT/bin/tessaloom-helperctl
  "$here/launchd" "$PRIVATE_BUS_ROOT/Tessaloom.app" "$PRIVATE_BUS_ROOT/run" 1 &
  private_agent_launchd=$!
  until [[ -S $PRIVATE_BUS_ROOT/run/launchd ]]; do
    ((++attempts <= 200)) || { echo "private-agent: launchd did not start" >&2; return 1; }
    sleep 0.05
  done
}

# Ends the helper, says what it wrote to standard error, and removes everything. Fails when a sanitizer or a double has
# reported something. Safe to call twice.
private_bus_stop() {
  local errors=${PRIVATE_BUS_ROOT:-}/run/errors status=0
  [[ -n $private_agent_launchd ]] || return 0
  kill "$private_agent_launchd"
  wait "$private_agent_launchd"
  private_agent_launchd=
  [[ ! -e $errors ]] || cat "$errors"
  ! grep -qaE 'Sanitizer|runtime error: |^double: ' "$errors" 2>/dev/null || status=1
  rm -rf "$PRIVATE_BUS_ROOT"
  return "$status"
}
