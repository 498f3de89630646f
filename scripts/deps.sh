#!/usr/bin/env bash
# Builds the libraries that Debian 12 does not package in the versions needed
# (libyang, sysrepo and FRR's library) into a prefix outside the checkout, once.
#
#   scripts/deps.sh                      install packages, build what is missing, print the prefix
#   scripts/deps.sh --tests              and the packages that only the tests need
#   scripts/deps.sh --nightly            and those that only the tests of a night need
#   scripts/deps.sh --target aarch64     the same for 64-bit ARM, cross-built, in a prefix of its own; its folder
#                                        "sysroot" has Debian's arm64 libraries and headers
#   scripts/deps.sh --sanitize thread    built with ThreadSanitizer, in a prefix of their own
#   scripts/deps.sh [...] --prefix       print the prefix only
#
# LACPD_DEPS_CACHE    folder for prefixes and tarballs (default: /var/cache/lacpd-deps for root, since user "daemon"
#                     has to read the libraries; ~/.cache/lacpd-deps for anybody else)
# LACPD_DEPS_TARBALLS folder with the three upstream tarballs; nothing is downloaded then
set -euo pipefail

LIBYANG_VERSION=3.13.6-1~bpo13+1
SYSREPO_VERSION=3.7.11-1~bpo13+2
FRR_VERSION=10.3-3+deb13u1
RECIPE=3 # raise when a build option below changes
CROSS_RECIPE=1 # the same for what only --target does
DAEMON_GROUP=daemon

PACKAGES=(
  build-essential cmake ninja-build pkg-config ccache dpkg-dev ca-certificates
  autoconf automake libtool bison flex
  libpcre2-dev libjson-c-dev libelf-dev libprotobuf-c-dev protobuf-c-compiler
  libcap-dev libreadline-dev python3-dev
  libevent-dev libnftables-dev libnl-route-3-dev nlohmann-json3-dev libcli11-dev
  iproute2 procps iputils-ping
)
TEST_PACKAGES=(
  libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format
  python3-pytest python3-scapy curl iperf3 nftables openvswitch-switch libfaketime
)
NIGHTLY_PACKAGES=(mmdebstrap debian-archive-keyring qemu-system-x86)
CROSS_PACKAGES=(g++-aarch64-linux-gnu qemu-user mmdebstrap debian-archive-keyring)
SYSROOT_PACKAGES=(
  libc6-dev libstdc++-12-dev libpcre2-dev libjson-c-dev libelf-dev libprotobuf-c-dev libcap-dev libreadline-dev
  libcrypt-dev libevent-dev libnftables-dev libnl-route-3-dev nlohmann-json3-dev libcli11-dev libgtest-dev libgmock-dev
)

usage() { sed -n '2,/^set /{/^set /d;s/^# \{0,1\}//;p}' "$0"; }

target=
sanitizer=
tests=
nightly=
prefix_only=
while [ $# -gt 0 ]; do
  case $1 in
  --target)
    [ "${2:-}" = aarch64 ] || {
      usage >&2
      exit 1
    }
    target=$2
    shift
    ;;
  --sanitize)
    [ "${2:-}" = thread ] || {
      usage >&2
      exit 1
    }
    sanitizer=$2
    shift
    ;;
  --tests) tests=yes ;;
  --nightly) nightly=yes ;;
  --prefix) prefix_only=yes ;;
  *)
    usage >&2
    exit 1
    ;;
  esac
  shift
done
[ "$target" != "$(uname -m)" ] || target= # nothing to cross

if [ "$(id -u)" = 0 ]; then
  cache=${LACPD_DEPS_CACHE:-/var/cache/lacpd-deps}
else
  cache=${LACPD_DEPS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/lacpd-deps}
fi
key=$(printf '%s|%s|%s|%s|%s' "$LIBYANG_VERSION" "$SYSREPO_VERSION" "$FRR_VERSION" "$RECIPE" \
  "${target:+$CROSS_RECIPE|}${target:-$(uname -m)}${sanitizer:+|$sanitizer}" | sha256sum | cut -c1-12)
prefix=$cache/$key
sysroot=$prefix/sysroot
if [ -n "$prefix_only" ]; then
  echo "$prefix"
  exit 0
fi

here=$(cd "$(dirname "$0")" && pwd)
say() { echo "deps: $*" >&2; }
die() {
  say "$*"
  exit 1
}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# Runs a command while services of new packages do not start: only the programs are wanted.
without_services() {
  local policy=/usr/sbin/policy-rc.d
  if [ -e "$policy" ]; then "$@"; else
    (
      trap 'as_root rm -f "$policy"' EXIT
      printf '#!/bin/sh\nexit 101\n' | as_root install -m 755 /dev/stdin "$policy"
      "$@"
    )
  fi
}

install_packages() { # PACKAGE ...
  local missing=() package
  for package; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "installing ${missing[*]}"
  as_root apt-get update -qq >&2 || say "the package lists could not be refreshed; using those at hand"
  without_services as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >&2 || die "apt could not install: ${missing[*]}"
}

