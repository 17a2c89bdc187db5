#!/usr/bin/env bash
# Packaging stage: shellcheck of every shell script; the systemd unit through
# systemd-analyze; the SysV script run for real on the demo installation in
# private namespaces; the procd script's start_service against recording
# stand-ins for procd's helpers; the .deb packages built and the runtime one
# installed into a scratch root; the OpenWrt and Buildroot install steps run
# against stand-ins for their build systems (their SDKs are not here).
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)
packages=(cmake ninja-build g++ shellcheck systemd dpkg-dev util-linux make)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
command -v busybox >/dev/null || missing+=(busybox)
if [ ${#missing[@]} -gt 0 ]; then
  [ "$(id -u)" = 0 ] || { echo "packaging stage needs ${missing[*]} (run as root)" >&2 && exit 1; }
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0
check() {  # what, command...: runs the command, counts a failure
  if "${@:2}"; then echo "ok: $1"; else echo "FAILED: $1" && failures=$((failures + 1)); fi
}
same() { [ "$1" = "$2" ] || { printf 'got:\n%s\nwanted:\n%s\n' "$1" "$2" && false; }; }

mapfile -t scripts < <(git ls-files | while read -r f; do
  head -n1 "$f" 2>/dev/null | grep -qE '^#!.*\b(ba)?sh\b' && echo "$f"; done)
check "shellcheck, ${#scripts[@]} scripts" shellcheck "${scripts[@]}"

# The packagers' build: prefix /usr, no tests (CI builds them elsewhere).
build=build/packaging
cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INSTALL_PREFIX=/usr \
  -DQWD_BUILD_TESTS=OFF -DQWD_BUILD_BENCH=OFF >/dev/null
cmake --build $build -j2 >/dev/null
DESTDIR=$scratch/install cmake --install $build >/dev/null
(cd $build && rm -f ./*.deb && cpack -G DEB >/dev/null 2>&1)
runtime=$(ls $build/quillmorwd_*.deb) dev=$(ls $build/quillmorwd-dev_*.deb)
root=$scratch/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-depends -i "$runtime" >/dev/null 2>&1
check "runtime .deb: its files" same "$(dpkg --root="$root" -L quillmorwd | grep -v '/$' | while read -r f; do
  [ -d "$root$f" ] || echo "$f"; done | sort)" "/etc/init.d/quillmorwd
/etc/quillmor/watchdog.cfg.example
/usr/bin/qwd-log
/usr/lib/systemd/system/quillmorwd.service
/usr/sbin/quillmorWD"
usage=$("$root/usr/sbin/quillmorWD" 2>/dev/null) && status=0 || status=$?
check "installed quillmorWD: usage, status 255" same "$usage $status" "Usage:
quillmorWD -f <config file path> 255"
check "development .deb: nothing of the runtime" same "$(dpkg-deb -c "$dev" | grep -E 'bin/|etc/|systemd')" ""
# Its contents: the SDK's consumer project builds against it alone, copied
# out of the tree so that only the package's headers and libraries are found.
dpkg -x "$dev" "$scratch/dev"
cp -r tests/sdk "$scratch/agent"
check "development .deb: an agent program builds against it" sh -c \
  'cmake -S "$0" -B "$0/build" -G Ninja -DCMAKE_PREFIX_PATH="$1" >/dev/null && cmake --build "$0/build" >/dev/null' \
  "$scratch/agent" "$scratch/dev/usr"

# systemd's own units beside ours, as on a device: the targets it names.
cp -a -n /usr/lib/systemd/system/. "$root/usr/lib/systemd/system/"
# A value systemd ignores is only a warning: any output fails the check.
check "systemd-analyze verify, against the installed root, says nothing" same \
  "$(systemd-analyze verify --root="$root" /usr/lib/systemd/system/quillmorwd.service 2>&1)" ""

# One stop time-out for every init family.
timeouts=$(sed -n 's/^TimeoutStopSec=//p' packaging/systemd/quillmorwd.service
  sed -n 's/^STOP_TIMEOUT=//p' packaging/sysv/S50quillmorwd
  sed -n 's/.*procd_set_param term_timeout //p' packaging/openwrt/files/quillmorwd.init)
check "stop time-outs agree (systemd, SysV, procd)" same "$(echo "$timeouts" | sort -u | wc -l)" 1

procd=$(sh -c 'procd_open_instance() { echo open; }
  procd_set_param() { echo "$*"; }
  procd_close_instance() { echo close; }
  . "$0" && echo "USE_PROCD=$USE_PROCD" && start_service' packaging/openwrt/files/quillmorwd.init)
check "procd: start_service's calls" same "$procd" "USE_PROCD=1
open
command /usr/sbin/quillmorWD -f /etc/quillmor/watchdog.cfg
respawn 3600 5 0
term_timeout 120
stdout 1
stderr 1
close"

# The recipes' install steps, with stand-ins for what their build systems
# define: the files they install must come out of this tree's install.
stubs=$scratch/stubs
mkdir -p "$stubs"
printf '%s\n' 'INCLUDE_DIR:=$(TOPDIR)' 'INSTALL_DIR:=install -d' 'INSTALL_BIN:=install -m0755' \
  'INSTALL_CONF:=install -m0600' >"$stubs/rules.mk"
printf '%s\n' 'BuildPackage=$(eval all: ; $$(call Package/$(1)/install,$(ROOT)))' >"$stubs/package.mk"
: >"$stubs/cmake.mk"
tree() { (cd "$1" && find . -type f | sort); }
make -s -C packaging/openwrt TOPDIR="$stubs" PKG_INSTALL_DIR="$scratch/install" ROOT="$scratch/openwrt"
check "OpenWrt: the package's files" same "$(tree "$scratch/openwrt")" "./etc/init.d/quillmorwd
./etc/quillmor/watchdog.cfg
./usr/bin/qwd-log
./usr/sbin/quillmorWD"
printf '%s\n' 'QUILLMORWD_PKGDIR:=$(dir $(MK))' 'INSTALL:=install' 'cmake-package:=' 'include $(MK)' \
  '$(SRC)/all:' $'\t$(QUILLMORWD_INSTALL_INIT_SYSV)' $'\t$(QUILLMORWD_INSTALL_INIT_SYSTEMD)' \
  $'\t$(foreach hook,$(QUILLMORWD_POST_INSTALL_TARGET_HOOKS),$($(hook)))' \
  'site: ; @echo $(QUILLMORWD_SITE) $(QUILLMORWD_VERSION) $(QUILLMORWD_INSTALL_STAGING)' >"$stubs/br.mk"
br=(make -s -f "$stubs/br.mk" MK="$PWD/packaging/buildroot/quillmorwd.mk" SRC="$PWD" TARGET_DIR="$scratch/br")
"${br[@]}" "$PWD/all"
check "Buildroot: init files and configuration" same "$(tree "$scratch/br")" "./etc/init.d/S50quillmorwd
./etc/quillmor/watchdog.cfg
./usr/lib/systemd/system/quillmorwd.service"
version=$(sed -n 's/^project(quillmorWD VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
check "Buildroot: source, version, staging" same "$("${br[@]}" site)" "$PWD $version YES"
check "OpenWrt: version" grep -qx "PKG_VERSION:=$version" packaging/openwrt/Makefile
check "recipes: the variables each must set" grep -qzE \
  'PKG_RELEASE:=.*PKG_LICENSE:=.*PKG_MAINTAINER:=.*Package/quillmorwd/conffiles.*BuildPackage,quillmorwd\)\)\s*$' \
  packaging/openwrt/Makefile
check "Buildroot: Config.in depends on C++ and threads, says so" grep -qzE \
  'depends on BR2_INSTALL_LIBSTDCPP\s+depends on BR2_TOOLCHAIN_HAS_THREADS.*comment "quillmorwd needs a toolchain w/ C\+\+, threads"' \
  packaging/buildroot/Config.in

# The SysV script on the demo installation, with the packaged quillmorWD, in
# private mount and pid namespaces (/var, /etc/default and /proc are its own,
# so "no process left" means none in the namespace): once with dash and
# Debian's start-stop-daemon, once with BusyBox's shell and start-stop-daemon.
bash scripts/demo.sh --layout >/dev/null
mkdir "$scratch/busybox"
ln -s "$(command -v busybox)" "$scratch/busybox/start-stop-daemon"
for shell in sh busybox; do
  [ $shell = sh ] && path=$PATH || path=$scratch/busybox:$PATH
  sysv=$(PATH=$path unshare --mount --propagation private --pid --fork --mount-proc bash -c '
  set -o pipefail
  mount -t tmpfs qwd-pkg-var /var && mkdir /var/run && mount -t tmpfs qwd-pkg-default /etc/default
  printf "DAEMON=%s\nCONFIG=%s\n" "$1/usr/sbin/quillmorWD" "$PWD/build/demo/watchdog.cfg" >/etc/default/quillmorwd
  init() { if [ "$0" = busybox ]; then busybox sh packaging/sysv/S50quillmorwd "$@"; else sh packaging/sysv/S50quillmorwd "$@"; fi; }
  init start; echo "status $?"; sleep 2
  init status | sed "s/(pid [0-9]*)/(pid N)/"; echo "status $?"
  init start; echo "status $?"
  begin=$(date +%s); init stop; echo "status $?, $(($(date +%s) - begin < 120)) within 120 s"
  init status; echo "status $?"
  for p in /proc/[0-9]*; do [ "${p#/proc/}" = 1 ] || { read -r c <"$p/comm" && echo "left: $c"; }; done' $shell "$root" 2>&1)
  check "SysV, $shell: start, status, second start refused, stop, none left" same "$sysv" \
    "Starting quillmorwd: OK
status 0
quillmorwd is running (pid N)
status 0
Starting quillmorwd: FAIL (already running?)
status 1
Stopping quillmorwd: OK
status 0, 1 within 120 s
quillmorwd is not running
status 3"
done

echo "== packaging stage: $failures failures, took $(($(date +%s) - started)) s"
[ "$failures" = 0 ]
