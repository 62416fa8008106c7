#!/usr/bin/env bash
# Installs the Debian packages the build needs (as root), or says which are missing.
# Usage: deps.sh build|test|fuzz|soak
set -eu
packages="cmake make g++ binutils openjdk-17-jdk-headless"
if [ "${1:-build}" = test ] || [ "${1:-build}" = soak ]; then
  packages="$packages libgtest-dev libgmock-dev junit5 libasm-java libtomcat9-java ant"
fi
if [ "${1:-build}" = soak ]; then
  # The soak's server compiles its page at run time with the Eclipse compiler (which
  # libtomcat9-java depends on today).
  packages="$packages libeclipse-jdt-core-java"
fi
if [ "${1:-build}" = test ] || [ "${1:-build}" = fuzz ]; then
  # The suite runs short fuzzing runs; libFuzzer's runtime comes with compiler-rt, packaged apart
  # from clang itself.
  packages="$packages clang-14 libclang-rt-14-dev"
fi
missing=""
for package in $packages; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing="$missing $package"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing Debian packages:$missing (run as root to install them, or: sudo apt-get install$missing)" >&2
  exit 1
fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing >/dev/null
