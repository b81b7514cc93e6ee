# What the scripts of this tree share: the Debian packages they need, and how to do a step without
# a word unless it fails. To be sourced by a bash script; all of it speaks on the standard error.

packages_build=(g++ cmake ninja-build pkg-config libgstreamer1.0-dev libtag1-dev libmount-dev
    libblkid-dev libsqlite3-dev nlohmann-json3-dev libcli11-dev)

packages_play=(gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly
    gstreamer1.0-tools)

# Only where there is a sound card.
packages_sound=(gstreamer1.0-alsa)

packages_test=(libgtest-dev valgrind ffmpeg dosfstools e2fsprogs mount ntfs-3g sqlite3)

packages_clang=(clang libclang-rt-14-dev)

# quietly COMMAND...: runs it; what it printed is shown only when it fails.
quietly() {
    local said status=0
    said=$(mktemp) || return 1
    "$@" </dev/null >"$said" 2>&1 || status=$?
    if [ $status -ne 0 ]; then
        cat "$said" >&2
    fi
    rm -f "$said"
    return $status
}

# packages_missing PACKAGE...: prints those that are not installed.
packages_missing() {
    local installed package
    installed=" $(dpkg-query -W -f '${Package}=${db:Status-Status} ' "$@" 2>/dev/null || true)"
    for package; do
        case $installed in
        *" $package=installed "*) ;;
        *) printf '%s\n' "$package" ;;
        esac
    done
}

# packages_need PACKAGE...: installs those that are not installed; touches nothing when all are.
packages_need() {
    local missing=() as_root=()
    if ! command -v dpkg-query >/dev/null; then
        echo "No Debian system: these must be there under the names they have here: $*" >&2
        return 0
    fi
    mapfile -t missing < <(packages_missing "$@")
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "There is no sudo. Please install as root: ${missing[*]}" >&2
            return 1
        fi
        # Asks for the password here, where it is seen, not inside a quiet step.
        sudo -v || return 1
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}" >&2
    as_root+=(env DEBIAN_FRONTEND=noninteractive apt-get -q)
    quietly "${as_root[@]}" update &&
        quietly "${as_root[@]}" install -y --no-install-recommends "${missing[@]}"
}
