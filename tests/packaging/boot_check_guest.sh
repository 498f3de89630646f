#!/bin/bash
# The part of boot_check.sh that runs inside the virtual machine, once a boot: steps 1, 2 and 3. Prints one line a check;
# the last line of the last boot is "RESULT passed" or "RESULT failed".
cd "$(dirname "$0")" || exit 1
PASSWORD=secret
UNITS=(olt-datastore olt-switch lacpd)

failed=$(cat failed 2>/dev/null || echo 0)
check() { # TEXT COMMAND ...
  if "${@:2}" >output 2>&1; then
    echo "ok    $1"
  else
    echo "FAIL  $1"
    sed 's/^/      | /' output
    failed=$((failed + 1))
  fi
}
within() { # SECONDS COMMAND ...
  local end=$((SECONDS + $1))
  until "${@:2}"; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.5
  done
}
is() { [ "$1" = "$2" ] || { echo "is $1, not $2"; return 1; }; }
no() { ! "$@"; }

property() { systemctl show --value -p "$2" "$1.service"; }
active() { [ "$(property "$1" ActiveState)" = active ]; }
all_active() { for unit in "${UNITS[@]}"; do active "$unit" || return 1; done; }
started_before() { [ "$(property "$1" ActiveEnterTimestampMonotonic)" -le "$(property "$2" ExecMainStartTimestampMonotonic)" ]; }
status_of() { awk -v key="$2:" '$1 == key { print $2 }' "/proc/$(property "$1" MainPID)/status"; }
restarted() { active "$1" && [ "$(property "$1" MainPID)" != "$2" ]; }

shell() { # LINE ...; through the daemon's own shell
  local line
  { printf '%s\n' "$PASSWORD" enable 'terminal length 0'
    for line; do printf '%s\n' "$line"; sleep 0.3; done
    sleep 0.7; } 2>/dev/null | timeout 30 nc 127.0.0.1 2704 | tr -d '\r\0'
}
shell_shows() { shell "${@:2}" >shown; grep -q -- "$1" shown || { cat shown; return 1; }; } # PATTERN LINE ...
trunk() { olt-switch --show 2>&1 | tr -d ' \n' | grep -q "\"group\":$1"; }
received_pdus() { # on both ports; the cable leads from one to the other
  shell 'configure terminal' 'show channel-group information' | sed -n '/LAC Port Statistics/,/actor LAG/p' >shown
  [ "$(awk '$1 ~ /^0[12]$/ && $3 > 0 && $4 > 0' shown | wc -l)" = 2 ] || {
    cat shown
    ip -br link
    return 1
  }
}
carriers() { [ "$(ip -br link show up | grep -c '^\(ethv0\|cpu0\|ge\).*LOWER_UP')" = 6 ]; }

interfaces() { # as a terminal has them: made by the network service at boot
  veth() { printf '[NetDev]\nName=%s\nKind=veth\n[Peer]\nName=%s\n' "$1" "$2" >"/etc/systemd/network/$1.netdev"; }
  veth ethv0 cpu0
  veth ge1 ge2
  veth ge3 ge4
  veth user0 host0
  printf '[Match]\nKind=veth\n[Network]\nLinkLocalAddressing=no\nIPv6AcceptRA=no\n' >/etc/systemd/network/olt.network
  systemctl enable -q systemd-networkd
}

running() {
  check "the interfaces are up" within 60 carriers
  check "the three units are active" within 60 all_active
  check "the shell answers" within 30 shell_shows 'hostname olt' 'show running-config'
  check "the daemon came up at once" is "$(property lacpd NRestarts)" 0
  check "nothing has failed" is "$(systemctl --failed --no-legend | wc -l)" 0
  check "order: datastore, switch" started_before olt-datastore olt-switch
  check "order: switch, daemon" started_before olt-switch lacpd
  check "the daemon is user daemon" is "$(status_of lacpd Uid)" "$(id -u daemon)"
  # net_bind_service 10, net_admin 12, net_raw 13, sys_admin 21
  check "the daemon has its four capabilities" is "$(status_of lacpd CapPrm)" 0000000000203400
  check "the rest of the system is read-only for it" no nsenter -t "$(property lacpd MainPID)" -m touch /usr/x
  check "it cannot get any other" is "$(status_of lacpd NoNewPrivs)" 1
}

first_boot() {
  echo "systemd $(systemctl --version | head -n 1), kernel $(uname -sr), $(uname -m)"
  interfaces
  check "the package installs" dpkg -i lacpd_1_*.deb
  check "installing starts nothing" no active lacpd
  check "systemd finds no fault in the units" systemd-analyze verify --man=no "${UNITS[@]/%/.service}"
  sed -i "s/^!password CHOOSE-ONE/password $PASSWORD/" /etc/lacpd/lacpd.conf
  echo 'OLT_SWITCH_OPTIONS=--cpu cpu0 --port 1=ge1 --port 2=ge2 --port 3=ge3 --host host0' >/etc/default/olt-switch
  check "the units can be enabled" systemctl enable "${UNITS[@]}"
}

