#!/bin/busybox sh
# shellcheck shell=dash
# The VM guest's init: boots the agent as a device does, then tells on the
# serial console what the kernel shows at each step, for scripts/vm-test.sh.
/bin/busybox --install -s
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs dev /dev
# The sockets, the running installation and the logs live on a fresh /var.
mount -t tmpfs var /var
mkdir -p /var/log/quillmor /var/run
# The firmware ships the agent's version directory; the watchdog runs it from /var.
cp -a /opt/quillmor /var/quillmor

say() { echo "vm: $*"; }
listed() { grep -q nfmodule /proc/modules; }
# Waits up to a minute until the module is loaded or gone, or the watchdog
# has ended, then tells the module's line.
await() {
  for _ in $(seq 300); do
    kill -0 "$wd" 2>/dev/null || break
    if listed; then [ "$1" = loaded ] && break; elif [ "$1" = gone ]; then break; fi
    sleep 0.2
  done
  say "/proc/modules: $(grep nfmodule /proc/modules || echo 'no nfmodule')"
}

# The demo agent's runs: ask for the module, then crash; ask again, then only heartbeat.
QWD_DEMO_SCENES="module-crash module" quillmorWD -f /etc/quillmor/watchdog.cfg &
wd=$!
await loaded
say "parameter owner=$(cat /sys/module/nfmodule/parameters/owner)"
await gone
await loaded
sleep 2  # a check of the supervision loop sees it loaded
say "sending SIGTERM to quillmorWD"
kill -TERM $wd
wait $wd
say "quillmorWD exit status $?"
await gone
say "kernel log:"
dmesg | grep 'nfmodule:'

# A deliberate fault under this init, and its dump read back.
mkdir /var/crash
qwd-crash-chain /var/crash
say "qwd-crash-chain exit status $?"
cat /var/crash/chain_0.log
echo

say "the watchdog's log:"
qwd-log --level INFO /var/log/quillmor
say "done"
poweroff -f
