#!/usr/bin/env bash
# The Debian packages as a board's user gets them. The amd64 ones are installed with apt (so
# that what they depend on comes too) and their shell, found on the PATH, runs a scripted
# session whose dump Debian's python3 reads with the installed module, after streaming;
# the manual pages are found. The arm64 ones are unpacked and the same session runs their
# programs, and the arm64 root's python3 with their module, under qemu, with the root's
# libraries. Whatever the test installed is removed again.
# Usage: packages.sh SHELL_AMD64.deb PYTHON_AMD64.deb SHELL_ARM64.deb PYTHON_ARM64.deb
set -euo pipefail
here=$(dirname "$0")
usage="usage: $0 SHELL_AMD64.deb PYTHON_AMD64.deb SHELL_ARM64.deb PYTHON_ARM64.deb"
[ $# -eq 4 ] || { echo "$usage" >&2; exit 2; }
amd64=("$(realpath "$1")" "$(realpath "$2")")
arm64=("$(realpath "$3")" "$(realpath "$4")")
arm_root=${LUMORA_ARM_ROOT:-/var/cache/lumora/arm64-root}
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
installed() { dpkg-query -W -f='${db:Status-Abbrev} ${binary:Package}\n' | awk '$1 == "ii" { print $2 }' | sort; }

for package in lumora-shell python3-lumora; do
  if dpkg-query -W -f='${Status}' $package 2>/dev/null | grep -q ' installed$'; then
    echo "FAIL: $package is already installed here; the test would replace it" >&2
    exit 1
  fi
done
work=$(mktemp -d)
installed >"$work/before"
cleanup() {
  installed >"$work/after"
  mapfile -t added < <(comm -13 "$work/before" "$work/after")
  [ ${#added[@]} -eq 0 ] || $sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -o DPkg::Lock::Timeout=600 -y -qq "${added[@]}" >/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -o DPkg::Lock::Timeout=600 -y -qq --no-install-recommends "${amd64[@]}" >/dev/null
for page in lumora-shell lmr; do
  man -w "$page" >/dev/null || { echo "FAIL: no manual page $page" >&2; exit 1; }
done
bash "$here/session.sh" "$(command -v lumora-shell)" "$(command -v lmr)" /usr/bin/python3

for deb in "${arm64[@]}"; do dpkg-deb -x "$deb" "$work/arm64"; done
QEMU_LD_PREFIX=$arm_root PYTHONPATH=$work/arm64/usr/lib/python3/dist-packages bash "$here/session.sh" \
  "$work/arm64/usr/bin/lumora-shell" "$work/arm64/usr/bin/lmr" "$arm_root/usr/bin/python3"
echo "packages: passed"
