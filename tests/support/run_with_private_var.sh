#!/bin/sh
# shellcheck disable=SC2086 # $pidns below: no option, or three of them
# Runs a test in a private mount namespace with a fresh tmpfs on /var, so the
# watchdog's fixed socket paths never touch the host's /var. With --pid first,
# also in its own pid namespace with its own /proc: nothing the test starts
# can signal or outlive anything outside.
pidns=""
if [ "$1" = "--pid" ]; then
  pidns="--pid --fork --mount-proc"
  shift
fi
if [ "$(id -u)" = 0 ]; then
  exec unshare --mount --propagation private $pidns sh -c 'mount -t tmpfs qwd-test-var /var && exec "$@"' sh "$@"
fi
exec unshare --user --map-root-user --mount --propagation private $pidns \
  sh -c 'mount -t tmpfs qwd-test-var /var && exec "$@"' sh "$@"
