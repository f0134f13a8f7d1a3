#!/bin/sh
# Installs the Debian packages the build, the tests and the demo need; quiet when all are there.
set -eu
packages="build-essential cmake ninja-build pkg-config dpkg-dev systemd firebird-dev libfbclient2
firebird3.0-server-core libgtest-dev libgmock-dev libbenchmark-dev libisal-dev binutils valgrind
libcli11-dev rapidjson-dev librdkafka-dev libhiredis-dev redis-server clang libfuzzer-14-dev
libclang-rt-14-dev prometheus-cpp-dev prometheus stunnel4 firebird3.0-server openssl"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
sudo=""
[ "$(id -u)" = 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
# shellcheck disable=SC2086
$sudo apt-get install -y -qq --no-install-recommends $missing
