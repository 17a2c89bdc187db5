#!/bin/bash
# Interpreter that the cross stage registers with binfmt_misc (flag P) for
# MIPS programs: runs qemu under the program's own path as argv[0], so that
# /proc/<pid>/cmdline names the program, as on the router, where the watchdog
# checks it; the emulator's own path would fail that check.
#   binfmt-qemu-mips.sh <program path> <argv[0]> [arguments...]
program=$1 name=$2
shift 2
exec -a "$program" qemu-mips-static -L /usr/mips-linux-gnu -0 "$name" "$program" "$@"
