#!/bin/sh
# qwd-log --symbolize on a real MIPS crash: qwd_mips_crash_chain faults in a
# leaf four calls below main under qemu; the symbolized dump must name the
# leaf at the fault and Inner, Middle, Outer and main in frames 1 to 4, each
# with its line in CrashChain.cc.
#   symbolize.sh <qwd_mips_crash_chain> <qwd-log built for this machine>
set -u
program=$1
viewer=$2
dir=$(mktemp -d "${TMPDIR:-/tmp}/qwd-symbolize-XXXXXX")
trap 'rm -rf "$dir"' EXIT
QEMU_STACK_SIZE=1048576 qemu-mips-static -L /usr/mips-linux-gnu "$program" "$dir" >/dev/null 2>&1
"$viewer" --symbolize "$program" "$dir" >"$dir/trace" || { echo "FAILED: qwd-log --symbolize"; exit 1; }
cat "$dir/trace"
failures=0
for pair in "Crashed at:CrashChainLeaf" "Frame 1:CrashChainInner" "Frame 2:CrashChainMiddle" \
  "Frame 3:CrashChainOuter" "Frame 4:main"; do
  grep "${pair%:*}" "$dir/trace" | grep -q " ${pair##*:} at .*CrashChain.cc:[0-9]" || {
    echo "FAILED: '${pair%:*}' is not named ${pair##*:} with its line"
    failures=$((failures + 1))
  }
done
[ $failures = 0 ]
