#!/usr/bin/env bash
# Installs a build into a scratch root as a package would, checks the tree,
# the bash completion and the systemd unit, then builds the Debian package and
# checks what it carries. Usage: test-install.sh BUILD_DIR VERSION
set -euo pipefail
build=$(cd "${1:?usage: test-install.sh BUILD_DIR VERSION}" && pwd)
version=${2:?usage: test-install.sh BUILD_DIR VERSION}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "test-install: $*" >&2; exit 1; }

DESTDIR=$scratch/root cmake --install "$build" --prefix /usr >/dev/null
usr=$scratch/root/usr
unit=lib/systemd/system/veltrane.service
completion=share/bash-completion/completions/veltrane
example=share/doc/veltrane/examples/default-profile.json
for f in bin/veltrane bin/veltrane-extension; do [ -x "$usr/$f" ] || fail "no program $f"; done
for f in $unit $completion $example; do [ -s "$usr/$f" ] || fail "no file $f"; done
grep -qx 'ExecStart=/usr/bin/veltrane run' "$usr/$unit" || fail "the unit does not run /usr/bin/veltrane"
"$usr/bin/veltrane" --help | grep -q '^Subcommands:' || fail "veltrane --help"

# The completion as bash runs it on TAB, against the staged program: verbs,
# subverbs and options, and only files after an option that takes a value.
bash -n "$usr/$completion"
while IFS='|' read -r words cur expected; do
  # shellcheck disable=SC2086 # the words are split on purpose
  got=$(bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _veltrane
                 echo "${COMPREPLY[*]}"' _ "$usr/$completion" "$usr/bin/veltrane" $words "$cur")
  [ "$got" = "$expected" ] || fail "completing '$words $cur': '$got', expected '$expected'"
done <<'CASES'
|pro|profile proxy
profile|sw|switch
events|--fo|--follow
events --limit||
env --json||bind
rule add --json-input -|--dis|--disabled
CASES

if command -v systemd-analyze >/dev/null; then
  # verify wants the program to exist: point a copy of the unit at the staged one.
  sed "s|^ExecStart=/usr/bin/|ExecStart=$usr/bin/|" "$usr/$unit" >"$scratch/veltrane.service"
  out=$(systemd-analyze verify "$scratch/veltrane.service" 2>&1) || fail "systemd-analyze verify: $out"
  ! grep -q veltrane <<<"$out" || fail "systemd-analyze verify: $out"
else
  echo "test-install: no systemd-analyze here; the unit is not verified"
fi

(cd "$build" && cpack -G DEB --config CPackConfig.cmake -B "$scratch/deb" >"$scratch/cpack.log" 2>&1) ||
  fail "cpack: $(cat "$scratch/cpack.log")"
deb=$scratch/deb/veltrane_${version}_$(dpkg --print-architecture).deb
[ -f "$deb" ] || fail "no $(basename "$deb"): $(ls "$scratch/deb")"
contents=$(dpkg-deb --contents "$deb")
for f in bin/veltrane bin/veltrane-extension $unit $completion $example; do
  grep -q " \./usr/$f\$" <<<"$contents" || fail "the package lacks /usr/$f"
done
dpkg-deb -f "$deb" Depends | grep -q 'libbpf1' || fail "no shared-library dependencies"
dpkg-deb -e "$deb" "$scratch/control"
grep -q '^ *getent group veltrane .*addgroup .*--system veltrane' "$scratch/control/postinst" ||
  fail "postinst makes no group veltrane"
! grep -hv '^ *#' "$scratch/control"/* |
  grep -Eq 'systemctl (--[a-z]+ )*(enable|start)|deb-systemd-helper (enable|update-state)' ||
  fail "a maintainer script enables or starts the service"
echo "test-install: ok"
