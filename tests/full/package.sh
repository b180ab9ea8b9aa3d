#!/usr/bin/env bash
# Checks that the packages are in order and work without this tree. lintian finds neither errors nor warnings in the
# Debian package, and dpkg installs it into a root that holds only its dependencies, copied from this machine's
# packages; `pip install` installs the source distribution into a virtual environment of each interpreter. Both publish
# a preset to a stand-in that runs outside. Uses no network but loopback.
set -euo pipefail
export LC_ALL=C.UTF-8
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
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" && fail "$*"; } }

# publish FOLDER SEEN COMMAND...: publishes from the files in FOLDER, which COMMAND sees as SEEN, and compares what arrived.
publish() {
  /usr/bin/python3 -B - "$@" <<'END'
import hashlib, pathlib, shutil, subprocess, sys

sys.path[:0] = "build/package/python", "standin", "tests/support"
from fixtures import DEADLINE_SECONDS, write_preset
from kestrelhub_standin.launch import PASSWORD, USER, Standin
from skiffhost.presetfiles import SENT

folder, seen, *command = sys.argv[1:]
preset = write_preset(pathlib.Path(folder, "preset"), {"cover_after": 200000})
with Standin() as standin:
    shutil.copy(standin.ready["ca_file"], folder)
    env = {"SKIFFHOST_PASSWORD": PASSWORD, "SKIFFPORT_CONNECT_TO": standin.ready["connect_to"],
           "SSL_CERT_FILE": f"{seen}/{pathlib.Path(standin.ready['ca_file']).name}", "LC_ALL": "C.UTF-8",
           "PATH": "/usr/sbin:/usr/bin"}
    status = subprocess.run([*command, "publish", USER, f"{seen}/preset", "--title", "Packed ü"], env=env,
                            cwd="/", timeout=DEADLINE_SECONDS).returncode
    (record,) = standin.presets()
assert status == 0, f"publish ended with {status}"
assert (record["member"], record["fields"]["title"]) == (USER, "Packed ü"), record
sent = [hashlib.sha256((preset / f"{name}.bin").read_bytes()).hexdigest() for name in SENT]
assert [file["sha256"] for file in record["files"]] == sent, record["files"]
END
}

# installed_closure PACKAGE...: the essential packages, the named ones and all their dependencies that are installed.
installed_closure() {
  local essential
  mapfile -t essential < <(dpkg-query -W -f '${Essential} ${Package}\n' | sed -n 's/^yes //p')
  apt-cache depends --recurse --installed --no-recommends --no-suggests --no-conflicts --no-breaks --no-replaces \
    --no-enhances "$@" "${essential[@]}" | grep '^[a-z0-9]' | sort -u |
    comm -12 - <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' | sed -n 's/^installed //p' | sort -u)
}

# make_root FOLDER PACKAGE...: makes a system of those packages and their dependencies, with dpkg's records of them.
make_root() {
  local root=$1 packages name
  shift
  mapfile -t packages < <(installed_closure "$@")
  mkdir -p "$root"/{tmp,usr/{bin,sbin,lib,lib64}} "$root"/var/lib/dpkg/{info,updates,triggers}
  for name in bin sbin lib lib64; do ln -s "usr/$name" "$root/$name"; done
  # A small system may be configured to leave out documentation and translations.
  dpkg -L "${packages[@]}" | sort -u | while read -r name; do [[ ! -e $name ]] || echo ".$name"; done |
    tar -C / --no-recursion -cf - -T - | tar -C "$root" --keep-directory-symlink -xf -
  dpkg-query -s "${packages[@]}" >"$root/var/lib/dpkg/status"
  for name in "${packages[@]}"; do
    cp /var/lib/dpkg/info/"$name"{,:*}.list "$root/var/lib/dpkg/info/" 2>/dev/null || true
  done
  cp /var/lib/dpkg/info/format "$root/var/lib/dpkg/info/"
  chroot "$root" ldconfig
}

check_files() { # FOLDER: no file names this tree, and libraries are searched only next to their users
  local file
  ! grep -rlF --exclude=direct_url.json "$PWD" "$1" || fail "a packaged file names the tree that it was built in"
  while read -r file; do
    readelf -d "$file" | sed -n 's/.*R\(UN\)\?PATH.*\[\(.*\)\]/\2/p'
  done < <(find "$1" -name '*.so') | sort -u | tr '\n' ' '
}

