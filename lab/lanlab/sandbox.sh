#!/bin/sh
# sandbox.sh RUN_DIR PATH_VALUE -- [NAME=VALUE...] COMMAND...
# Runs inside "ip netns exec" (its own mount namespace, / recursively slave,
# /sys showing the router's interfaces). Lays the run's directories over the
# system paths the daemon uses, then becomes the command.
set -e
run=$1 path=$2
shift 3
# /etc and /var get a throw-away overlay, so the missing mount points
# (/etc/config, /etc/crontabs, /var/state) can be made without touching the host.
mount -t overlay lab-etc -o "lowerdir=/etc,upperdir=$run/ovl/etc/u,workdir=$run/ovl/etc/w" /etc
mount -t overlay lab-var -o "lowerdir=/var,upperdir=$run/ovl/var/u,workdir=$run/ovl/var/w" /var
mkdir -p /etc/config /etc/profile.d /etc/crontabs /etc/init.d /var/state
mount --bind "$run/etc/config" /etc/config
mount --bind "$run/etc/profile.d" /etc/profile.d
mount --bind "$run/etc/crontabs" /etc/crontabs
mount --bind "$run/etc/init.d" /etc/init.d
mount --bind "$run/var/state" /var/state
# Trees under /tmp that the run needs (keep-paths: the checkout, the build)
# are held aside before the run's /tmp covers them, then bound back.
n=0
while read -r tree; do
    [ -n "$tree" ] || continue
    n=$((n + 1))
    mkdir -p "$run/keep/$n"
    mount --bind "$tree" "$run/keep/$n"
done <"$run/keep-paths"
mount --bind "$run/tmp" /tmp
n=0
while read -r tree; do
    [ -n "$tree" ] || continue
    n=$((n + 1))
    mkdir -p "$tree"
    mount --bind "$run/keep/$n" "$tree"
done <"$run/keep-paths"
[ -e "$run/lease-source" ] && mount --bind "$(cat "$run/lease-source")" "/tmp/$(cat "$run/lease-name")"
# /var/run is a link to /run on Debian: the bind lands on /run.
mount --bind "$run/var/run" /var/run
mount --bind "$run/console.fifo" /dev/console
cd /
exec env -i PATH="$path" HOME=/root LANROSTER_LAB_RUN="$run" "$@"
