#!/usr/bin/env bash
# Builds build/Velmaro.efi with EDK II's own build (X64, GCC5) from the cached EDK II tree.
# The package is seen by EDK II through a small workspace under build/ whose VelmaroPkg
# entry points back at the repository.
set -euo pipefail
REPO="$(cd "$(dirname "$0")/.." && pwd)"
CACHE="${VELMARO_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/velmaro}"
EDK2="$CACHE/edk2"
TARGET="${VELMARO_TARGET:-RELEASE}"
[ -f "$EDK2/.velmaro-basetools" ] || "$REPO/scripts/setup.sh"

WS="$REPO/build/edk2-ws"
mkdir -p "$WS/Conf"
# One build at a time in this workspace: two at once would overwrite each other's objects.
exec 9>"$REPO/build/.build.lock"
flock 9
ln -sfn "$REPO" "$WS/VelmaroPkg"

export WORKSPACE="$WS"
export PACKAGES_PATH="$EDK2:$WS"
export EDK_TOOLS_PATH="$EDK2/BaseTools"
export CONF_PATH="$WS/Conf"
set +u
# shellcheck disable=SC1091
. "$EDK2/edksetup.sh" BaseTools >/dev/null
set -u
build -a X64 -t GCC5 -b "$TARGET" -p VelmaroPkg/VelmaroPkg.dsc -n "$(nproc)" >"$REPO/build/edk2-build.log" 2>&1 || {
  grep -E -A3 "error|Error|ERROR" "$REPO/build/edk2-build.log" | head -n 60 >&2
  echo "build: failed, full log in build/edk2-build.log" >&2
  exit 1
}
# The firmware runs no static constructors: an image that needs them would start with
# half-initialised globals, so refuse it here.
dll="$WS/Build/Velmaro/${TARGET}_GCC5/X64/VelmaroPkg/Velmaro/DEBUG/Velmaro.dll"
if objdump -h "$dll" | grep -qE '\.(init_array|ctors)'; then
  echo "build: Velmaro needs static constructors; the firmware would not run them" >&2
  exit 1
fi
cp "$WS/Build/Velmaro/${TARGET}_GCC5/X64/Velmaro.efi" "$REPO/build/Velmaro.efi"
# The test-only file probe (tests/probe/) for the QEMU file-table scenario; never for sticks.
cp "$WS/Build/Velmaro/${TARGET}_GCC5/X64/FileProbe.efi" "$REPO/build/FileProbe.efi"
# The test-only shell-move probe (tests/probe/) for tests/e2e/shell_move.py; never for sticks.
cp "$WS/Build/Velmaro/${TARGET}_GCC5/X64/ShellMoveProbe.efi" "$REPO/build/ShellMoveProbe.efi"
# The test-only driver probe and the driver that starts and does nothing (tests/probe/) for
# tests/e2e/driver_loading.py; never for sticks.
cp "$WS/Build/Velmaro/${TARGET}_GCC5/X64/DriverProbe.efi" "$REPO/build/DriverProbe.efi"
cp "$WS/Build/Velmaro/${TARGET}_GCC5/X64/StandInDriver.efi" "$REPO/build/StandInDriver.efi"
cp "$WS/Build/Velmaro/${TARGET}_GCC5/X64/StandInInstaller.efi" "$REPO/build/StandInInstaller.efi"  # every test group's bootx64.efi
echo "build: $REPO/build/Velmaro.efi"
