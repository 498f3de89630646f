#!/bin/bash
# Boots Debian in a virtual machine, installs the package there and runs its units under the real systemd: boot, order,
# capabilities, LACPDUs within the units' restrictions, crash, stop, upgrade, removal. boot_check_guest.sh has the checks.
#
#   tests/packaging/boot_check.sh [BUILD]    as root; BUILD is a finished build (default: build)
#
# Nothing of this machine is touched but BUILD/boot-check, where the machine's disk is kept for the next run. No network
# and no hardware virtualization are used. Status 0: all checks passed; 77: cannot be run here.
set -euo pipefail
build=$(realpath "${1:-$(dirname "$0")/../../build}")
cd "$(dirname "$0")"
work=$build/boot-check
TIMEOUT=900 # seconds

skip() {
  echo "boot check: skipped: $*" >&2
  exit 77
}
[ "$(id -u)" = 0 ] || skip "only root can make the machine's disk"
[ "$(dpkg --print-architecture)" = amd64 ] || skip "written for amd64"
[ -e "$build/CPackConfig.cmake" ] || skip "$build is no build"
for tool in mmdebstrap:mmdebstrap qemu-system-x86_64:qemu-system-x86 mke2fs:e2fsprogs; do
  type "${tool%:*}" >/dev/null 2>&1 || skip "apt-get install ${tool#*:}"
done
mkdir -p "$work"

make_package() { # VERSION
  cpack --config "$build/CPackConfig.cmake" -D "CPACK_PACKAGE_VERSION=$1" -B "$work/package" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log" >&2
    exit 1
  }
}

unit() {
  cat <<'UNIT'
[Unit]
After=multi-user.target
RequiresMountsFor=/mnt
[Service]
ExecStart=/mnt/boot_check_guest.sh
StandardOutput=tty
StandardError=tty
TTYPath=/dev/console
[Install]
WantedBy=graphical.target
UNIT
}

make_root() { # PACKAGE; a Debian with what the package depends on
  local depends
  depends=$(dpkg-deb -f "$1" Depends | sed 's/([^)]*)//g; s/ //g')
  rm -rf "$work/root"
  unit >"$work/boot-check.service"
  echo '/dev/vdb /mnt ext4 defaults 0 0' >"$work/fstab"
  mmdebstrap --quiet --variant=minbase \
    --include="systemd-sysv,udev,dbus,linux-image-cloud-amd64,iproute2,procps,netcat-openbsd,$depends" \
    --customize-hook="copy-in $work/boot-check.service /etc/systemd/system" --customize-hook="copy-in $work/fstab /etc" \
    --customize-hook='chroot "$1" systemctl enable -q boot-check' bookworm "$work/root"
  mke2fs -q -F -t ext4 -d "$work/root" "$work/root.img.part" 1500M
  cp "$work/root"/boot/vmlinuz-* "$work/kernel"
  cp "$work/root"/boot/initrd.img-* "$work/initrd"
  rm -rf "$work/root"
  mv "$work/root.img.part" "$work/root.img"
}

boot() {
  timeout "$TIMEOUT" qemu-system-x86_64 -accel tcg -cpu max -m 768 -nodefaults -display none -serial stdio \
    -kernel "$work/kernel" -initrd "$work/initrd" \
    -append "root=/dev/vda rw console=ttyS0 quiet systemd.show_status=0 systemd.mask=serial-getty@ttyS0.service" \
    -drive "file=$work/root.img,if=virtio,format=raw,snapshot=on" \
    -drive "file=$work/data.img,if=virtio,format=raw" </dev/null
}

rm -rf "$work/package" "$work/data"
make_package 1
make_package 2
[ -e "$work/root.img" ] || make_root "$work"/package/lacpd_1_*.deb
mkdir "$work/data"
cp "$work"/package/lacpd_*.deb boot_check_guest.sh "$work/data"
mke2fs -q -F -t ext4 -d "$work/data" "$work/data.img" 64M
boot | sed -u "s/\r//g" | tee "$work/output" |
  sed -un "/^\(==\|ok\|FAIL\|RESULT\|      |\|systemd\|boot:\|exposure\|restarts\)/p"
grep -q '^RESULT passed' "$work/output"