# The address of the archive this machine already uses, so that no host is named here.
archive_uri() {
  local uri
  uri=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 2>/dev/null |
    grep -v -e security | head -n 1)
  [ -n "$uri" ] || die "no Debian archive is configured in apt's sources; add one, or set LACPD_DEPS_TARBALLS"
  echo "$uri"
}

# A private apt configuration with source entries of the newer release; the machine's own stays untouched.
write_apt_config() {
  local uri
  uri=$(archive_uri)
  mkdir -p "$work/apt/sources" "$work/apt/lists/partial" "$work/apt/cache/archives/partial"
  {
    echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri trixie main"
    echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri trixie-backports main"
  } >"$work/apt/sources/deps.list"
  cat >"$work/apt/apt.conf" <<CONF
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$work/apt/sources";
Dir::State::Lists "$work/apt/lists";
Dir::Cache "$work/apt/cache";
APT::Sandbox::User "root";
Acquire::Languages "none";
CONF
}

# The other architecture's packages, unpacked and not set up: neither root nor dpkg of this machine is concerned. Links
# to absolute places lead into the sysroot instead.
make_sysroot() {
  say "unpacking Debian's arm64 libraries"
  local packages link
  packages=$(IFS=, && echo "${SYSROOT_PACKAGES[*]}")
  mkdir -p "$prefix"
  mmdebstrap --quiet --variant=extract --architectures=arm64 --include="$packages" bookworm "$sysroot" \
    "$(archive_uri)" >"$work/sysroot.log" 2>&1 || {
    cat "$work/sysroot.log" >&2
    die "the arm64 packages could not be fetched"
  }
  find "$sysroot" -type l -lname '/*' | while read -r link; do
    ln -sfnr "$sysroot$(readlink "$link")" "$link"
  done
}

fetch() { # NAME VERSION
  local name=$1 version=$2 upstream=${2%-*} tarball
  mkdir -p "$cache/tarballs"
  tarball=$(find "${LACPD_DEPS_TARBALLS:-$cache/tarballs}" -maxdepth 1 -name "${name}_${upstream}.orig.tar.*" \
    ! -name '*.asc' 2>/dev/null | head -n 1)
  if [ -z "$tarball" ]; then
    [ -z "${LACPD_DEPS_TARBALLS:-}" ] ||
      die "${name}_${upstream}.orig.tar.* is not in $LACPD_DEPS_TARBALLS; put the upstream tarball there"
    [ -e "$work/apt/apt.conf" ] || {
      write_apt_config
      APT_CONFIG=$work/apt/apt.conf apt-get update -qq >&2 ||
        die "the source lists could not be fetched; check the network, or set LACPD_DEPS_TARBALLS"
    }
    (cd "$cache/tarballs" && APT_CONFIG=$work/apt/apt.conf apt-get source -qq --tar-only --download-only \
      "$name=$version" >&2) ||
      die "version $version of $name is no longer in the archive; name a newer one in scripts/deps.sh, or put the upstream tarball of $upstream into a folder and set LACPD_DEPS_TARBALLS"
    tarball=$(find "$cache/tarballs" -maxdepth 1 -name "${name}_${upstream}.orig.tar.*" ! -name '*.asc' | head -n 1)
    [ -n "$tarball" ] || die "apt fetched no tarball for $name $version"
  fi
  mkdir -p "$work/$name"
  tar -xf "$tarball" -C "$work/$name" --strip-components=1
}

build_cmake() { # NAME [CMAKE OPTION ...]
  local name=$1
  shift
  say "building $name"
  cmake -S "$work/$name" -B "$work/$name/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_INSTALL_RPATH="$prefix/lib" -DENABLE_TESTS=OFF ${sanitizer:+-DCMAKE_C_FLAGS="-fsanitize=$sanitizer"} \
    ${target:+-DCMAKE_TOOLCHAIN_FILE="$here/../cmake/$target-linux-gnu.cmake" -DLACPD_DEPS_PREFIX="$prefix"} \
    "$@" >"$work/$name.log" 2>&1 &&
    cmake --build "$work/$name/build" >>"$work/$name.log" 2>&1 &&
    cmake --install "$work/$name/build" >>"$work/$name.log" 2>&1 || {
    tail -n 30 "$work/$name.log" >&2
    die "$name did not build"
  }
}

