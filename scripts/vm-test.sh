#!/usr/bin/env bash
# VM stage: the watchdog on a real kernel, as a device boots it. A virtual
# machine (qemu, TCG, no network, no disk) boots Debian's own kernel with an
# initramfs made here: BusyBox, the static watchdog, the demo agent programs,
# the demo kernel module (built against that kernel's headers) as the agent's
# module, and tests/vm/init.sh as init. The guest tells on its serial console
# what its /proc/modules, sysfs, kernel log and the watchdog's log show; this
# script checks every step and exits non-zero when one is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
out=$PWD/build/vm-test
build=build/vm
limit_sec=280

if [ "$(id -u)" != 0 ]; then
  # The initramfs needs a device node, and missing packages need apt-get.
  echo "== VM stage skipped: it runs as root" >&2
  exit 0
fi
missing_packages() {
  for p in "$@"; do dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || echo "$p"; done
}
apt_install() {
  [ $# = 0 ] && return
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "$@" >/dev/null
}
# shellcheck disable=SC2046  # one package name a word
apt_install $(missing_packages qemu-system-x86 linux-image-amd64 busybox-static cpio make g++ cmake ninja-build)
# The kernel that linux-image-amd64 installed, whatever the build machine runs.
kernel=$(dpkg-query -W -f='${Depends}' linux-image-amd64 | sed -n 's/^linux-image-\([^ ,]*\).*/\1/p')
# shellcheck disable=SC2046
apt_install $(missing_packages "linux-headers-$kernel")

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQWD_BUILD_TESTS=OFF \
  -DQWD_BUILD_BENCH=OFF -DCMAKE_EXE_LINKER_FLAGS=-static >/dev/null
cmake --build "$build" -j2 --target quillmorWD qwd-log qwd-demo-agent qwd-demo-system-exec qwd_common
rm -rf "$out"
mkdir -p "$out"
# The MIPS stage's crash chain, built here for the guest: a fault four calls below main.
g++ -std=c++20 -O2 -g -fno-omit-frame-pointer -fno-exceptions -fno-rtti -static -I. \
  tests/mips/CrashChain.cc "$build/common/libqwd_common.a" -pthread -o "$out/qwd-crash-chain"
cp -r tools/demo/module "$out/module"
make -s -C "/lib/modules/$kernel/build" M="$out/module" modules

# The initramfs: the agent's version directory under /opt, as the firmware ships it.
version=$(sed -n 's/.*kQuillmorVersion\(Major\|Minor\|Patch\) = \([0-9]*\);/\2/p' common/version.h |
  paste -sd.).$(sed -n 's/.*kQuillmorBuildNumber\[\] = "\([0-9]*\)";/\1/p' common/version.h)
rootfs=$out/rootfs
vdir=$rootfs/opt/quillmor/$version
mkdir -p "$rootfs"/{bin,sbin,dev,proc,sys,var,usr/bin,usr/sbin,etc/quillmor} "$vdir"
mknod -m 600 "$rootfs/dev/console" c 5 1
cp /bin/busybox "$rootfs/bin/"
cp tests/vm/init.sh "$rootfs/init"
cp tests/vm/watchdog.cfg "$rootfs/etc/quillmor/"
cp "$build/watchdog/quillmorWD" "$build/tools/qwd-log/qwd-log" "$out/qwd-crash-chain" "$rootfs/usr/bin/"
cp "$build/tools/demo/qwd-demo-agent" "$vdir/quillmorUserAgent"
cp "$build/tools/demo/qwd-demo-system-exec" "$vdir/quillmorSystemExec"
cp "$out/module/nfmodule.ko" "$vdir/quillmorKernelAgent"
for script in cleanup.sh quillmor_control.sh quillmor_teardown.sh; do
  printf '#!/bin/sh\necho "%s: $*"\n' "$script" >"$vdir/$script"
done
chmod 0755 "$rootfs/init" "$vdir"/*
(cd "$rootfs" && find . | cpio -o -H newc --quiet) | gzip -1 >"$out/initramfs.gz"

echo "== booting Linux $kernel under qemu (TCG) with quillmorWD $version"
started=$(date +%s)
timeout "$limit_sec" qemu-system-x86_64 -accel tcg -m 512 -smp 1 -nic none -display none \
  -monitor none -serial "file:$out/console.raw" -no-reboot \
  -kernel "/boot/vmlinuz-$kernel" -initrd "$out/initramfs.gz" \
  -append "console=ttyS0 quiet panic=-1" || echo "== qemu ended with status $?"
took=$(($(date +%s) - started))
tr -d '\r' <"$out/console.raw" >"$out/console.log"
cat "$out/console.log"

# Every step, in order: the agent's lines, and apart from them (they come
# at their own pace) what the guest's init printed.
missing=0
in_order() {  # file, patterns: each line matching in that order, or MISSING
  local lines found=-1 next
  mapfile -t lines <"$1"
  shift
  for step in "$@"; do
    next=$((found + 1))
    # shellcheck disable=SC2053  # the step is a pattern
    while [ "$next" -lt ${#lines[@]} ] && [[ ${lines[next]} != $step ]]; do next=$((next + 1)); done
    if [ "$next" -lt ${#lines[@]} ]; then
      found=$next
    else
      echo "vm-test: MISSING (in this order): $step"
      missing=$((missing + 1))
    fi
  done
}
grep '^demo-agent' "$out/console.log" >"$out/agent.log" || true
in_order "$out/agent.log" "*scene: module-crash" "*load the kernel module: SUCCESS" \
  "*the kernel module's status is 1" "*crashing now (SIGABRT)" "*scene: module" \
  "*load the kernel module: SUCCESS" "*the kernel module's status is 1" "*stopped by the watchdog (SIGTERM)"
grep -v '^demo-' "$out/console.log" >"$out/guest.log" || true
in_order "$out/guest.log" \
  "vm: /proc/modules: nfmodule *" "vm: parameter owner=nobody" "vm: /proc/modules: no nfmodule" \
  "vm: /proc/modules: nfmodule *" "vm: quillmorWD exit status 0" "vm: /proc/modules: no nfmodule" \
  "*nfmodule: loaded, owner=nobody" "*nfmodule: unloaded" "*nfmodule: loaded, owner=nobody" "*nfmodule: unloaded" \
  "vm: qwd-crash-chain exit status 134" "*Crashed at*" "*----- END TRACE -----*" \
  "*Watchdog received load kernel module command" "*Entity 'quillmorUserAgent' status is*" \
  "*Run cleanup script" "*Watchdog received load kernel module command" \
  "*Termination signal received! exit..." "*WatchDog exits (status 0)..." "vm: done"
# The dump that the guest read back faults in the chain's leaf.
address=$(grep -o '"message": "Crashed at \[0x[0-9a-f]*' "$out/console.log" | grep -o '0x.*' || echo 0)
read -r leaf size < <(nm -S "$out/qwd-crash-chain" | sed -n 's/ [Tt] CrashChainLeaf$//p')
if [ $((address)) -lt $((0x$leaf)) ] || [ $((address)) -ge $((0x$leaf + 0x$size)) ]; then
  echo "vm-test: MISSING: the dump's fault address $address inside CrashChainLeaf"
  missing=$((missing + 1))
fi
echo "== boot to done: $took s under TCG (console: $out/console.log)"
if [ "$missing" -ne 0 ]; then
  echo "vm-test: $missing steps missing"
  exit 1
fi
echo "vm-test: every step happened on Linux $kernel"
