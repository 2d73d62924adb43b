#!/usr/bin/env bash
# Checks what `cmake --install` and `cpack -G DEB` make of the companion.
#
#   package_test.sh contents|install BUILD_DIR SOURCE_DIR VERSION WORK_DIR CMAKE CPACK
#
# contents: installs into a DESTDIR and checks every file, validates the desktop entry and the
#   AppStream metadata, checks that `autostart on` writes an entry that agrees with the
#   installed one, builds the .deb and checks its fields and that it holds the same files.
# install: builds the .deb, installs it on this system with apt-get, runs the installed
#   companion with a throwaway home, and removes the package again. It changes the system, so
#   it runs only as root with QUILLMAR_PACKAGE_INSTALL_TEST=1; otherwise it exits 77 (skipped).
set -euo pipefail

mode=$1
build_dir=$2
source_dir=$3
version=$4
work_dir=$5
cmake_command=$6
cpack_command=$7

app_id=app.quillmar.companion
package=quillmar-companion
icon_sizes=(16 22 24 32 48 64 128 256)
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

check_equal() { # what expected actual
    if [ "$2" != "$3" ]; then
        fail "$1: expected '$2', got '$3'"
    fi
}

require_tool() { # command debian-package
    if ! command -v "$1" >/dev/null; then
        echo "FAIL: $1 is missing (Debian package $2)" >&2
        exit 1
    fi
}

# Files the package installs, relative to the prefix, sorted as `sort` sorts them.
expected_files() {
    {
        echo "bin/$package"
        echo "libexec/$package/quillmar-file-worker"
        echo "share/applications/$app_id.desktop"
        echo "share/doc/$package/changelog.gz"
        echo "share/doc/$package/copyright"
        echo "share/icons/hicolor/scalable/apps/$app_id.svg"
        for size in "${icon_sizes[@]}"; do
            echo "share/icons/hicolor/${size}x${size}/apps/$app_id.png"
        done
        echo "share/man/man1/$package.1.gz"
        echo "share/metainfo/$app_id.metainfo.xml"
    } | LC_ALL=C sort
}

files_under() { # root
    (cd "$1" && find . -type f -o -type l) | sed 's|^\./||' | LC_ALL=C sort
}

# The value of KEY in a desktop entry's [Desktop Entry] group.
desktop_value() { # file key
    sed -n '/^\[Desktop Entry\]/,/^\[/{s/^'"$2"'=//p}' "$1" | head -n 1
}

# Width and height of a PNG, from its IHDR chunk.
png_size() { # file
    od -An -tu1 -j16 -N8 "$1" |
        awk '{ printf "%dx%d\n", $1*16777216 + $2*65536 + $3*256 + $4, $5*16777216 + $6*65536 + $7*256 + $8 }'
}

# Runs the companion at PATH with nothing of the real user's environment.
run_isolated() { # home executable arguments...
    local home=$1
    shift
    mkdir -p "$home/config" "$home/data" "$home/runtime"
    chmod 700 "$home/runtime"
    env -i PATH=/usr/bin:/bin HOME="$home" XDG_CONFIG_HOME="$home/config" \
        XDG_DATA_HOME="$home/data" XDG_RUNTIME_DIR="$home/runtime" LANG=C.UTF-8 "$@"
}

