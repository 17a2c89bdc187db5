#!/bin/sh
# Runs a test in a private mount namespace with a fresh tmpfs on /var, so the
# watchdog's fixed socket paths never touch the host's /var.
if [ "$(id -u)" = 0 ]; then
  exec unshare --mount --propagation private sh -c 'mount -t tmpfs qwd-test-var /var && exec "$@"' sh "$@"
fi
exec unshare --user --map-root-user --mount --propagation private \
  sh -c 'mount -t tmpfs qwd-test-var /var && exec "$@"' sh "$@"
