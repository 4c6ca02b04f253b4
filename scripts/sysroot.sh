# shellcheck shell=bash
# Sourced by the scripts: Debian's packages for a processor, in a folder of the build.
#
# apt works on that folder, as if for a machine of that processor on which nothing is installed; the machine's own lists
# and settings stay as they are.

# logged COMMAND ...: runs it quietly; what it wrote goes into $log, and is shown when it fails.
# shellcheck disable=SC2154
logged() {
    "$@" >"$log" 2>&1 || { cat "$log" >&2 && exit 1; }
}

# Prints the address and the name of the distribution's main archive, as apt has it on this machine.
main_archive() {
    local codename
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
    # shellcheck disable=SC2016
    apt-get indextargets --format '$(RELEASE) $(REPO_URI)' 'Created-By: Packages' 'Component: main' |
        awk -v name="$codename" '$1 == name { print $2, $1; exit }'
}

# use_apt ARCHITECTURE FOLDER: sets apt_settings; the archive's lists are fetched once.
use_apt() {
    local archive apt=$2
    apt_settings=(-q -o APT::Architecture="$1" -o APT::Architectures::="$1"
        -o Dir::State="$apt/state" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt/cache"
        -o Dir::Etc::sourcelist="$apt/sources.list" -o Dir::Etc::sourceparts="$apt/sources.d"
        -o APT::Sandbox::User=root)
    [ ! -e "$apt/ready" ] || return 0
    archive=$(main_archive)
    if [ -z "$archive" ]; then
        echo "apt has no source for the main archive of this Debian release." >&2
        exit 1
    fi
    rm -rf "$apt"
    mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial" "$apt/sources.d"
    : >"$apt/status"
    # Only the main archive: the lists of its updates need not fit it for every processor.
    echo "deb [arch=$1] $archive main" >"$apt/sources.list"
    logged apt-get "${apt_settings[@]}" -o APT::Update::Error-Mode=any update
    : >"$apt/ready"
}

# fetch_closure ARCHITECTURE FOLDER PACKAGE ...: sets closure to the files of the packages and of all that they depend
# on. A package can be a file of this machine too: what it depends on is fetched, and it is left to the caller.
fetch_closure() {
    local name version architecture arch=$1 apt=$2
    use_apt "$arch" "$apt"
    shift 2
    logged apt-get "${apt_settings[@]}" install -y --no-install-recommends --download-only "$@"
    logged apt-get "${apt_settings[@]}" install -y --no-install-recommends --simulate "$@"
    closure=()
    while read -r name version architecture; do
        closure+=("$apt/cache/archives/${name}_${version//:/%3a}_$architecture.deb")
    done < <(sed -n '/ local-deb /d; s/^Inst \([^ ]*\) (\([^ ]*\) [^)]*\[\([a-z0-9]*\)\]).*/\1 \2 \3/p' "$log")
}

# unpack_root ROOT FILE ...: unpacks packages into an empty root.
unpack_root() {
    local root=$1 package target link
    shift
    rm -rf "$root" "$root.part"
    mkdir -p "$root.part"
    for package in "$@"; do
        logged dpkg-deb -x "$package" "$root.part"
    done
    # Links from the root must not lead to this machine's files.
    find "$root.part" -type l -lname '/*' -printf '%l\t%p\n' |
        while IFS=$'\t' read -r target link; do
            ln -sfnr "$root.part$target" "$link"
        done
    mv "$root.part" "$root"
}