# FRR runs "clippy", built for this machine, over its sources. Called in FRR's folder; gives configure's options in
# "cross". pkg-config knows the sysroot only, so libyang is named.
cross_frr() {
  (
    mkdir build-clippy
    cd build-clippy
    unset PKG_CONFIG_PATH LDFLAGS CPPFLAGS LD_LIBRARY_PATH
    ../configure --enable-clippy-only
    make -j"$(nproc)" lib/clippy
  )
  export CC="$target-linux-gnu-gcc --sysroot=$sysroot" CXX="$target-linux-gnu-g++ --sysroot=$sysroot"
  export PKG_CONFIG_SYSROOT_DIR="$sysroot"
  export PKG_CONFIG_LIBDIR="$sysroot/usr/lib/$target-linux-gnu/pkgconfig:$sysroot/usr/share/pkgconfig"
  export LIBYANG_CFLAGS="-I$prefix/include" LIBYANG_LIBS="-L$prefix/lib -lyang"
  unset LD_LIBRARY_PATH
  cross=(--host="$target-linux-gnu" --with-clippy="$PWD/build-clippy/lib/clippy")
}

# Every daemon is off; only the library and its headers are taken. vtysh stays on: lib/vty.c needs it. The folder of
# YANG models is one that every Debian has and that holds none: the library looks through it at start, and nothing
# that is built here loads a model from it.
build_frr() {
  say "building FRR's library"
  (
    cd "$work/frr"
    export PKG_CONFIG_PATH="$prefix/lib/pkgconfig" LDFLAGS="-L$prefix/lib -Wl,-rpath,$prefix/lib"
    export CPPFLAGS="-I$prefix/include" LD_LIBRARY_PATH="$prefix/lib"
    local cross=()
    [ -z "$target" ] || cross_frr
    local off=() daemon
    for daemon in zebra bgpd ripd ripngd ospfd ospf6d ldpd nhrpd eigrpd babeld isisd pimd pim6d pbrd \
      fabricd vrrpd bfdd staticd pathd sharpd watchfrr mgmtd; do
      off+=("--disable-$daemon")
    done
    ./configure --prefix="$prefix" --sysconfdir=/etc --localstatedir=/var --libdir="$prefix/lib" \
      --with-yangmodelsdir=/usr/share/base-files --enable-user=daemon --enable-group=daemon --enable-vty-group=daemon \
      --disable-doc --disable-static --disable-ospfclient --disable-ospfapi --disable-bgp-vnc "${off[@]}" "${cross[@]}" \
      ${sanitizer:+"--enable-$sanitizer-sanitizer"}
    make -j"$(nproc)" lib/mgmt.pb-c.h lib/gitversion.h lib/vtysh_daemons.h lib/route_types.h
    make -j"$(nproc)" lib/libfrr.la
    mkdir -p "$prefix/lib" "$prefix/include/frr/lib"
    ./libtool --mode=install install lib/libfrr.la "$prefix/lib"
    cp config.h "$prefix/include/frr/"
    cd lib && find . -name '*.h' -exec cp --parents {} "$prefix/include/frr/lib/" \;
  ) >"$work/frr.log" 2>&1 || {
    tail -n 30 "$work/frr.log" >&2
    die "FRR's library did not build"
  }
}

install_packages "${PACKAGES[@]}" ${tests:+"${TEST_PACKAGES[@]}"} ${nightly:+"${NIGHTLY_PACKAGES[@]}"} \
  ${target:+"${CROSS_PACKAGES[@]}"}
if [ ! -e "$prefix/.complete" ]; then
  mkdir -p "$cache"
  exec 9>"$cache/lock"
  flock 9 # a second build waits here and then finds the prefix complete
  if [ ! -e "$prefix/.complete" ]; then
    work=$(mktemp -d "$cache/build.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    rm -rf "$prefix"
    [ -z "$target" ] || make_sysroot
    fetch libyang "$LIBYANG_VERSION"
    fetch sysrepo "$SYSREPO_VERSION"
    fetch frr "$FRR_VERSION"
    (cd "$work/frr" && ./bootstrap.sh) >"$work/bootstrap.log" 2>&1 & # one process, beside libyang's many
    bootstrap=$!
    build_cmake libyang
    wait $bootstrap || {
      tail -n 30 "$work/bootstrap.log" >&2
      die "FRR's configure script could not be made"
    }
    # Files of the datastore belong to the daemon's group and to nobody else. Its shared memory has a folder of
    # its own: in the sticky /dev/shm one user cannot replace another one's files.
    # The sanitizer does not know locks with a clock of the caller's choice; sysrepo has others in their place.
    build_cmake sysrepo \
      ${sanitizer:+-DHAVE_PTHREAD_MUTEX_CLOCKLOCK=OFF -DHAVE_PTHREAD_COND_CLOCKWAIT=OFF} \
      -DSYSREPO_GROUP="$DAEMON_GROUP" -DSYSREPO_UMASK=00007 -DENABLE_SYSREPO_PLUGIND=OFF \
      -DINSTALL_SYSCTL_CONF=OFF -DSYSREPO_SUPERUSER_UID=0 \
      -DREPO_PATH=/etc/sysrepo -DSHM_DIR=/dev/shm/sysrepo &
    sysrepo=$!
    build_frr # beside it: much of it is configure's single process
    wait $sysrepo || exit 1
    touch "$prefix/.complete"
  fi
fi
echo "$prefix"
