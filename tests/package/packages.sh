#!/usr/bin/env bash
# The Debian packages as a board's user gets them. The amd64 one is installed with apt (so
# that what it depends on comes too) and its shell, found on the PATH, runs a scripted
# session; its manual pages are found. The arm64 one is unpacked and the same session runs
# its programs under qemu, with the arm64 root's libraries. Whatever the test installed is
# removed again. Usage: packages.sh AMD64.deb ARM64.deb
set -euo pipefail
here=$(dirname "$0")
amd64=$(realpath "${1:?usage: $0 AMD64.deb ARM64.deb}")
arm64=$(realpath "${2:?usage: $0 AMD64.deb ARM64.deb}")
arm_root=${LUMORA_ARM_ROOT:-/var/cache/lumora/arm64-root}
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
installed() { dpkg-query -W -f='${db:Status-Abbrev} ${binary:Package}\n' | awk '$1 == "ii" { print $2 }' | sort; }

if dpkg-query -W -f='${Status}' lumora-shell 2>/dev/null | grep -q ' installed$'; then
  echo "FAIL: lumora-shell is already installed here; the test would replace it" >&2
  exit 1
fi
work=$(mktemp -d)
installed >"$work/before"
cleanup() {
  installed >"$work/after"
  mapfile -t added < <(comm -13 "$work/before" "$work/after")
  [ ${#added[@]} -eq 0 ] || $sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -o DPkg::Lock::Timeout=600 -y -qq "${added[@]}" >/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -o DPkg::Lock::Timeout=600 -y -qq --no-install-recommends "$amd64" >/dev/null
for page in lumora-shell lmr; do
  man -w "$page" >/dev/null || { echo "FAIL: no manual page $page" >&2; exit 1; }
done
bash "$here/session.sh" "$(command -v lumora-shell)" "$(command -v lmr)"

dpkg-deb -x "$arm64" "$work/arm64"
QEMU_LD_PREFIX=$arm_root bash "$here/session.sh" "$work/arm64/usr/bin/lumora-shell" "$work/arm64/usr/bin/lmr"
echo "packages: passed"