build_package() { # output-directory; prints the .deb's path
    rm -rf "$1"
    mkdir -p "$1"
    if ! "$cpack_command" -G DEB --config "$build_dir/CPackConfig.cmake" -B "$1" >"$1/cpack.log" 2>&1; then
        cat "$1/cpack.log" >&2
        echo "FAIL: cpack -G DEB failed" >&2
        exit 1
    fi
    local debs=("$1"/*.deb)
    if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
        echo "FAIL: cpack made no single .deb in $1" >&2
        exit 1
    fi
    echo "${debs[0]}"
}

check_stage() { # prefix-root
    local prefix=$1
    check_equal "installed files" "$(expected_files)" "$(files_under "$prefix")"

    local desktop=$prefix/share/applications/$app_id.desktop
    check_equal "desktop Name" "Quillmar OS" "$(desktop_value "$desktop" Name)"
    check_equal "desktop Exec" "$package" "$(desktop_value "$desktop" Exec)"
    check_equal "desktop Icon" "$app_id" "$(desktop_value "$desktop" Icon)"
    check_equal "desktop Type" "Application" "$(desktop_value "$desktop" Type)"
    check_equal "desktop StartupNotify" "false" "$(desktop_value "$desktop" StartupNotify)"
    check_equal "desktop StartupWMClass" "Quillmar OS" "$(desktop_value "$desktop" StartupWMClass)"
    [ -n "$(desktop_value "$desktop" Categories)" ] || fail "desktop entry has no Categories"
    [ -n "$(desktop_value "$desktop" Keywords)" ] || fail "desktop entry has no Keywords"
    local output
    if ! output=$(desktop-file-validate "$desktop" 2>&1) || [ -n "$output" ]; then
        fail "desktop-file-validate: $output"
    fi

    local metainfo=$prefix/share/metainfo/$app_id.metainfo.xml
    grep -q "<id>$app_id</id>" "$metainfo" || fail "metainfo: no <id>$app_id</id>"
    grep -q "<launchable type=\"desktop-id\">$app_id.desktop</launchable>" "$metainfo" ||
        fail "metainfo: no launchable for $app_id.desktop"
    grep -q "<release version=\"$version\"" "$metainfo" || fail "metainfo: no release $version"
    # validate-tree also checks that the desktop entry and the icons it names are there.
    if ! output=$(appstreamcli validate-tree --no-net "$(dirname "$prefix")" 2>&1) ||
        grep -Eq '^[[:space:]]*[EW]:' <<<"$output"; then
        fail "appstreamcli validate-tree: $output"
    fi

    cmp -s "$source_dir/src/views/assets/quillmar-logo.svg" \
        "$prefix/share/icons/hicolor/scalable/apps/$app_id.svg" ||
        fail "the scalable icon is not the logo"
    for size in "${icon_sizes[@]}"; do
        local png=$prefix/share/icons/hicolor/${size}x${size}/apps/$app_id.png
        if [ -f "$png" ]; then
            check_equal "icon $size" "${size}x${size}" "$(png_size "$png")"
        fi
    done

    check_equal "changelog version" "$package ($version)" \
        "$(gzip -dc "$prefix/share/doc/$package/changelog.gz" | head -n 1 | cut -d' ' -f1-2)"
    gzip -dc "$prefix/share/man/man1/$package.1.gz" | grep -q "^\.TH .*\"$package $version\"" ||
        fail "manual page: not of version $version"
}

# The entry `autostart on` writes must start the same program under the same name and icon as
# the installed entry.
check_autostart() { # executable installed-desktop-entry
    local home=$work_dir/autostart-home
    rm -rf "$home"
    run_isolated "$home" "$1" autostart on >/dev/null || fail "autostart on failed"
    local entry=$home/config/autostart/$app_id.desktop
    if [ ! -f "$entry" ]; then
        fail "autostart on wrote no $entry"
        return
    fi
    desktop-file-validate "$entry" >/dev/null 2>&1 || fail "autostart entry: $(desktop-file-validate "$entry" 2>&1)"
    local key
    for key in Type Name Comment Icon Terminal Categories StartupNotify StartupWMClass; do
        check_equal "autostart $key" "$(desktop_value "$2" "$key")" "$(desktop_value "$entry" "$key")"
    done
    check_equal "autostart Exec" "$1" "$(desktop_value "$entry" Exec)"
    check_equal "autostart enabled" "true" "$(desktop_value "$entry" X-GNOME-Autostart-enabled)"
}

check_command_line() { # executable home
    local out
    out=$(run_isolated "$2" "$1" --version 2>/dev/null) || fail "--version exited with $?"
    check_equal "--version" "$package $version" "$out"
    out=$(run_isolated "$2" "$1" --help 2>/dev/null) || fail "--help exited with $?"
    [[ "$out" == Usage:* ]] || fail "--help does not start with Usage: '$out'"
    out=$(run_isolated "$2" "$1" status 2>&1) || fail "status exited with $?: $out"
    grep -qx "Paired: no" <<<"$out" || fail "status of a new home: '$out'"
    # The file tools are found where they were installed.
    grep -q "^File access: " <<<"$out" || fail "status says nothing of file access: '$out'"
    if grep -q "missing" <<<"$out"; then fail "the installed companion misses its file tools: '$out'"; fi
}

check_package_fields() { # deb
    local deb=$1
    check_equal "Package" "$package" "$(dpkg-deb -f "$deb" Package)"
    check_equal "Version" "$version" "$(dpkg-deb -f "$deb" Version)"
    check_equal "Architecture" "$(dpkg --print-architecture)" "$(dpkg-deb -f "$deb" Architecture)"
    check_equal "file name" "${package}_${version}_$(dpkg --print-architecture).deb" "$(basename "$deb")"
    check_equal "Homepage" "https://quillmar.app" "$(dpkg-deb -f "$deb" Homepage)"
    local field
    for field in Maintainer Section Description; do
        [ -n "$(dpkg-deb -f "$deb" "$field")" ] || fail "the package has no $field"
    done
    check_equal "changelog signature" "$(dpkg-deb -f "$deb" Maintainer)" \
        "$(gzip -dc "$stage_prefix/share/doc/$package/changelog.gz" | sed -n 's/^ -- \(.*>\)  .*/\1/p')"

    # Depends: what dpkg-shlibdeps found, and what is only loaded at run time.
    local depends
    depends=",$(dpkg-deb -f "$deb" Depends | tr -d ' '),"
    local wanted
    for wanted in libqt6core6 libqt6gui6 libqt6quick6 libqt6keychain1 libc6 \
        qml6-module-qtqml qml6-module-qtqml-models qml6-module-qtqml-workerscript \
        qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-templates \
        libsecret-1-0 fonts-material-design-icons-iconfont; do
        grep -Eq ",$wanted(\(|,)" <<<"$depends" || fail "Depends lacks $wanted: $depends"
    done
    grep -q "fonts-noto-color-emoji" <<<"$(dpkg-deb -f "$deb" Recommends)" ||
        fail "Recommends lacks fonts-noto-color-emoji"
    grep -q "gnome-keyring" <<<"$(dpkg-deb -f "$deb" Recommends)" ||
        fail "Recommends lacks a secret store"
    grep -q "xdg-desktop-portal" <<<"$(dpkg-deb -f "$deb" Recommends)" ||
        fail "Recommends lacks the desktop portal (the desktop's folder chooser)"
}

check_contents() {
    require_tool desktop-file-validate desktop-file-utils
    require_tool appstreamcli appstream
    require_tool dpkg-shlibdeps dpkg-dev

    rm -rf "$work_dir"
    mkdir -p "$work_dir"
    local stage=$work_dir/stage
    stage_prefix=$stage/usr
    if ! DESTDIR=$stage "$cmake_command" --install "$build_dir" --prefix /usr >"$work_dir/install.log" 2>&1; then
        cat "$work_dir/install.log" >&2
        echo "FAIL: cmake --install failed" >&2
        exit 1
    fi
    check_stage "$stage_prefix"
    check_command_line "$stage_prefix/bin/$package" "$work_dir/home"
    check_autostart "$stage_prefix/bin/$package" "$stage_prefix/share/applications/$app_id.desktop"

    local deb
    deb=$(build_package "$work_dir/deb")
    check_package_fields "$deb"
    local unpacked=$work_dir/unpacked
    dpkg-deb -x "$deb" "$unpacked"
    check_equal "files in the package" "$(expected_files)" "$(files_under "$unpacked/usr")"
    check_equal "everything in the package is under /usr" "usr" "$(ls -A "$unpacked")"
    # The same files as `cmake --install`, but for the executables, which cpack strips.
    local f
    while read -r f; do
        if [ "$f" != "bin/$package" ] && [ "$f" != "libexec/$package/quillmar-file-worker" ] &&
            ! cmp -s "$stage_prefix/$f" "$unpacked/usr/$f"; then
            fail "$f in the package differs from the installed one"
        fi
    done < <(expected_files)
    check_command_line "$unpacked/usr/bin/$package" "$work_dir/home-unpacked"
    if command -v readelf >/dev/null && readelf -d "$unpacked/usr/bin/$package" | grep -Eq 'RPATH|RUNPATH'; then
        fail "the packaged executable has a run-time search path"
    fi
    if command -v lintian >/dev/null; then
        local tags
        tags=$(lintian --no-cfg --fail-on none "$deb" 2>/dev/null | grep -E '^[EW]:' || true)
        [ -z "$tags" ] || fail "lintian: $tags"
    fi
}

installed_packages() {
    dpkg-query -W -f='${db:Status-Abbrev} ${binary:Package}\n' | awk '$1 ~ /^.i/ { print $2 }' | LC_ALL=C sort
}

check_install() {
    if [ "${QUILLMAR_PACKAGE_INSTALL_TEST:-}" != 1 ]; then
        echo "SKIP: set QUILLMAR_PACKAGE_INSTALL_TEST=1 (as root) to install the package on this system"
        exit 77
    fi
    if [ "$(id -u)" -ne 0 ]; then
        echo "SKIP: installing the package needs root"
        exit 77
    fi
    if dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^.i'; then
        echo "FAIL: $package is installed already; remove it before this test" >&2
        exit 1
    fi
    if [ -e "/usr/bin/$package" ]; then
        echo "FAIL: /usr/bin/$package exists and belongs to no package; not touching it" >&2
        exit 1
    fi

    rm -rf "$work_dir"
    mkdir -p "$work_dir"
    local deb
    deb=$(build_package "$work_dir/deb")
    installed_packages >"$work_dir/before"

    # Everything it depends on is installed by the project's setup, so nothing is downloaded.
    if ! DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$deb" \
        >"$work_dir/apt-install.log" 2>&1; then
        cat "$work_dir/apt-install.log" >&2
        echo "FAIL: apt-get install failed" >&2
        exit 1
    fi
    # Whatever happens from here on, the package goes again.
    trap 'DEBIAN_FRONTEND=noninteractive apt-get remove -y "$package" >/dev/null 2>&1 || true' EXIT

    check_equal "dpkg status" "ii" "$(dpkg-query -W -f='${db:Status-Abbrev}' "$package" | tr -d ' ')"
    check_equal "installed files" "$(expected_files | sed 's|^|/usr/|')" \
        "$(dpkg -L "$package" | while read -r f; do [ -f "$f" ] && echo "$f"; done | LC_ALL=C sort)"
    check_command_line "/usr/bin/$package" "$work_dir/home"
    check_autostart "/usr/bin/$package" "/usr/share/applications/$app_id.desktop"

    # The desktop companion itself, offscreen: a new home shows the window, whose QML must load
    # with the modules the package depends on.
    local home=$work_dir/home-desktop
    set +e
    run_isolated "$home" QT_QPA_PLATFORM=offscreen QML_IMPORT_TRACE=1 \
        timeout 8 "/usr/bin/$package" >"$work_dir/desktop.log" 2>&1
    local status=$?
    set -e
    check_equal "the desktop companion still running after 8 s (timeout's status)" 124 "$status"
    grep -q 'loaded ".*/QtQuick/Controls/Basic/qmldir"' "$work_dir/desktop.log" ||
        fail "the desktop companion did not load its window (see $work_dir/desktop.log)"
    if grep -Eiq 'is not installed|not found|failed|error' "$work_dir/desktop.log"; then
        fail "the desktop companion reported: $(grep -Ei 'is not installed|not found|failed|error' "$work_dir/desktop.log")"
    fi

    if ! DEBIAN_FRONTEND=noninteractive apt-get remove -y "$package" >"$work_dir/apt-remove.log" 2>&1; then
        cat "$work_dir/apt-remove.log" >&2
        fail "apt-get remove failed"
    fi
    trap - EXIT
    [ ! -e "/usr/bin/$package" ] || fail "/usr/bin/$package is still there after removal"
    local f
    while read -r f; do
        [ ! -e "/usr/$f" ] || fail "/usr/$f is still there after removal"
    done < <(expected_files)
    installed_packages >"$work_dir/after"
    local gone
    gone=$(LC_ALL=C comm -23 "$work_dir/before" "$work_dir/after")
    [ -z "$gone" ] || fail "removing the package also removed: $gone"
}

case $mode in
contents) check_contents ;;
install) check_install ;;
*)
    echo "usage: package_test.sh contents|install BUILD_DIR SOURCE_DIR VERSION WORK_DIR CMAKE CPACK" >&2
    exit 2
    ;;
esac

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "OK: $mode"
