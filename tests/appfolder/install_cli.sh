#!/usr/bin/env bash
# install_cli.sh BUILD: installs BUILD into a temporary prefix (nothing is
# built), checks what landed where, validates the desktop entry, then runs
# the installed pyrolink-cli against the installed pyrolink-sim as a fresh
# user whose tables come from the application folder seeded on first run.
set -euo pipefail
build=$1
tmp=$(mktemp -d)
sim=
cleanup() {
  [ -n "$sim" ] && kill "$sim" 2>/dev/null && wait "$sim" 2>/dev/null
  chmod -R u+w "$tmp" 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

prefix=$tmp/usr
cmake --install "$build" --prefix "$prefix" > "$tmp/install.log" || { cat "$tmp/install.log"; fail "cmake --install"; }
for f in bin/pyrolink bin/pyrolink-cli bin/pyrolink-sim \
         share/pyrolink/Config.For share/pyrolink/Display.For share/pyrolink/Config.MPK \
         share/pyrolink/demo-firmware.BIN share/pyrolink/Pyrolink_UG.PDF \
         share/applications/pyrolink.desktop \
         share/icons/hicolor/16x16/apps/pyrolink.png share/icons/hicolor/24x24/apps/pyrolink.png \
         share/icons/hicolor/32x32/apps/pyrolink.png share/icons/hicolor/48x48/apps/pyrolink.png \
         share/icons/hicolor/256x256/apps/pyrolink.png \
         share/doc/pyrolink/copyright share/doc/pyrolink/changelog.Debian.gz share/doc/pyrolink/README.Debian; do
  [ -s "$prefix/$f" ] || fail "$f not installed"
done
ls "$prefix/bin" | grep -qv '^pyrolink\(-cli\|-sim\)\?$' && fail "more than the three programs in bin: $(ls "$prefix/bin")"
command -v desktop-file-validate >/dev/null || fail "desktop-file-validate missing (scripts/setup installs desktop-file-utils)"
desktop-file-validate "$prefix/share/applications/pyrolink.desktop" || fail "desktop entry"

# The installed folders as the installation left them: nothing run below
# may change them.
chmod -R a-w "$prefix"
before=$(cd "$prefix" && find . -printf '%p %s %T@\n' | sort)

export HOME=$tmp/alice XDG_DATA_HOME=$tmp/alice/.local/share
mkdir -p "$HOME"
appdir=$XDG_DATA_HOME/pyrolink
"$prefix/bin/pyrolink-sim" --link COM7 --no-pace --no-stdin > "$tmp/sim.log" 2>&1 &
sim=$!
for _ in $(seq 100); do grep -q '^ready' "$tmp/sim.log" && break; sleep 0.1; done
grep -q '^ready' "$tmp/sim.log" || { cat "$tmp/sim.log"; fail "pyrolink-sim not ready"; }
[ -L "$appdir/COM7" ] || fail "--link COM7 did not land in $appdir"
for f in Config.For Display.For Config.MPK demo-firmware.BIN; do
  cmp -s "$appdir/$f" "$prefix/share/pyrolink/$f" || fail "$f not seeded into $appdir"
done

# The tables through the application folder: no --config, no --display.
out=$("$prefix/bin/pyrolink-cli" params read --port COM7 --out "$tmp/block.bin" 2>&1) || fail "params read: $out"
[ -s "$tmp/block.bin" ] || fail "params read wrote no block"
out=$("$prefix/bin/pyrolink-cli" burn --port COM7 --file "$appdir/demo-firmware.BIN" -q 2>&1) || fail "burn: $out"
ls "$HOME/ProRecord(K0)/"*"(K0).csv" >/dev/null 2>&1 || fail "no chip record in $HOME/ProRecord(K0)"

# A user whose folder can't be made is told which and why.
mkdir -p "$tmp/bob" && : > "$tmp/bob/share"
set +e
out=$(HOME=$tmp/bob XDG_DATA_HOME=$tmp/bob/share "$prefix/bin/pyrolink-cli" params read --port COM7 2>&1)
code=$?
set -e
[ "$code" -ne 0 ] || fail "params read with no application folder exited 0"
grep -q "the application folder $tmp/bob/share/pyrolink can't be made" <<<"$out" || fail "no clear message: $out"

after=$(cd "$prefix" && find . -printf '%p %s %T@\n' | sort)
[ "$before" = "$after" ] || fail "the installed folders changed: $(diff <(echo "$before") <(echo "$after"))"
echo "installed into $prefix, seeded $appdir, read and burned through COM7"