# check_links FOLDER: each link of a document there leads to a file there.
check_links() {
  /usr/bin/python3 -B - "$1" <<'END'
import pathlib, re, sys

LINK = re.compile(r"\]\((?!https?:)([^)#]+)[^)]*\)")
pages = pathlib.Path(sys.argv[1]).rglob("*.md")
links = [(page, link) for page in pages for link in LINK.findall(page.read_text("utf-8"))]
dead = [f"{page}: {link}" for page, link in links if not (page.parent / link).exists()]
assert links and not dead, dead
END
}

# check_symbols FOLDER: gdb finds the debug information of each library there by its build ID.
check_symbols() {
  local library function
  while read -r library function; do
    gdb -nx -batch -iex "set debug-file-directory $1/usr/lib/debug" -ex "info line $function" \
      "$1/usr/lib/python3/dist-packages/$library".*so >"$work/log" 2>&1 || true
    grep -q '^Line [0-9]* of ".*\.c' "$work/log" || { cat "$work/log" && fail "gdb finds no symbols of $library"; }
  done <<<'_Skiffport PyInit__Skiffport
skiffhost/_messageloop PyInit__messageloop
libskiffport_platform InternetOpenW'
}

check_debian_package() {
  local package symbols dependencies
  local root=$work/root site=usr/lib/python3/dist-packages doc=usr/share/doc/python3-skiffport
  package=$(scripts/package 2>"$work/log" | tail -n 1) || { cat "$work/log" && fail scripts/package; }
  symbols=$(echo build/package/*.ddeb)
  quietly lintian --allow-root --fail-on error,warning "$package" "$symbols"
  echo 'ok: lintian'
  expect 'version in the changelog' "$version" "$(dpkg-parsechangelog -l packaging/debian/changelog -S Version)"
  expect 'name and version of the package' "python3-skiffport $version" \
    "$(dpkg-deb -W --showformat '${Package} ${Version}' "$package")"
  dpkg-deb -x "$package" "$work/unpacked"
  check_links "$work/unpacked"
  mkdir "$work/debugged"
  dpkg-deb -x "$package" "$work/debugged"
  dpkg-deb -x "$symbols" "$work/debugged"
  check_symbols "$work/debugged"
  check_files "$work/debugged" >/dev/null
  echo 'ok: links and symbols'
  expect 'library paths of the package' '$ORIGIN $ORIGIN/.. ' "$(check_files "$work/unpacked")"
  expect 'folders of the package' \
    "usr/bin $site/Skiffport-stubs $site/_Skiffport-stubs $site/skiffhost $site/skiffhost/commands \
usr/share/bash-completion/completions $doc $doc/docs $doc/docs/images $doc/examples usr/share/fish/vendor_completions.d \
usr/share/man/man1 usr/share/zsh/vendor-completions" \
    "$(cd "$work/unpacked" && find . -type f -printf '%P\n' | sed 's|/[^/]*$||' | grep -vx "$site" | sort -u | paste -sd ' ')"
  mapfile -t dependencies < <(dpkg-deb -f "$package" Depends | sed 's/([^)]*)//g; s/|[^,]*//g' | tr -d ' ' | tr ',' '\n')
  make_root "$root" "${dependencies[@]}"
  cp "$package" "$root/tmp/package.deb"
  cp "$symbols" "$root/tmp/symbols.deb"
  quietly chroot "$root" dpkg -i /tmp/package.deb /tmp/symbols.deb
  expect 'version of the installed package' "skiffhost $version" "$(chroot "$root" python3 -m skiffhost --version)"
  expect 'version by its command' "skiffhost $version" "$(chroot "$root" skiffhost --version)"
  publish "$root/tmp" /tmp chroot "$root" python3 -m skiffhost
  echo 'ok: the installed package publishes'
  quietly chroot "$root" dpkg -r python3-skiffport-dbgsym python3-skiffport
  expect 'what is left of a removed package' '' "$(find "$root/usr" -iname '*skiff*')"
}

check_sdist() { # leaves it in $work
  quietly /usr/bin/python3 -B -c "import sys; sys.path[:0] = ['packaging']
import tomllib, wheel_backend as backend
with open('pyproject.toml', 'rb') as source:
    project = tomllib.load(source)['project']
read = backend.read_project()
assert {**read['project'], 'optional-dependencies': read['project.optional-dependencies'],
        'scripts': read['project.scripts']} == project, read
backend.build_sdist('$work')"
  expect 'files of the source distribution' "$({ git ls-files | grep -v '^\.' && echo PKG-INFO; } | sort)" \
    "$(tar -tzf "$work/skiffport-$version.tar.gz" | grep -v '/$' | sed 's|^[^/]*/||' | sort)"
}

# check_refusal WHAT PACKAGES COMMAND...: the installation fails, and its output says what to install.
check_refusal() {
  ! "${@:3}" -m pip install --no-index --no-cache-dir . >"$work/log" 2>&1 || fail "installed without $1"
  ! grep -q Traceback "$work/log" || fail "a traceback without $1"
  expect "advice without $1" "$2" "$(sed -n 's/.*this system lacks .* On Debian: apt-get install //p' "$work/log")"
}

check_editable() { # ENVIRONMENT
  quietly "$1/bin/python" -m pip install --no-index --no-cache-dir --disable-pip-version-check -e .
  expect 'version of an editable installation' "skiffhost $version" "$(cd / && "$1/bin/skiffhost" --version)"
  expect 'source of an editable installation' "$PWD/host/skiffhost/loop.py" \
    "$(cd / && "$1/bin/python" -c 'import os, skiffhost.loop; print(os.path.realpath(skiffhost.loop.__file__))')"
  quietly "$1/bin/python" -m pip uninstall -y --disable-pip-version-check skiffport
}

check_wheel() { # INTERPRETER
  local digits name environment python site
  digits=$("$1" -c 'import sys; print("%d%d" % sys.version_info[:2])')
  name="the wheel for $digits" environment=$work/environment-$digits python=$work/environment-$digits/bin/python
  quietly "$1" -m venv "$environment"
  quietly "$python" -m pip install --no-index --no-cache-dir --disable-pip-version-check "$work/skiffport-$version.tar.gz"
  site=$(echo "$environment"/lib/python*/site-packages)
  expect "tag of $name" "Tag: cp$digits-cp$digits-linux_$(uname -m)" "$(grep ^Tag: "$site"/skiffport-*/WHEEL)"
  expect "metadata of $name" "skiffport $version >=3.8 True True" "$("$python" -c 'import sys
from importlib.metadata import metadata
found = metadata("skiffport")
classifier = "Programming Language :: Python :: %d.%d" % sys.version_info[:2]
body = found.get("Description") or found.get_payload()
print(found["Name"], found["Version"], found["Requires-Python"], classifier in found.get_all("Classifier"),
      body.startswith("# Skiffport") and bool(found["Summary"]))')"
  expect "library paths of $name" '$ORIGIN $ORIGIN/.. ' "$(check_files "$site")"
  expect "version of $name" "skiffhost $version" "$(cd / && "$environment/bin/skiffhost" --version)"
  mkdir "$work/$digits"
  publish "$work/$digits" "$work/$digits" "$python" -m skiffhost
  echo "ok: $name publishes"
  quietly "$python" -m pip uninstall -y --disable-pip-version-check skiffport
  expect "what is left of $name" '' "$(find "$environment/lib" "$environment/bin" -iname '*skiff*')"
}

quietly scripts/build --configure release
check_debian_package
check_sdist
while read -r interpreter; do
  check_wheel "$interpreter"
done <build/release/pythons.txt
environment=$work/environment
quietly /usr/bin/python3 -m venv "$environment"
check_editable "$environment"
check_refusal 'tools' 'cmake ninja-build swig pkg-config g++' env PATH=/nonexistent "$environment/bin/python"
check_refusal 'headers' 'libcurl4-openssl-dev libssl-dev libexpat1-dev libidn2-dev python3-dev' \
  unshare --mount bash -euc 'mount -t tmpfs none /usr/include && exec "$@"' - "$environment/bin/python"
