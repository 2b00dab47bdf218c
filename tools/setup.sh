# shellcheck shell=bash disable=SC2034  # sourced; the package lists are for its users
# What ./demo and ./test share; they source this file. Quiet when there is nothing to do.
#
# Everything that is fetched comes from Debian's packages, but for one small table of bright stars
# from the npm package d3-celestial.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
downloads=${VESTREL_DOWNLOADS:-${XDG_CACHE_HOME:-$HOME/.cache}/vestrel}
jobs=$(nproc 2>/dev/null || echo 2)

build_packages="g++ cmake ninja-build pkg-config libjpeg62-turbo-dev libcfitsio-dev libcli11-dev
    nlohmann-json3-dev"
window_packages="qt6-base-dev libindi-dev"
test_packages="libgtest-dev libbenchmark-dev python3 python3-astropy python3-photutils python3-pil
    python3-erfa python3-scipy indi-bin libcfitsio-bin desktop-file-utils appstream man-db dpkg-dev"
fuzz_packages="clang libclang-rt-14-dev"
star_package=astrometry-data-tycho2-07-littleendian
star_file=index-tycho2-07.littleendian.fits
bright_package=d3-celestial@0.7.35
bright_file=stars.6.json

say() { printf '%s\n' "$*" >&2; }
fail() { say "$*"; exit 1; }

# The packages of a list that are not installed.
missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            printf '%s ' "$package"
    done
}

# Runs a command as root when that is possible without asking.
as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo -n "$@"; fi
}
may_install() { [ "$(id -u)" = 0 ] || sudo -n true 2>/dev/null; }

# Installs packages that are missing, or says exactly what to install.
need_packages() {
    local missing
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    command -v apt-get >/dev/null || fail "These Debian packages are needed: $missing"
    may_install || fail "These Debian packages are needed; as root:
    apt-get install --no-install-recommends $missing"
    say "Installing $missing"
    # shellcheck disable=SC2086  # a list of words
    { as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends \
        $missing || { as_root apt-get -qq update &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y \
            --no-install-recommends $missing; }; } >"$downloads/install.log" 2>&1 ||
        { tail -n 20 "$downloads/install.log" >&2; fail "The installation failed."; }
}

# Prints the path of the Tycho-2 star file, fetched when it is not here. The package itself is not
# installed: of all that it brings only this file is wanted.
find_star_file() {
    local installed=/usr/share/astrometry/$star_file
    [ -f "$installed" ] && { printf '%s' "$installed"; return 0; }
    if [ ! -f "$downloads/$star_file" ]; then
        say "Fetching the Tycho-2 stars (88 MB)"
        local folder
        folder=$(mktemp -d "$downloads/fetch.XXXXXX")
        ( cd "$folder" && { apt-get -qq download $star_package 2>/dev/null ||
            { as_root apt-get -qq update && apt-get -qq download $star_package; }; } &&
            dpkg-deb -x ./*.deb . && mv "usr/share/astrometry/$star_file" "$downloads/" ) \
            >"$downloads/fetch.log" 2>&1 || { rm -rf "$folder"; tail -n 5 "$downloads/fetch.log" >&2
            fail "The Debian package $star_package cannot be fetched."; }
        rm -rf "$folder"
    fi
    printf '%s' "$downloads/$star_file"
}

# Prints the path of the table of bright stars; nothing when it cannot be had.
find_bright_file() {
    if [ ! -f "$downloads/$bright_file" ]; then
        command -v npm >/dev/null || need_packages npm
        local folder
        folder=$(mktemp -d "$downloads/fetch.XXXXXX")
        ( cd "$folder" && npm pack --silent "$bright_package" && tar xzf d3-celestial-*.tgz &&
            mv "package/data/$bright_file" "$downloads/" ) >"$downloads/fetch.log" 2>&1 || true
        rm -rf "$folder"
    fi
    if [ -f "$downloads/$bright_file" ]; then
        printf '%s' "$downloads/$bright_file"
    else
        say "The npm package $bright_package cannot be fetched: the catalog will lack the few" \
            "hundred brightest stars, which matters for very wide fields only."
    fi
}

# Where the programs look for the catalog when nothing is said.
catalog_folder=${VESTREL_CATALOG:-${XDG_DATA_HOME:-$HOME/.local/share}/Harrowdene/KEL}

# Makes the Tycho-2 catalog once, with the vestrel-catalog given.
need_catalog() {
    [ -f "$catalog_folder/catalog.json" ] && return 0
    local stars bright
    stars=$(find_star_file)
    bright=$(find_bright_file)
    say "Making the catalog in $catalog_folder"
    "$1" build --tycho2 "$stars" ${bright:+--bright "$bright"} --catalog "$catalog_folder" >&2
}

# Configures and builds a preset; what the tools print is shown only when they fail.
build_preset() {
    local preset=$1 log
    shift
    log=$project/build/$preset.log
    mkdir -p "$project/build"
    { cd "$project" && cmake --preset "$preset" "$@" && cmake --build --preset "$preset" \
        -j "$jobs"; } >"$log" 2>&1 || { tail -n 40 "$log" >&2; fail "The build failed: $log"; }
}

mkdir -p "$downloads"
