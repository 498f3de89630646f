#!/bin/bash
# The part of boot_check.sh inside the virtual machine, once a boot. A line a check; "passed" at the end when all have.
cd "$(dirname "$0")" || exit 1
UNITS=(olt-datastore olt-switch lacpd)

check() { # TEXT CONDITION; which has its time
  for _ in {1..60}; do
    eval "$2" >output 2>&1 && echo "ok    $1" && return
    sleep 1
  done
  echo "FAIL  $1" | tee failed
  { cat output; journalctl -b -o cat -n 20 -u lacpd -u 'olt-*'; } | sed 's/^/      | /'
}
property() { systemctl show --value -p "$1" "${@:2}" | grep .; } # NAME UNIT ...
active() { [ "$(systemctl is-active "${UNITS[@]}" | grep -c '^active')" = "$1" ]; } # NUMBER of the units
shell() { # LINE ...; through the daemon's own shell
  for line in secret enable 'terminal length 0' "$@"; do echo "$line"; sleep 0.5; done |
    timeout 30 nc -q 1 127.0.0.1 2704 | tr -d '\r\0'
}
serves() { # with the saved configuration; LACPDUs leave and arrive on both ports, which a cable connects
  active 3 && shell 'show running-config' 'configure terminal' 'show channel-group information' | tee /dev/stderr |
    awk '/^ channel-group 1 mode active/ { configured = 1 }
      /LAC Port Statistics/, /actor LAG/ { if ($1 ~ /^0[12]$/ && $3 > 0 && $4 > 0) ports++ }
      END { exit !(configured && ports == 2) }'
}

echo >>boots
boot=$(wc -l <boots)
if [ $boot = 1 ]; then # interfaces as a terminal has them, made by the network service at boot
  printf '[NetDev]\nName=ethv0\nKind=veth\n[Peer]\nName=cpu0\n' >/etc/systemd/network/cpu.netdev
  printf '[NetDev]\nName=ge1\nKind=veth\n[Peer]\nName=ge2\n' >/etc/systemd/network/cable.netdev
  printf '[Match]\nKind=veth\n[Network]\nLinkLocalAddressing=no\nIPv6AcceptRA=no\n' >/etc/systemd/network/olt.network
  check "the package installs and starts nothing" \
    'dpkg -i lacpd_1_*.deb && active 0 && systemctl enable systemd-networkd "${UNITS[@]}"'
  sed -i 's/^!password CHOOSE-ONE/password secret/' /etc/lacpd/lacpd.conf
  echo 'OLT_SWITCH_OPTIONS=--cpu cpu0 --port 1=ge1 --port 2=ge2' >/etc/default/olt-switch
elif [ $boot = 2 ]; then
  check "all are active after a boot, nothing failed first" 'active 3 && [ "$(property NRestarts lacpd)" = 0 ]'
  check "order: datastore, switch, daemon" '{ property ExecMainExitTimestampMonotonic olt-datastore
    property ExecMainStartTimestampMonotonic olt-switch lacpd; } | tee /dev/stderr | sort -nc'
  check "the system is read-only" 'nsenter -t "$(property MainPID lacpd)" -m touch /usr/x 2>&1 | grep Read-only'
  check "the configuration is saved" "shell 'configure terminal' 'interface gigabitEthernet 0/1' \
    'channel-group 1 mode active' exit 'interface gigabitEthernet 0/2' 'channel-group 3 mode active' end \
    'write memory' | grep 'Configuration saved'"
  while read -r unit signal what; do
    pid=$(property MainPID "$unit") && kill -"$signal" "$pid"
    check "$unit is back after $what" '[ "$(property MainPID $unit)" != "$pid" ] && serves'
  done <<<$'olt-switch KILL a crash\nlacpd KILL a crash\nlacpd STOP hanging'
  check "its ports went on" "journalctl -b -u lacpd | grep '2 of 2 member ports go on'"
  check "the daemon stops with success" 'systemctl stop lacpd && [ "$(property Result lacpd)" = success ] && active 2'
  check "the datastore takes the switch along" \
    'systemctl stop olt-datastore && active 0 && [ "$(property Result olt-switch)" = success ]'
  check "the daemon starts what it needs" 'systemctl start lacpd && serves'
else
  check "the configuration is in force after a boot" serves
  processes=$(property ExecMainPID "${UNITS[@]}")
  check "a higher version installs over it" 'dpkg -i lacpd_2_*.deb'
  check "only the daemon has changed and started again" \
    'serves && [ "$(property ExecMainPID "${UNITS[@]}" | grep -cxF "$processes")" = 2 ]'
  check "its ports went on" "journalctl -b -u lacpd | grep '2 of 2 member ports go on'"
  check "another library, which all have in use" 'dpkg -i lacpd_3_*.deb'
  check "each has started again" 'serves && ! property ExecMainPID "${UNITS[@]}" | grep -xF "$processes"'
  systemctl stop olt-switch lacpd && dpkg -i lacpd_3_*.deb >/dev/null
  check "an upgrade starts nothing that was stopped" 'active 1 && [ -z "$(systemctl list-jobs --no-legend)" ]'
  check "removing stops all" 'systemctl start lacpd && active 3 && dpkg -r lacpd && ! pgrep "lacpd|olt-switch"'
  check "it can be installed again" 'dpkg -i lacpd_3_*.deb && systemctl start "${UNITS[@]}"'
  check "with the old configuration" serves
  check "purging it while it runs leaves no unit" \
    'dpkg -P lacpd && [ -z "$(systemctl list-units --all --no-legend "lacpd*" "olt-*")" ] && [ ! -e /run/lacpd ]'
  check "nothing has failed" '[ -z "$(systemctl --failed --no-legend)" ]'
  [ -e failed ] || echo passed
fi
systemctl "$([ $boot = 3 ] && echo poweroff || echo reboot)"
