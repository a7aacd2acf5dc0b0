#!/usr/bin/env bash
# Builds the Debian package, installs it with dpkg, checks the installed programs, their manual
# pages and the completion, runs the demo against them and removes the package again (also when
# a check fails). Then builds the Windows zip from the windows preset's build.
#   bash scripts/package-check.sh            # both
#   bash scripts/package-check.sh deb        # the Debian package only
# Needs root (or sudo) for dpkg, and a machine where no other package named "kest" is installed.
set -euo pipefail
cd "$(dirname "$0")/.."
SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
version=$(sed -n 's/^project(kest VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "no project version in CMakeLists.txt" >&2; exit 2; }
fail() { echo "package check failed: $*" >&2; exit 1; }

cmake --workflow --preset deb >/dev/null
deb=build/demo/kest_${version}_$(dpkg --print-architecture).deb
[ -f "$deb" ] || fail "no package $deb"
echo "== $deb"
dpkg-deb --field "$deb" Package Version Depends
# Dependencies come from what the programs link: today only the C library.
depends=$(dpkg-deb --field "$deb" Depends)
[[ $depends == libc6* ]] || fail "unexpected dependencies: $depends"
listing=$(dpkg-deb --contents "$deb")
for f in usr/bin/kest_client usr/bin/kest_refserver usr/share/man/man1/kest_client.1 \
    usr/share/man/man1/kest_refserver.1 usr/share/bash-completion/completions/kest_client \
    usr/share/doc/kest/README.md usr/share/doc/kest/LICENSE; do
  grep -q " \./$f\$" <<<"$listing" || fail "$f is not in the package"
done

# Images that drop manual pages at install time would make `man -w` fail below.
if grep -qs '^path-exclude.*/usr/share/man' /etc/dpkg/dpkg.cfg.d/*; then
  fail "dpkg is set to skip manual pages (path-exclude in /etc/dpkg/dpkg.cfg.d/)"
fi
status() { dpkg-query -W -f '${db:Status-Status}' kest 2>/dev/null || true; }
[ "$(status)" != installed ] ||
  fail "a package named kest is installed already; remove it first (dpkg -r kest)"
installed=1
trap '[ "$installed" = 0 ] || $SUDO dpkg -r kest >/dev/null' EXIT
$SUDO dpkg -i "$deb" >/dev/null
[ "$(status)" = installed ] || fail "dpkg -i did not install kest"

echo "== installed"
/usr/bin/kest_client -v
[ "$(/usr/bin/kest_client -v | sed -n 2p)" = "kest-vs9-OPTXPROF-64(branches/zn2.50) built on Oct 19 2012 01:09:04 with Microsoft Compiler version 1500" ] ||
  fail "kest_client -v"
[ "$(/usr/bin/kest_refserver --version)" = "kest_refserver $(dpkg-query -W -f '${Version}' kest)" ] ||
  fail "kest_refserver --version does not name the package's version"
for page in kest_client kest_refserver; do
  path=$(man -w "$page") || fail "man -w $page"
  echo "man -w $page: $path"
  [ "$path" = "/usr/share/man/man1/$page.1" ] || [ "$path" = "/usr/share/man/man1/$page.1.gz" ] ||
    fail "man -w $page found $path, not the package's page"
done
bash -c '. /usr/share/bash-completion/completions/kest_client && complete -p kest_client' >/dev/null ||
  fail "the completion does not load"

echo "== demo against /usr/bin"
bash scripts/demo.sh /usr/bin

$SUDO dpkg -r kest >/dev/null
installed=0
[ "$(status)" != installed ] && [ ! -e /usr/bin/kest_client ] && [ ! -e /usr/share/man/man1/kest_client.1 ] ||
  fail "dpkg -r left files behind"
echo "== removed"

if [ "${1:-all}" != deb ]; then
  cmake --preset windows >/dev/null
  cmake --build --preset windows -j2 --target kest_client kest_refserver >/dev/null
  cpack --preset windows >/dev/null
  zip=build/windows/kest-${version}-win64.zip
  [ -f "$zip" ] || fail "no archive $zip"
  contents=$(cmake -E tar tf "$zip")
  for f in kest_client.exe kest_refserver.exe LICENSE README.md; do
    grep -q "/$f\$" <<<"$contents" || fail "$f is not in $zip"
  done
  echo "== $zip"
  echo "$contents"
fi
echo "package check passed"
