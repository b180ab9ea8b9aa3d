#!/usr/bin/env bash
# Checks that what scripts/release makes is in order and works without this tree: the Debian package, unpacked, and the
# wheel of each interpreter and the source distribution, installed by pip into a virtual environment, publish a preset
# to a stand-in. The wheels for Windows can only be installed and looked at.
set -euo pipefail
export LC_ALL=C.UTF-8 PIP_NO_INDEX=1 PIP_NO_CACHE_DIR=1 PIP_DISABLE_PIP_VERSION_CHECK=1
cd "$(dirname "$0")/../.."
scripts/setup --for full
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
version=$(sed -n 's/^project(Skiffport VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

fail() { echo "FAILED: $*" >&2 && exit 1; }
expect() { # WHAT EXPECTED FOUND
  [[ $2 == "$3" ]] || fail "$1: expected '$2', found '$3'"
  echo "ok: $1"
}
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" && fail "$*"; }; }
check_installed() { # WHAT FOLDER COMMAND...: what lies in that folder is in order and publishes
  quietly scripts/check-objects "$2"
  ! grep -rlF --exclude=direct_url.json "$PWD" "$2" || fail "a file of $1 names the tree that it was built in"
  expect "version of $1" "skiffhost $version" "$(cd / && "${@:3}" --version)"
  quietly scripts/with-standin bash -c 'cd / && "${@:2}" publish "$SKIFFHOST_USER" "$1" --title Packed' - \
    "$work/preset" "${@:3}"
}

install_by_pip() { # WHAT INTERPRETER ARGUMENT...: installs, checks and removes it, in a new environment
  environment=$(mktemp -d -p "$work")
  quietly "$2" -m venv "$environment"
  quietly "$environment/bin/python" -m pip install --no-deps "${@:3}"
  check_installed "$1" "$environment/lib" env -u PYTHONPATH "$environment/bin/skiffhost"
  expect 'its man page' 1 "$(grep -c '^.SH EXIT STATUS' "$environment/share/man/man1/skiffhost.1")"
  quietly "$environment/bin/python" -m pip uninstall -y skiffport
  expect 'what is left of it' '' "$(find "$environment" -iname '*skiffhost*' -o -iname '*skiffport*')"
}

quietly scripts/build release
PYTHONPATH=build/release/python:tests/support /usr/bin/python3 -B -c "import fixtures, pathlib
fixtures.write_preset(pathlib.Path('$work/preset'))"

quietly scripts/release --once
expect 'version in the changelog' "$version" "$(dpkg-deb -f build/dist/python3-skiffport_*.deb Version)"
quietly lintian --allow-root --fail-on error,warning build/dist/*.deb
for package in build/dist/*.deb; do dpkg-deb -x "$package" "$work/unpacked"; done
site=$work/unpacked/usr/lib/python3/dist-packages
for library in "$site"/*.so "$site"/skiffhost/*.so; do
  id=$(readelf -n "$library" | sed -n 's/.*Build ID: //p')
  [[ -e $work/unpacked/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug ]] || fail "no symbols of $library"
done
check_installed 'the Debian package' "$work/unpacked" env "PYTHONPATH=$site" "$work/unpacked/usr/bin/skiffhost"

quietly twine check --strict build/dist/*.whl build/dist/*.tar.gz
expect 'files of the source distribution' "$({ git ls-files | grep -v '^\.' && echo PKG-INFO; } | sort)" \
  "$(tar -tzf "build/dist/skiffport-$version.tar.gz" | grep -v '/$' | sed 's|^[^/]*/||' | sort)"
while read -r interpreter; do
  install_by_pip "the wheel for $interpreter" "$interpreter" --find-links build/dist --only-binary :all: skiffport
done <build/release/pythons.txt
install_by_pip 'the source distribution' /usr/bin/python3 "build/dist/skiffport-$version.tar.gz"

list_debug() { x86_64-w64-mingw32-objdump -h "$1" | grep -o '\.gnu_debuglink\|\.debug_info'; }
libraries='advapi32|gdi32|kernel32|msvcrt|ole32|oleaut32|shell32|shlwapi|user32|wininet' # those of Windows
for wheel in build/dist/*-win_amd64.whl; do
  tag=$(sed 's/.*-\(cp3[0-9]*\)-win_amd64.whl/\1/' <<<"$wheel") target=$(mktemp -d -p "$work")
  quietly /usr/bin/python3 -m pip install "$wheel" --target "$target" --no-deps --no-compile --only-binary :all: \
    --platform win_amd64 --python-version "${tag#cp}"
  info=skiffport-$version.dist-info
  modules=("_Skiffport.$tag-win_amd64.pyd" "skiffhost/_messageloop.$tag-win_amd64.pyd")
  expect "files of the wheel for Windows and $tag" "$(
    { (cd host && git ls-files skiffhost) && printf '%s\n' bin/skiffhost {,_}Skiffport-stubs/__init__.pyi Skiffport.py \
      skiffhost/_version.py "${modules[@]}" \
      "$info"/{INSTALLER,METADATA,RECORD,REQUESTED,WHEEL,direct_url.json,entry_points.txt}; } | sort
  )" "$(cd "$target" && find . -type f -printf '%P\n' | sort)"
  for module in "${modules[@]}"; do
    expect "libraries of $module" "python${tag#cp}.dll" "$(x86_64-w64-mingw32-objdump -p "$target/$module" |
      sed -n 's/.*DLL Name: //p' | grep -viE "^($libraries)\.dll$")"
    expect 'its description' "$(sed -n 's/^description = "\(.*\)"/\1/p' pyproject.toml)" \
      "$(strings -el "$target/$module" | sed -n '/^FileDescription/{n;p}')"
    expect 'its debug information' ' .gnu_debuglink .debug_info' "$(
      /usr/bin/python3 -m zipfile -e "${wheel%.whl}-debug.zip" "$work/debug"
      printf ' %s' "$(list_debug "$target/$module")" "$(list_debug "$work/debug/$module.debug")")"
  done
done

quietly "$environment/bin/python" -m pip install -e .
expect 'source of an editable installation' "$PWD/host/skiffhost/loop.py" \
  "$(cd / && readlink -f "$("$environment/bin/python" -c 'import skiffhost.loop; print(skiffhost.loop.__file__)')")"
! PATH=/nonexistent "$environment/bin/python" -m pip install . >"$work/log" 2>&1 || fail 'installed without a compiler'
expect 'advice without tools' 'cmake ninja-build swig pkg-config g++' \
  "$(sed -n 's/.*this system lacks .* On Debian: apt-get install //p' "$work/log")"
