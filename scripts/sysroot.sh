# shellcheck shell=bash
# Fills a folder with Debian packages of another architecture, to build against and to run programs in. Sourced by
# ./test. The packages come from where the machine's own packages come from: its sources, keys, proxies and
# preferences are used as configured. Nothing of the machine changes: no architecture is added, nothing is installed,
# apt's lists and files lie beside the folder.

# fill_sysroot FOLDER ARCHITECTURE PACKAGE...: says what it does; does nothing when FOLDER holds these packages.
fill_sysroot() {
    local folder=$1 architecture=$2
    shift 2
    local wanted="$architecture $*"
    if [ "$(cat "$folder.holds" 2>/dev/null)" = "$wanted" ]; then
        return 0
    fi
    if ! command -v apt-get >/dev/null; then
        echo "There is no apt to fill $folder with packages for $architecture." >&2
        return 1
    fi
    echo "Unpacking packages for $architecture: $*"
    mkdir -p "$folder.apt"
    if ! sysroot_download "$folder.apt" "$architecture" "$@" >"$folder.apt/log" 2>&1; then
        cat "$folder.apt/log" >&2
        echo "Downloading packages for $architecture failed." >&2
        return 1
    fi
    sysroot_unpack "$folder.apt" "$folder" || return 1
    # Unpacked: the copies are not needed again.
    rm -rf "$folder.apt"
    echo "$wanted" >"$folder.holds"
}

# sysroot_download FOLDER ARCHITECTURE PACKAGE...: the packages and all that they depend on, into FOLDER/cache/archives.
sysroot_download() {
    local folder architecture=$2
    folder=$(cd "$1" && pwd)
    shift 2
    mkdir -p "$folder/state/lists/partial" "$folder/cache/archives/partial"
    : >"$folder/status" # no package is installed there, so that apt fetches every dependency
    # Machines hook things into updates that concern their own lists.
    cat >"$folder/apt.conf" <<TEXT
APT::Architecture "$architecture";
#clear APT::Architectures;
APT::Architectures { "$architecture"; };
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear DPkg::Post-Invoke;
APT::Install-Recommends "false";
APT::Install-Suggests "false";
APT::Sandbox::User "$(id -un)";
Acquire::Languages "none";
Acquire::Retries "3";
Dir::State "$folder/state";
Dir::State::status "$folder/status";
Dir::Cache "$folder/cache";
TEXT
    # A source that has nothing for this architecture, or is not to be had, need not matter: what is missing shows below.
    apt-get -q -c "$folder/apt.conf" update || echo "Some package lists are missing."
    apt-get -q -y -c "$folder/apt.conf" install --download-only "$@"
}

# sysroot_unpack FROM FOLDER: a new FOLDER with all packages of FROM/cache/archives.
sysroot_unpack() {
    local from=$1 folder=$2 package link target
    rm -rf "$folder" "$folder.holds"
    mkdir -p "$folder"
    for package in "$from"/cache/archives/*.deb; do
        dpkg-deb -x "$package" "$folder" || return 1
    done
    # Links that name a place of the target's file system lead to this machine's from here.
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln -sfnr "$folder$target" "$link" || return 1
    done < <(find "$folder" -type l -lname '/*' -print0)
}
