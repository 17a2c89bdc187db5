#!/bin/sh
# Black-box basics of a cross-built quillmorWD, run through the CPU's qemu
# itself (no binfmt_misc needed): the earliest failures print and end with 255.
#   QWD_QEMU=qemu-<cpu>-static QWD_SYSROOT=/usr/<triple> blackbox.sh <quillmorWD> [scratch directory]
set -u
binary=$1
dir=$(mktemp -d "${2:-${TMPDIR:-/tmp}}/qwd-blackbox-XXXXXX")
trap 'rm -rf "$dir"' EXIT
failures=0

run() { "$QWD_QEMU" -L "$QWD_SYSROOT" "$binary" "$@"; }
check() {  # case, wanted output, wanted status, output, status
  if [ "$4" = "$2" ] && [ "$5" = "$3" ]; then
    echo "ok: $1"
  else
    printf 'FAILED: %s: status %s (wanted %s), output:\n%s\n' "$1" "$5" "$3" "$4"
    failures=$((failures + 1))
  fi
}

out=$(run)
check "no arguments" "Usage:
quillmorWD -f <config file path>" 255 "$out" $?

echo "cpuCoresNumber=12abc" >"$dir/bad.cfg"
out=$(run -f "$dir/bad.cfg")
check "unparsable integer" "Found config file path '$dir/bad.cfg'
Failed reading WD configuration from '$dir/bad.cfg'" 255 "$out" $?

[ $failures = 0 ]
