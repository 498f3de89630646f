#!/bin/bash
# Boots Debian in a virtual machine, where boot_check_guest.sh installs the package and runs its units under the real
# systemd; then two machines of two_machines.py. Needs root, Debian's mmdebstrap and qemu-system-x86, and a
# finished build; touches BUILD/boot-check only.
#   tests/packaging/boot_check.sh [BUILD]
set -euo pipefail
build=$(realpath "${1:-$(dirname "$0")/../../build}")
work=$build/boot-check
rm -rf "$work/data"
cpack --config "$build/CPackConfig.cmake" -D CPACK_PACKAGE_VERSION=1 -B "$work/data" >/dev/null
rm -r "$work/data/_CPack_Packages"
# Higher versions: another daemon, and another library too.
rm -rf "$work/unpacked"
dpkg-deb -R "$work"/data/lacpd_1_*.deb "$work/unpacked"
for change in 2:usr/sbin/lacpd 3:usr/lib/lacpd/libyang.so.3; do
  sed -i "s/^Version: .*/Version: ${change%%:*}/" "$work/unpacked/DEBIAN/control"
  echo >>"$work/unpacked/${change#*:}"
  dpkg-deb --root-owner-group -b "$work/unpacked" "$work/data/lacpd_${change%%:*}_all.deb" >/dev/null
done
cp "$(dirname "$0")/boot_check_guest.sh" "$work/data"
packages="systemd-sysv,udev,dbus,linux-image-cloud-amd64,iproute2,iputils-ping,procps,netcat-openbsd,$(
  dpkg-deb -f "$work"/data/lacpd_1_*.deb Depends | sed 's/([^)]*)//g; s/ //g')"
if [ "$(cat "$work/packages" 2>/dev/null)" != "$packages" ]; then
  rm -rf "$work/root"
  mmdebstrap --quiet --variant=minbase bookworm "$work/root" --include="$packages"
  printf '#!/bin/sh\nmount /dev/vdb /mnt\n/mnt/boot_check_guest.sh >/dev/console 2>&1 &\n' |
    install -m 755 /dev/stdin "$work/root/etc/rc.local"
  echo "$packages" >"$work/packages"
fi
mke2fs -q -F -t ext4 -d "$work/root" "$work/root.img" 1500M
mke2fs -q -F -t ext4 -d "$work/data" "$work/data.img" 64M
timeout 900 qemu-system-x86_64 -accel tcg -cpu max -m 768 -nodefaults -display none -serial stdio </dev/null \
  -kernel "$work/root/vmlinuz" -initrd "$work/root/initrd.img" \
  -append "root=/dev/vda rw console=ttyS0 quiet systemd.show_status=0 systemd.mask=serial-getty@ttyS0.service" \
  -snapshot -drive "file=$work/root.img,if=virtio,format=raw" -drive "file=$work/data.img,if=virtio,format=raw" |
  sed -u 's/\r//g' | tee "$work/output" | sed -un '/^\(ok\|FAIL\|passed\|      |\)/p'
grep -q '^passed' "$work/output"

# A shell on the serial line in place of the checks.
printf '#!/bin/bash\nstty -F /dev/ttyS0 raw -echo\necho "<end ready>" >/dev/ttyS0\nexec setsid bash <>/dev/ttyS0 >&0 2>&1\n' \
  >"$work/data/boot_check_guest.sh"
mke2fs -q -F -t ext4 -d "$work/data" "$work/shell.img" 64M
"$(dirname "$0")/two_machines.py" "$work"
