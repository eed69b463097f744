# The builds the suite and the packages are made from, for scripts/test and scripts/package.
jobs=$(nproc)
arm_root=${LUMORA_ARM_ROOT:-/var/cache/lumora/arm64-root}
# Cross-built against the arm64 root; the benchmarks time the host, not the board.
arm_options=(-DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake "-DLUMORA_ARM_ROOT=$arm_root" -DLUMORA_BUILD_BENCH=OFF)
# Arm programs run through qemu, which finds their libraries in the root. It does not look
# there for paths that Qt tests with statx, so Qt is told where its plugins are.
arm_run=(env "QEMU_LD_PREFIX=$arm_root" "QT_PLUGIN_PATH=$arm_root/usr/lib/aarch64-linux-gnu/qt5/plugins")

configure_and_build() {
  local dir=$1
  shift
  echo "== $dir"
  cmake -S . -B "$dir" -G Ninja --no-warn-unused-cli -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}
