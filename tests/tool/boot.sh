#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# boot.sh SOURCE UNITS MORDEL...: what starts the command at boot, as far as it can be tried without a
# kernel: SOURCE/packaging and the units made of it. MORDEL: the command, perhaps with an emulator.
# shellcheck disable=SC2016,SC2317  # texts for other shells; functions that are called by expect()
set -euo pipefail

packaging=$1/packaging units=$2
shift 2
mordel=("$@")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
status=0

fault()
{
    echo "boot.sh: $*" >&2
    status=1
}

# expect STATUS CALLS COMMAND...: the command's exit status, and how it calls mordel
expect()
{
    local wanted=$1 calls=$2 got=0
    shift 2
    : >calls
    "$@" >out 2>&1 || got=$?
    [ "$got" = "$wanted" ] || fault "$*: status $got, not $wanted"
    [ "$(paste -sd, calls)" = "$calls" ] || fault "$*: called $(paste -sd, calls), not $calls"
}

# A mordel that writes down how it is called; its exit status stands in the file `answer`.
mkdir bin
cat >bin/mordel <<EOF
#!/bin/sh
echo "\$*" >>"$work/calls"
exit "\$(cat "$work/answer")"
EOF
printf '#!/bin/sh\ncat\n' >bin/logger
chmod +x bin/mordel bin/logger
echo 0 >answer
apply='apply --boot --wait 60' stop='stop --all --wait 60'

# ---- Syntax

scripts=("$packaging"/sysv/mordel "$packaging"/openwrt/mordel.init "$packaging"/openwrt/mordel.hotplug)
for script in "${scripts[@]}"; do
    sh -n "$script" || fault "$script: sh does not read it"
    ! command -v busybox >/dev/null || busybox ash -n "$script" || fault "$script: ash does not read it"
    [ -x "$script" ] || fault "$script: not executable"
done

# ---- SysV

# The script sets a PATH of its own; here the stub stands first in it.
sed "s|^PATH=|PATH=$work/bin:|" "$packaging/sysv/mordel" >sysv
expect 0 "$apply" sh sysv start
expect 0 "$apply" sh sysv reload
expect 0 "$apply" sh sysv force-reload
expect 0 "$stop" sh sysv stop
expect 0 "$stop,$apply" sh sysv restart
expect 0 status sh sysv status
for answer in 1 2 3; do
    echo $answer >answer
    expect $answer "$apply" sh sysv start
    expect $answer "$stop" sh sysv stop
    expect $answer "$stop,$apply" sh sysv restart
    expect $answer status sh sysv status
done
echo 0 >answer
expect 2 '' sh sysv
expect 2 '' sh sysv nonsense
sed 's|^PATH=.*|PATH=/nowhere|' "$packaging/sysv/mordel" >without
expect 5 '' /bin/sh without start
expect 0 '' /bin/sh without stop

# ---- OpenWrt

openwrt() # FUNCTION: as rc.common calls it
{
    PATH=$work/bin:$PATH sh -c '. "$1" && "$2"' sh "$packaging/openwrt/mordel.init" "$1"
}
expect 0 "$apply" openwrt start_service
expect 0 "$apply" openwrt reload_service
expect 0 "$stop" openwrt stop_service
expect 0 status openwrt status_service

hotplug() # ENABLED NAME=VALUE...: as hotplug-call runs it
{
    printf '#!/bin/sh\n[ "$1" = enabled ] && exit %s\n' "$1" >init
    chmod +x init
    sed "s|/etc/init.d/mordel|$work/init|" "$packaging/openwrt/mordel.hotplug" >hotplug.sh
    shift
    env -i "PATH=$work/bin:$PATH" "$@" sh hotplug.sh
}
one='apply --boot --interface wan --wait 60'
expect 0 "$one" hotplug 0 ACTION=add DEVICENAME=wan INTERFACE=wan
expect 0 "$one" hotplug 0 ACTION=add INTERFACE=wan
expect 0 "$one" hotplug 0 ACTION=move DEVICENAME=wan
expect 0 "$one" hotplug 0 ACTION=ifup INTERFACE=internet DEVICE=wan
expect 0 '' hotplug 0 ACTION=remove DEVICENAME=wan
expect 0 '' hotplug 0 ACTION=ifdown INTERFACE=internet DEVICE=wan
expect 0 '' hotplug 0 ACTION=add
expect 0 '' hotplug 1 ACTION=add DEVICENAME=wan

# ---- systemd

for unit in mordel.service mordel@.service; do
    [ -s "$units/$unit" ] || fault "$units/$unit is missing"
    ! grep -n '@[A-Z_]*@' "$units/$unit" || fault "$unit: not all of it is filled in"
    for setting in 'CapabilityBoundingSet=CAP_NET_ADMIN CAP_NET_RAW' 'ProtectSystem=strict' \
        'NoNewPrivileges=yes' 'RuntimeDirectoryPreserve=yes' 'KillMode=mixed'; do
        grep -qxF "$setting" "$units/$unit" || fault "$unit: without $setting"
    done
    # verify looks for the programs: here stands a stub.
    sed "s|^\(Exec[A-Za-z]*=\)[^ ]*/mordel |\1$work/bin/mordel |" "$units/$unit" >"$unit"
done
if command -v systemd-analyze >/dev/null && systemd-analyze verify --help >/dev/null 2>&1; then
    # Manuals are not looked for: the one named is not installed yet.
    systemd-analyze verify --man=no ./mordel.service ./mordel@eth0.service >said 2>&1 ||
        fault "systemd-analyze verify: status $?"
    ! grep -E 'mordel(@eth0)?\.service' said || fault "systemd-analyze verify found something"
fi

# ---- Every command line is one that the command takes

# lines FILE...: what they call, as `apply --boot --wait 60`
lines()
{
    grep -hoE '(^|[ /;])mordel (apply|stop|status)( --[a-z-]+| 60| %I| "[^"]*")*' "$@" | sed 's/^.*mordel //' | sort -u
}
lines "$units"/mordel*.service "${scripts[@]}" >called
[ "$(wc -l <called)" = 5 ] || fault "$(wc -l <called) command lines, not 5: $(paste -sd, called)"
while read -r command arguments; do
    "${mordel[@]}" "$command" --help >help || fault "there is no command $command"
    for word in $arguments; do
        case $word in
        --*) grep -qE -- "^ +$word( |\$)" help || fault "mordel $command does not take $word" ;;
        esac
    done
done <called
exit $status