second_boot() {
  echo "boot: $(systemd-analyze 2>/dev/null | head -n 1)"
  running
  echo "restarts until the switch stood: $(property olt-switch NRestarts)"
  systemd-analyze security --no-pager 2>/dev/null | grep -E 'lacpd|olt-' | awk '{ print "exposure", $1, $2, $3 }'

  shell 'configure terminal' 'interface gigabitEthernet 0/1' 'channel-group 1 mode active' exit \
    'interface gigabitEthernet 0/2' 'channel-group 3 mode active' exit \
    'interface gigabitEthernet 0/3' 'channel-group 2 mode on' >/dev/null
  check "a manual group gets its trunk" within 10 trunk 2
  check "LACPDUs leave and arrive" within 20 received_pdus
  check "the configuration is saved" shell_shows 'Configuration saved' 'write memory'
  check "user daemon owns the file" is "$(stat -c %U:%G:%a /etc/lacpd/lacpd.conf)" daemon:daemon:600

  local pid
  for unit in lacpd olt-switch; do
    pid=$(property "$unit" MainPID)
    systemctl kill -s KILL "$unit"
    check "$unit is back after a crash" within 20 restarted "$unit" "$pid"
  done
  check "the daemon reads its configuration" within 20 shell_shows 'channel-group 1 mode active' 'show running-config'
  check "LACPDUs leave and arrive after the crashes" within 30 received_pdus

  check "the daemon stops" systemctl stop lacpd
  check "with success" is "$(property lacpd Result)-$(property lacpd ExecMainStatus)" success-0
  check "the switch goes on without it" active olt-switch
  check "the datastore takes the others along" systemctl stop olt-datastore
  check "the switch has stopped with success" is "$(property olt-switch Result)-$(property olt-switch ActiveState)" \
    success-inactive
  check "the daemon starts what it needs" systemctl start lacpd
  check "all are active again" within 30 all_active
}

third_boot() {
  running
  cp /etc/lacpd/lacpd.conf saved
  local before after
  before=$(for unit in "${UNITS[@]}"; do property "$unit" ExecMainStartTimestampMonotonic; done)
  check "a higher version installs over it" dpkg -i lacpd_2_*.deb
  check "the units are active after it" within 60 all_active
  after=$(for unit in "${UNITS[@]}"; do property "$unit" ExecMainStartTimestampMonotonic; done)
  check "each has been restarted" is "$(paste <(echo "$before") <(echo "$after") | awk '$1 < $2' | wc -l)" 3
  check "the daemon's configuration is kept" cmp /etc/lacpd/lacpd.conf saved
  check "the switch's options are kept" grep -q '1=ge1' /etc/default/olt-switch
  check "and in force" within 20 shell_shows 'channel-group 1 mode active' 'show running-config'
  check "LACPDUs leave and arrive after it" within 30 received_pdus

  systemctl stop olt-switch lacpd
  check "an upgrade starts nothing that was stopped" dpkg -i lacpd_2_*.deb
  check "so the daemon is still stopped" no active lacpd
  systemctl start lacpd
  check "it starts again" within 30 all_active

  check "the package can be removed" dpkg -r lacpd
  check "nothing of it runs" is "$(pgrep -c 'lacpd|olt-switch')" 0
  check "the configuration is still there" test -e /etc/lacpd/lacpd.conf -a -e /etc/default/olt-switch
  check "it installs again" dpkg -i lacpd_2_*.deb
  systemctl start "${UNITS[@]}"
  check "and runs with the old configuration" within 60 all_active
  check "it can be purged while it runs" dpkg -P lacpd
  check "no configuration is left" no test -e /etc/lacpd -o -e /etc/default/olt-switch -o -e /run/lacpd
  check "no unit is left" is "$(systemctl list-units --all --no-legend 'lacpd*' 'olt-*' | wc -l)" 0
  check "nothing has failed" is "$(systemctl --failed --no-legend | wc -l)" 0
}

boot=$(($(cat boot 2>/dev/null || echo 0) + 1))
echo "$boot" >boot
echo "== boot $boot"
case $boot in
1) first_boot ;;
2) second_boot ;;
3) third_boot ;;
esac
[ "$failed" = "$(cat failed 2>/dev/null || echo 0)" ] ||
  journalctl -b --no-pager -o short-monotonic -u 'olt-*' -u lacpd | tail -n 40 | sed 's/^/      | /'
echo "$failed" >failed
if [ "$boot" -lt 3 ]; then
  systemctl reboot
else
  [ "$failed" = 0 ] && echo "RESULT passed" || echo "RESULT failed"
  systemctl poweroff
fi
