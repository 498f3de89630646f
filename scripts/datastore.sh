#!/usr/bin/env bash
# Puts the YANG modules into the sysrepo datastore and gives its files to root and group daemon.
#
#   scripts/datastore.sh            install what is missing, upgrade a changed revision, set owner and access
#   scripts/datastore.sh --help
#
# Run it as root before the first start and at every boot, before the programs that use the datastore.
#
# SYSREPOCTL               the tool to use (default: the one that scripts/deps.sh has built)
# SYSREPO_REPOSITORY_PATH  another repository than sysrepo's own; SYSREPO_SHM_DIR and SYSREPO_SHM_PREFIX likewise.
#                          A private repository of another user than root keeps that user's files.
set -euo pipefail

OWNER=root
GROUP=daemon
MODULES=(olt-ifm olt-lacp) # an imported module before the one that imports it
# As scripts/deps.sh builds sysrepo. A commit of the running datastore is a rename in the second one, so that must not
# have the sticky bit: in /dev/shm itself nobody but root could replace what root has written.
DEFAULT_REPOSITORY=/etc/sysrepo
DEFAULT_SHM_DIR=/dev/shm/sysrepo

here=$(cd "$(dirname "$0")" && pwd)
yang=$here/../yang

say() { echo "datastore: $*" >&2; }
die() {
  say "$*"
  exit 1
}
usage() { sed -n '2,/^set /{/^set /d;s/^# \{0,1\}//;p}' "$0"; }

find_tool() {
  local tool=${SYSREPOCTL:-$("$here/deps.sh" --prefix)/bin/sysrepoctl}
  [ -x "$tool" ] || die "$tool is not there; run scripts/deps.sh first, or set SYSREPOCTL"
  echo "$tool"
}

run() { # sysrepoctl, with its output shown only when it fails
  local output
  output=$("$tool" "$@" 2>&1) || die "sysrepoctl $*: $output"
}

is_root() { [ "$(id -u)" = 0 ]; }

# sysrepo leaves an existing directory as it finds it. Every user of the datastore opens what the others have made there,
# also pipes of subscribers; those take the group from the directory and not from the process, whoever it is.
prepare_directory() {
  if is_root; then
    getent group "$GROUP" >/dev/null || die "there is no group $GROUP; create it first"
    [ ! -k "$1" ] || die "$1 is shared with every user; name a directory that only the datastore uses"
    install -d -o "$OWNER" -g "$GROUP" -m 2770 "$1"
  else
    mkdir -p "$1" 2>/dev/null && [ -w "$1" ] ||
      die "$1 cannot be written; run this as root, or name a private repository"
  fi
}

installed_revision() { # MODULE; empty when it is not installed
  "$tool" -l | awk -F'|' -v module="$1" '{ gsub(/ /, "", $1); gsub(/ /, "", $2) } $1 == module { print $2 }'
}

file_revision() { awk '$1 == "revision" { print $2; exit }' "$yang/$1.yang"; }

install_missing() {
  local arguments=() module
  for module in "${MODULES[@]}"; do
    [ -n "$(installed_revision "$module")" ] || arguments+=(--install "$yang/$module.yang")
  done
  [ ${#arguments[@]} -eq 0 ] || run "${arguments[@]}" --search-dirs "$yang"
}

upgrade_changed() {
  local arguments=() module
  for module in "${MODULES[@]}"; do
    [ "$(installed_revision "$module")" = "$(file_revision "$module")" ] ||
      arguments+=(--update "$yang/$module.yang")
  done
  [ ${#arguments[@]} -eq 0 ] || run "${arguments[@]}" --search-dirs "$yang"
}

set_access() {
  is_root || return 0
  local module
  for module in "${MODULES[@]}"; do
    run --change "$module" --owner "$OWNER" --group "$GROUP" --permissions 660
  done
}

case ${1:-} in
'') ;;
-h | --help)
  usage
  exit 0
  ;;
*)
  usage >&2
  die "unknown argument $1"
  ;;
esac

tool=$(find_tool)
if [ -n "${SYSREPO_REPOSITORY_PATH:-}" ] && [ -z "${SYSREPO_SHM_DIR:-}${SYSREPO_SHM_PREFIX:-}" ]; then
  die "SYSREPO_REPOSITORY_PATH alone would mix two datastores; set SYSREPO_SHM_DIR or SYSREPO_SHM_PREFIX as well"
fi
prepare_directory "${SYSREPO_REPOSITORY_PATH:-$DEFAULT_REPOSITORY}"
prepare_directory "${SYSREPO_SHM_DIR:-$DEFAULT_SHM_DIR}"
install_missing
upgrade_changed
set_access
