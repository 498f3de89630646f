#!/bin/sh
# Makes /etc/lacpd and, when there is none yet, the first lacpd.conf in it, both owned by user and group "daemon":
# "write memory" replaces the file, so the daemon must be able to write the folder. An existing file stays as it is,
# but for its owner.
#
#   install-configuration.sh                 as root; again at any time
#   install-configuration.sh --run-folder    gives /run/lacpd, for process id and local shell socket, to the daemon too
set -eu

USER=daemon
GROUP=daemon
FOLDER=/etc/lacpd
RUN_FOLDER=/run/lacpd

first=$(cd "$(dirname "$0")" && pwd)/../lacpd.conf

die() {
  echo "install-configuration: $*" >&2
  exit 1
}

case ${1:-} in
'' | --run-folder) ;;
*) die "unknown argument $1" ;;
esac
[ "$(id -u)" = 0 ] || die "run this as root"

install -d -o "$USER" -g "$GROUP" -m 0750 "$FOLDER"
if [ -L "$FOLDER/lacpd.conf" ]; then
  die "$FOLDER/lacpd.conf is a symbolic link; put the file itself there"
elif [ ! -e "$FOLDER/lacpd.conf" ]; then
  # The folder is the daemon's: what is written there may meanwhile be a link to somewhere else, what is moved is not.
  fresh=$(mktemp "$FOLDER.XXXXXX")
  trap 'rm -f "$fresh"' EXIT
  install -o "$USER" -g "$GROUP" -m 0640 "$first" "$fresh"
  mv -nT "$fresh" "$FOLDER/lacpd.conf"
else
  chown -h "$USER:$GROUP" "$FOLDER/lacpd.conf"
fi
[ -z "${1:-}" ] || install -d -o "$USER" -g "$GROUP" -m 0755 "$RUN_FOLDER"
