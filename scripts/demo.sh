#!/usr/bin/env bash
# Builds Velmaro and a sample stick (build/demo/stick.img) with three installer groups,
# s-win-a active, s-win-b and s-win-c under their own names, each with a stand-in for the
# installer's boot program. Boots it in QEMU switching to s-win-b, then again switching back
# to s-win-a, and after each boot shows the stick, the log Velmaro left on it and the line
# the started installer printed.
set -euo pipefail
REPO="$(cd "$(dirname "$0")/.." && pwd)"
DEMO="$REPO/build/demo"
IMG="$DEMO/stick.img"
E2E="$REPO/tests/e2e"

bash "$REPO/scripts/build.sh"
mkdir -p "$DEMO"
python3 "$E2E/sticks.py" demo "$IMG" s-win-b
echo
echo "==== the stick before: s-win-a active (\\boot\\BCD, \\sources, \\efi\\microsoft) ===="
python3 "$E2E/sticks.py" show "$IMG"

boot() {  # boot N GROUP: boots the stick, whose startup.nsh runs Velmaro with GROUP
  echo
  echo "==== boot $1: Velmaro.efi $2 (UEFI Shell, startup.nsh) ===="
  python3 "$E2E/run_qemu.py" "$IMG" --timeout 60 --quiet --transcript "$DEMO/boot$1.serial.txt" \
    --answer-key-on "Premere un tasto per continuare" --answer-delay 1
  echo
  echo "==== the stick after boot $1 ===="
  python3 "$E2E/sticks.py" show "$IMG" --log
  echo "==== the installer started by Velmaro said ===="
  grep -a "STAND-IN INSTALLER" "$DEMO/boot$1.serial.txt" | tr -d '\r' || echo "(no installer was started)"
}

boot 1 s-win-b
# The load options of the next boot: a new \startup.nsh, written with mtools.
bash "$E2E/make_stick.sh" "$IMG" --startup-only --options s-win-a >/dev/null
boot 2 s-win-a
