# shellcheck shell=bash
# A bare Debian in a folder, for the checks that need one. Sourced by bash scripts that run as root.

# bare_debian RELEASE FOLDER: makes FOLDER a minimal Debian RELEASE unless it is one already.
# MIRROR in the environment names another mirror than debootstrap's own.
bare_debian() {
    local release=$1 folder=$2 log=$2.log
    if [[ -e $folder/.complete ]]; then
        return 0
    fi
    echo "Making a bare Debian ($release) in $folder"
    rm -rf "$folder"
    mkdir -p "$folder"
    if ! debootstrap --variant=minbase "$release" "$folder" ${MIRROR:+"$MIRROR"} >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        return 1
    fi
    # A snapshot of a mirror is older than its own date allows.
    echo 'Acquire::Check-Valid-Until "false";' >"$folder/etc/apt/apt.conf.d/10snapshot"
    touch "$folder/.complete"
}

# fresh_debian RELEASE FOLDER: makes FOLDER a bare Debian in which nothing was ever installed. What earlier ones
# downloaded is at hand in it; keep_archives puts that aside.
fresh_debian() {
    local base=$PWD/build/bare-$1
    bare_debian "$1" "$base"
    rm -rf "$2"
    cp -a "$base" "$2"
    mkdir -p "$base.archives"
    find "$base.archives" -name '*.deb' -exec cp -lf -t "$2/var/cache/apt/archives" {} +
}
keep_archives() { find "$2/var/cache/apt/archives" -name '*.deb' -exec cp -lf -t "$PWD/build/bare-$1.archives" {} +; }

# in_bare FOLDER COMMAND...: runs a command inside, with mounts and processes that end with it.
in_bare() {
    local folder=$1
    shift
    cp /etc/resolv.conf "$folder/etc/resolv.conf"
    unshare --mount --pid --fork --mount-proc="$folder/proc" \
        chroot "$folder" /usr/bin/env -i HOME=/root TERM="${TERM:-dumb}" LC_ALL=C.UTF-8 \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        DEBIAN_FRONTEND=noninteractive "$@"
}

# copy_tree FOLDER: copies the tree's own files, built ones left out, to FOLDER.
copy_tree() {
    mkdir -p "$1"
    git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do
            if [[ -e $file ]]; then printf '%s\0' "$file"; fi
        done | tar --null --files-from=- -cf - | tar -xf - -C "$1"
}
