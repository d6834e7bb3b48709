#!/bin/sh
# SPDX-License-Identifier: MIT
# emulated.sh MORDEL...: stands in for the tests in a kernel where MORDEL runs under an emulator: those of
# qemu-user pass on no rtnetlink message about qdiscs, so nothing can be read back. Skips once it has
# seen that; fails where an emulator has learnt it.
set -eu

said=$(printf '[[interface]]\nname = "lo"\nroot = "prio"\n' | "$@" apply --dry-run - 2>&1) || true
case $said in
*'cannot read what the kernel holds'*)
    echo "[  SKIPPED ] the emulator knows no RTM_GETQDISC: $said"
    exit 77
    ;;
esac
echo "the emulator reads qdiscs: the tests in a kernel can run here. It said: $said" >&2
exit 1
