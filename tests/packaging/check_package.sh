#!/bin/sh
# The Debian package as an administrator meets it: cpack builds it from the install rules; its
# control fields name what it needs; it holds the program, the plugin (and the link where a Debian
# Firebird server looks for plugins), the consumer's headers and libraries, the service units and
# the example configuration; unpacked into a scratch root, its fbcdc prints its version and drives
# its own plugin, and systemd accepts its units.
set -eu
build=$1
version=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "package: $*"; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/cpack" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$work"/cpack/fbcdc_*.deb)

[ "$(dpkg-deb -f "$deb" Package)" = fbcdc ] || fail "Package is not fbcdc"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "Version is not $version"
depends=$(dpkg-deb -f "$deb" Depends)
for needed in libfbclient2 librdkafka1 libhiredis libprometheus-cpp-core adduser libstdc++6; do
  case "$depends" in *"$needed"*) ;; *) fail "Depends lacks $needed: $depends" ;; esac
done

dpkg-deb -c "$deb" >"$work/contents"
for path in ./usr/bin/fbcdc ./usr/lib/libfbcdc.so \
  "./usr/lib/x86_64-linux-gnu/firebird/3.0/plugins/libfbcdc.so -> ../../../../libfbcdc.so" \
  ./usr/lib/libfbcdc_decoder.a ./usr/lib/libfbcdc_blockfile.a ./usr/include/fbcdc/LogDecoder.h \
  ./usr/lib/systemd/system/fbcdc-follow@.service ./usr/lib/systemd/system/fbcdc-apply@.service \
  ./usr/share/fbcdc/example.conf; do
  grep -qF " $path" "$work/contents" || fail "no $path in the package"
done
dpkg-deb -e "$deb" "$work/control"
sh -n "$work/control/postinst" || fail "postinst is not a valid script"

root="$work/root"
dpkg-deb -x "$deb" "$root"
[ "$("$root/usr/bin/fbcdc" --version)" = "fbcdc $version" ] || fail "fbcdc --version"
[ -f "$(readlink -f "$root/usr/lib/x86_64-linux-gnu/firebird/3.0/plugins/libfbcdc.so")" ] ||
  fail "the plugin link leads nowhere"
"$root/usr/bin/fbcdc" capture --database "$work/source.fdb" --output "$work/logs" \
  --transactions 10 >/dev/null || fail "the packaged fbcdc did not drive its plugin"
"$root/usr/bin/fbcdc" verify "$work/logs" >/dev/null || fail "the packaged plugin's logs"

# systemd reads the units as it would on the machine, with the program where the unpacked package
# has it (the one change to the units' text).
if command -v systemd-analyze >/dev/null; then
  mkdir -p "$work/units"
  for unit in fbcdc-follow@.service fbcdc-apply@.service; do
    sed "s|/usr/bin/fbcdc|$root/usr/bin/fbcdc|" "$root/usr/lib/systemd/system/$unit" >"$work/units/$unit"
    # A setting it cannot parse is only a warning to systemd, and ignored: any word fails here.
    systemd-analyze verify --man=no "$work/units/$unit" >"$work/verify.log" 2>&1 &&
      [ ! -s "$work/verify.log" ] || { cat "$work/verify.log"; fail "systemd-analyze refused $unit"; }
  done
fi
# The services log with levels the journal reads.
for unit in fbcdc-follow@.service fbcdc-apply@.service; do
  grep -qx 'SyslogLevelPrefix=yes' "$root/usr/lib/systemd/system/$unit" || fail "$unit: no SyslogLevelPrefix"
done

# Installed by dpkg into a scratch root with a database of its own: dpkg unpacks it, records its
# files and removes them again. Only the unpacking: the postinst makes a system user, which a scratch
# root without a system of its own cannot (the install on a real machine: docs/operating.md).
inst="$work/inst"
mkdir -p "$inst/var/lib/dpkg/info" "$inst/var/lib/dpkg/updates"
: >"$inst/var/lib/dpkg/status"
dpkg --root="$inst" --force-not-root --force-depends --force-script-chrootless --unpack "$deb" \
  >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg could not unpack it"; }
[ "$(dpkg --root="$inst" -s fbcdc | sed -n 's/^Status: //p')" = "install ok unpacked" ] ||
  fail "dpkg does not know it as unpacked"
[ "$("$inst/usr/bin/fbcdc" --version)" = "fbcdc $version" ] || fail "the installed fbcdc --version"
dpkg --root="$inst" -L fbcdc | grep -qx /usr/lib/systemd/system/fbcdc-follow@.service ||
  fail "dpkg's file list lacks the follow unit"
dpkg --root="$inst" --force-not-root --force-depends --force-script-chrootless --purge fbcdc \
  >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg could not remove it"; }
[ ! -e "$inst/usr/bin/fbcdc" ] || fail "dpkg left /usr/bin/fbcdc behind"

# Every dependency is one apt can install from the machine's sources: a fresh Debian 12 pulls them.
if [ -n "$(ls /var/lib/apt/lists/ 2>/dev/null | grep _Packages)" ]; then
  apt-get install --simulate --no-install-recommends "$deb" >"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log"; fail "apt cannot install its dependencies"; }
else
  echo "package: no apt lists here (apt-get update not run): dependencies not resolved"
fi
echo "$(basename "$deb"): $(wc -l <"$work/contents") entries, checked"
