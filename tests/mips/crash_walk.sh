#!/bin/sh
# The crash handler's prologue walk over real MIPS frames: qwd_mips_crash_chain
# faults in a leaf four calls below main, under qemu. The fault must lie in the
# leaf, frames 1 to 4 must return into Inner, Middle, Outer and main (ranges
# from the symbol table), the dump must end its trace and the process abort.
#   QWD_QEMU=qemu-mips[el]-static QWD_SYSROOT=/usr/<triple> QWD_NM=<triple>-nm \
#     crash_walk.sh <qwd_mips_crash_chain>
set -u
program=$1
dir=$(mktemp -d "${TMPDIR:-/tmp}/qwd-crash-XXXXXX")
trap 'rm -rf "$dir"' EXIT
"$QWD_QEMU" -L "$QWD_SYSROOT" "$program" "$dir" >"$dir/out" 2>/dev/null
status=$?
dump=$dir/chain_0.log
cat "$dump"

anchor=$(sed -n 's/^CrashChainOuter at //p' "$dir/out")
bias=$((anchor - 0x$("$QWD_NM" "$program" | sed -n 's/ T CrashChainOuter$//p')))
failures=0
inside() {  # symbol, message of the dump line whose first address must lie in it
  # shellcheck disable=SC2046 # splits into the start and the size
  set -- "$1" "$2" $("$QWD_NM" -S "$program" | sed -n "s/ [Tt] $1\$//p")
  address=$(grep -o "\"message\": \"$2[^\"]*" "$dump" | grep -o '0x[0-9a-f]*' | head -n1)
  start=$((0x$3 + bias))
  if [ -z "$address" ] || [ $((address)) -lt $start ] || [ $((address)) -ge $((start + 0x$4)) ]; then
    echo "FAILED: '$2' at '$address' is not in $1"
    failures=$((failures + 1))
  fi
}
inside CrashChainLeaf "Crashed at"
inside CrashChainInner "Frame 1:"
inside CrashChainMiddle "Frame 2:"
inside CrashChainOuter "Frame 3:"
inside main "Frame 4:"
tail -n1 "$dump" | grep -q '"message": "----- END TRACE -----"' || {
  echo "FAILED: the dump does not end with the END TRACE line"
  failures=$((failures + 1))
}
# qemu ends itself with the guest's fatal signal: 128 + SIGABRT.
[ $status = 134 ] || { echo "FAILED: exit status $status, not SIGABRT" && failures=$((failures + 1)); }
[ $failures = 0 ]
