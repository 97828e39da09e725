#!/bin/sh
# Checks that the system allows what recording needs. If not, explains it in one sentence and fails.
#
#   sh scripts/require_storage.sh command    for tdmbrec record: /mnt/sdcard, or the right to add it
#   sh scripts/require_storage.sh tests      for the tests: memory file systems of their own
set -eu

probe='mount -t tmpfs none /mnt && mkdir /mnt/sdcard /mnt/folder && mount --bind /mnt/folder /mnt/sdcard'

# may_mount OPTION: tries to mount in a namespace that unshare makes with this option.
may_mount() {
    reason=$(unshare "$1" sh -c "$probe" 2>&1) && return
    reason=$(printf '%s\n' "$reason" | sed 's/^unshare: unshare failed/unshare/;1q')
    return 1
}

case ${1:-} in
command)
    kind=-m
    [ "$(id -u)" = 0 ] || kind=-rm
    may_mount $kind && exit 0
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
    may_mount -rm && exit 0
    echo "The tests mount memory file systems in user and mount namespaces of their own, which this" \
        "system does not allow ($reason); run them on a real or virtual machine, or in a container" \
        "that may mount (one started with --privileged), not in a chroot." >&2
    ;;
esac
exit 1
