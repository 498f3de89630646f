#!/bin/bash
# The package and its units under the real systemd, in two machines of two_machines.py: makes their images. Needs root,
# Debian's mmdebstrap and qemu-system-x86, and a finished build; touches BUILD/boot-check only.
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
packages="systemd-sysv,udev,dbus,linux-image-cloud-amd64,iproute2,iputils-ping,procps,netcat-openbsd,$(
  dpkg-deb -f "$work"/data/lacpd_1_*.deb Depends | sed 's/([^)]*)//g; s/ //g')"
if [ "$(cat "$work/packages" 2>/dev/null)" != "$packages" ]; then
  rm -rf "$work/root"
  mmdebstrap --quiet --variant=minbase bookworm "$work/root" --include="$packages"
  echo "$packages" >"$work/packages"
fi
# A shell on the serial line.
printf '#!/bin/bash\nmount /dev/vdb /mnt\nsetsid bash -c "%s" <>/dev/ttyS0 >&0 2>&1 &\n' \
  "stty raw -echo; echo '<end ready>'; exec bash" | install -m 755 /dev/stdin "$work/root/etc/rc.local"
mke2fs -q -F -t ext4 -d "$work/root" "$work/root.img" 1500M
mke2fs -q -F -t ext4 -d "$work/data" "$work/data.img" 64M
"$(dirname "$0")/two_machines.py" "$work"
