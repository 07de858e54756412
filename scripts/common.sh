# What the scripts of this folder have in common; sourced by them, never run. The shell is then in the project's
# top folder, whatever folder the script was called from.

unset CDPATH
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

BUILD_PACKAGES=(g++ cmake ninja-build libpoco-dev libgtest-dev libgmock-dev)

say() { printf '== %s\n' "$*"; }

fail() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

# missing_packages PACKAGE...: prints those that are not installed.
missing_packages() {
    local package
    for package; do
        [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || echo "$package"
    done
}

# apt_get ARGUMENT...: as root, without a question, waiting for another package manager that may be at work.
apt_get() {
    local as_root=()
    if ((EUID != 0)); then
        command -v sudo >/dev/null || fail "packages must be installed: run this as root, or install sudo"
        as_root=(sudo)
    fi
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y -o DPkg::Lock::Timeout=300 -o DPkg::Use-Pty=0 "$@" </dev/null >/dev/null
}

# all_known PACKAGE...: whether the machine's package lists have them all.
all_known() {
    local package
    for package; do
        apt-cache show "$package" >/dev/null 2>&1 || return 1
    done
}

# need_packages PACKAGE...: installs those that are missing, from Debian. Nothing is called when none is.
need_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} > 0)) || return 0
    command -v apt-get >/dev/null || fail "no apt-get here; please install what corresponds to: ${missing[*]}"
    say "installing ${missing[*]}"
    # The lists of a fresh machine are empty, those of an old one name versions that are gone.
    if ! all_known "${missing[@]}" || ! apt_get install --no-install-recommends "${missing[@]}"; then
        say "renewing the package lists"
        apt_get update
        apt_get install --no-install-recommends "${missing[@]}"
    fi
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} == 0)) || fail "not installed: ${missing[*]}"
}

# fix_addresses ARGUMENT...: begins the calling script anew, with these arguments and without random addresses. The
# sanitizers need certain ones free, which kernels with a wide address randomisation do not grant ("unexpected memory
# mapping"); a build as well, which runs the tests to list their cases. Where that is not permitted, as in some
# containers, it goes without.
fix_addresses() {
    [[ -z ${ADDRESSES_FIXED:-} ]] && setarch -R true 2>/dev/null || return 0
    ADDRESSES_FIXED=1 exec setarch -R "$BASH" "scripts/${0##*/}" "$@"
}

# build PRESET [TARGET...]: configures and builds everything, or those targets, in build/PRESET.
build() {
    local preset=$1 targets=()
    (($# == 1)) || targets=(--target "${@:2}")
    say "building build/$preset"
    cmake --preset "$preset"
    cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
}
