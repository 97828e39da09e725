#!/bin/sh
# Says in one sentence what the system does not allow of what recording needs, and then fails.
#
#   sh scripts/require_storage.sh command    for tdmbrec record: /mnt/sdcard, or leave to provide it
#   sh scripts/require_storage.sh tests      for the tests: memory file systems of their own
set -eu

probe='mount -t tmpfs none /mnt && mkdir /mnt/sdcard && mount --bind / /mnt/sdcard'

may_mount() {
    reason=$(unshare -m sh -c "$probe" 2>&1) || reason=$(unshare -rm sh -c "$probe" 2>&1)
}

case ${1:-} in
command)
    may_mount && exit 0
    if [ -d /mnt/sdcard ]; then
        [ -w /mnt/sdcard ] && exit 0
    elif [ ! -e /mnt/sdcard ] && [ -w /mnt ]; then
        exit 0
    fi
    if [ "$(id -u)" = 0 ]; then
        echo "The recorder needs a folder /mnt/sdcard, and root can neither make nor mount it" \
            "here ($reason)." >&2
    else
        echo "The recorder needs a folder /mnt/sdcard, and this user may not mount one" \
            "($reason); as root, run: mkdir -p /mnt/sdcard && chown $(id -u) /mnt/sdcard" >&2
    fi
    ;;
tests)
    may_mount && exit 0
    echo "The tests mount memory file systems in mount namespaces of their own, which this system" \
        "does not allow ($reason); run them on a real or virtual machine, or in a container that" \
        "may mount (one started with --privileged)." >&2
    ;;
esac
exit 1
