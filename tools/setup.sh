# shellcheck shell=bash disable=SC2034 # sourced; the package lists are for its users The functions
# that ./demo and ./test share; they source this file. Silent when there is nothing to do.
#
# Everything that is fetched comes from Debian's packages, except one small table of bright stars
# from the npm package d3-celestial.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
downloads=${VESTREL_DOWNLOADS:-${XDG_CACHE_HOME:-$HOME/.cache}/vestrel}
jobs=$(nproc 2>/dev/null || echo 2)

build_packages="g++ cmake ninja-build pkg-config libjpeg62-turbo-dev libcfitsio-dev libcli11-dev
    nlohmann-json3-dev zlib1g-dev libpng-dev libtiff-dev libraw-dev libpugixml-dev liblz4-dev
    libzstd-dev libzip-dev libcpp-httplib-dev pybind11-dev python3-dev"
desktop_packages="qt6-base-dev libindi-dev"
test_packages="libgtest-dev libbenchmark-dev python3 python3-astropy python3-photutils python3-pil
    python3-erfa python3-scipy indi-bin libcfitsio-bin fitsverify desktop-file-utils appstream man-db dpkg-dev
    astrometry.net poppler-utils dbus libstellarsolver-dev qtbase5-dev python3-astroquery chromium kstars-data astap-cli"
check_packages="clang clang-format clang-tidy"
fuzz_packages="clang libclang-rt-14-dev"
windows_packages="g++-mingw-w64-x86-64-posix libz-mingw-w64-dev nasm dpkg-dev googletest wine wine64
    python3 python3-astropy python3-pil"
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

# Prints the path of the Tycho-2 star file, which is fetched when it is missing. The package itself
# is not installed, because only this file of it is needed.
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

# Prints the path of the table of bright stars; nothing when it is not available.
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

# The upstream source of a Debian package, unpacked into a folder. apt checks it against the
# repository's signed list.
fetch_source() {
    local package=$1 folder=$2
    local apt=(-qq -o "Dir::Etc::SourceList=$folder/apt/sources.list" -o Dir::Etc::SourceParts=/dev/null
        -o "Dir::State::Lists=$folder/apt/lists" -o Dir::Cache::srcpkgcache= -o Dir::Cache::pkgcache=)
    if [ ! -d "$folder/apt" ]; then
        mkdir -p "$folder/apt/lists"
        # The archives from which the installed packages come.
        apt-get indextargets --format 'deb-src $(REPO_URI) $(RELEASE) $(COMPONENT)' \
            'Origin: Debian' 'Created-By: Packages' | sort -u >"$folder/apt/sources.list"
        apt-get "${apt[@]}" update
    fi
    ( cd "$folder" && apt-get "${apt[@]}" source --download-only --tar-only "$package" &&
        mkdir -p "$package" && tar xf "${package}"_*.orig.tar.gz -C "$package" --strip-components 1 )
}

# Builds the libraries for which Debian has no Windows packages, from its source packages. Even
# header-only libraries cannot be used from /usr/include, where the headers of Linux lie too.
need_windows_libraries() {
    local prefix=$project/build/windows-libraries
    [ -f "$prefix/complete" ] && return 0
    say "Building the libraries for Windows"
    rm -rf "$prefix"
    mkdir -p "$prefix/source" "$prefix/include" "$prefix/share/cmake"
    cp -r /usr/include/CLI /usr/include/nlohmann "$prefix/include/"
    cp -r /usr/share/cmake/CLI11 /usr/share/cmake/nlohmann_json "$prefix/share/cmake/"
    {
        fetch_source libjpeg-turbo "$prefix/source" && fetch_source cfitsio "$prefix/source" &&
            build_library "$prefix/source/libjpeg-turbo" -DENABLE_SHARED=OFF -DWITH_TURBOJPEG=OFF &&
            build_library "$prefix/source/cfitsio" -DBUILD_SHARED_LIBS=OFF -DCMAKE_C_FLAGS=-w &&
            build_library /usr/src/googletest -DBUILD_GMOCK=OFF &&
            rm -rf "$prefix/source" && touch "$prefix/complete"
    } >"$prefix/build.log" 2>&1 || { tail -n 20 "$prefix/build.log" >&2
        fail "The libraries for Windows cannot be built: $prefix/build.log"; }
}
build_library() {
    local source=$1 prefix=$project/build/windows-libraries
    shift
    cmake -S "$source" -B "$prefix/source/build-$(basename "$source")" -G Ninja \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
        -DCMAKE_TOOLCHAIN_FILE="$project/cmake/windows-mingw.cmake" "$@" &&
        cmake --build "$prefix/source/build-$(basename "$source")" -j "$jobs" --target install
}

# The default catalog folder of the programs.
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

# Makes the quad tables once, with the vestrel-catalog given; again when they have another version.
need_quads() {
    "$1" info --catalog "$catalog_folder" | grep -q '^Quads: *[0-9]' && return 0
    say "Making the quad tables in $catalog_folder (half a minute)"
    "$1" quads --catalog "$catalog_folder" >&2
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
