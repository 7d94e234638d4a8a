#!/usr/bin/env bash
# Gives OpenSSL for Windows x86-64, cross-built with mingw-w64: prints the folder to pass as OPENSSL_ROOT_DIR.
#
#   cmake/openssl-mingw64.sh            the newest cached one; builds it if there is none (about 3 minutes)
#   cmake/openssl-mingw64.sh --cached   the newest cached one; fails if there is none
#   cmake/openssl-mingw64.sh --update   builds the version that Debian offers now, unless it is cached
#
# The source is the tarball of Debian's source package openssl, from wherever this machine takes its packages,
# checked against the digest in the signed index. Debian's patches are not applied: they adapt OpenSSL to
# Debian's own folders, but for the default security level, which is a compiler definition below.
# Builds are kept by version in ${XDG_CACHE_HOME:-$HOME/.cache}/ravelo. Needs perl and make.
set -euo pipefail

recipe=1 # counts up whenever the way of building changes, so that older builds are not taken for this one
cache=${XDG_CACHE_HOME:-$HOME/.cache}/ravelo
scratch=

say() { printf '%s\n' "$*" >&2; }
fail() { say "openssl-mingw64: $*"; exit 1; }

newest_cached() {
    local found
    found=$(printf '%s\n' "$cache"/openssl-*-mingw64-r$recipe | sort -V | tail -n 1)
    [[ -d $found ]] && echo "$found"
}

# A package index of sources of our own: the machine's source list with deb-src in the place of deb.
prepare_index() {
    local list
    mkdir -p "$scratch/lists/partial" "$scratch/archives/archives/partial" "$scratch/sources.list.d"
    for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [[ -f $list ]] && sed -nE 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "$list" \
            >"$scratch/sources.list.d/$(basename "$list" .list).list"
    done
    for list in /etc/apt/sources.list.d/*.sources; do
        [[ -f $list ]] && sed -E 's/^Types:.*/Types: deb-src/I' "$list" \
            >"$scratch/sources.list.d/$(basename "$list")"
    done
    cat >"$scratch/apt.conf" <<CONFIG
Dir::State::lists "$scratch/lists";
Dir::Cache "$scratch/archives";
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$scratch/sources.list.d";
APT::Sandbox::User "$(id -un)";
CONFIG
    export APT_CONFIG=$scratch/apt.conf
    apt-get update -qq >&2
}

# The newest version of OpenSSL 3 that the index knows.
offered_version() {
    local newest= version
    while read -r version; do
        if [[ -z $newest ]] || dpkg --compare-versions "$version" gt "$newest"; then newest=$version; fi
    done < <(apt-cache showsrc --only-source openssl | sed -n 's/^Version: //p' | grep '^3\.')
    [[ -n $newest ]] && echo "$newest"
}

# The SHA-256 digest that the index gives for a file.
indexed_digest() {
    apt-cache showsrc --only-source openssl | awk -v name="$1" '
        /^[^ ]/ { sha256 = /^Checksums-Sha256:/ }
        sha256 && $3 == name { print $1; exit }'
}

# Fetches the tarball only: mirrors may lack the description and the patches of a version they still list.
fetch() {
    local version=$1 tarball digest
    tarball=openssl_${version%-*}.orig.tar.gz
    (cd "$scratch" && apt-get source -qq --download-only --tar-only "openssl=$version" >&2)
    digest=$(indexed_digest "$tarball")
    [[ -n $digest ]] || fail "the index has no digest for $tarball"
    echo "$digest  $scratch/$tarball" | sha256sum --check --quiet - >&2 || fail "$tarball is not what the index says"
    mkdir "$scratch/source"
    tar -xf "$scratch/$tarball" -C "$scratch/source" --strip-components 1
}

# Run-time folders are those that only administrators write to; they must not name this machine's.
build() {
    local prefix=/openssl-mingw64
    local folders=(OPENSSLDIR="C:/Program Files/Common Files/SSL"
        ENGINESDIR="C:/Program Files/OpenSSL/lib/engines-3" MODULESDIR="C:/Program Files/OpenSSL/lib/ossl-modules")
    cd "$scratch/source"
    CC=gcc-posix ./Configure mingw64 shared no-tests --cross-compile-prefix=x86_64-w64-mingw32- \
        --prefix=$prefix --libdir=lib -DOPENSSL_TLS_SECURITY_LEVEL=2
    make -j "$(nproc)" "${folders[@]}" build_libs
    make "${folders[@]}" DESTDIR="$scratch/installed" install_dev install_runtime_libs
    cp LICENSE.txt "$scratch/installed$prefix/"
    mv -T "$scratch/installed$prefix" "$1"
}

mode=${1:-}
case $mode in "" | --cached | --update) ;; *) sed -n 's/^# \{0,1\}//; 2,6p' "$0" >&2; exit 2 ;; esac

if [[ $mode != --update ]] && newest_cached; then exit 0; fi
[[ $mode == --cached ]] && fail "no build in $cache; run cmake/openssl-mingw64.sh to make one"

mkdir -p "$cache"
exec 9>"$cache/openssl.lock"
flock 9
if [[ $mode != --update ]] && newest_cached; then exit 0; fi # another run has built it meanwhile
scratch=$(mktemp -d "$cache/building.XXXXXX")
log=
clean_up() {
    local status=$?
    if [[ $status != 0 && -n $log ]]; then tail -n 20 "$log" >&2; fi
    rm -rf "$scratch"
}
trap clean_up EXIT

prepare_index
version=$(offered_version) || fail "the package sources of this machine offer no OpenSSL 3"
target=$cache/openssl-${version%-*}-mingw64-r$recipe
if [[ ! -d $target ]]; then
    fetch "$version"
    say "Building OpenSSL ${version%-*} for Windows; the output goes to $target.log"
    log=$target.log
    (build "$target") >"$log" 2>&1
fi
echo "$target"
