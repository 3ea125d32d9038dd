#!/usr/bin/env bash
# Makes a raw MBR stick image: one FAT32 partition (type 0x0c) at 1 MiB holding
# \Velmaro.efi and a \startup.nsh that runs it and records its status in \status.txt.
# Usage: make_stick.sh OUT.img [--debug] [--options "LOAD OPTIONS"] [--efi PATH]
set -euo pipefail
REPO="$(cd "$(dirname "$0")/../.." && pwd)"
usage() { echo "usage: $0 OUT.img [--debug] [--options \"LOAD OPTIONS\"] [--efi PATH]" >&2; exit 2; }

[ $# -ge 1 ] || usage
OUT="$1"; shift
EFI="$REPO/build/Velmaro.efi"
OPTIONS=""
DEBUG=0
while [ $# -gt 0 ]; do
  case "$1" in
    --debug) DEBUG=1; shift ;;
    --options) [ $# -ge 2 ] || usage; OPTIONS="$2"; shift 2 ;;
    --efi) [ $# -ge 2 ] || usage; EFI="$2"; shift 2 ;;
    *) usage ;;
  esac
done
[ -f "$EFI" ] || { echo "make_stick: $EFI not found (run scripts/build.sh)" >&2; exit 1; }

SIZE_MIB=64
START=2048                                  # 1 MiB in 512-byte sectors
SECTORS=$(( SIZE_MIB * 2048 - START ))
rm -f "$OUT"
truncate -s "${SIZE_MIB}M" "$OUT"
echo "start=$START, size=$SECTORS, type=c" | sfdisk -q --label dos "$OUT"
# -s 1 keeps enough clusters for FAT32 on a small partition; -h records where the
# partition starts, as a partitioning tool would on a real stick.
mkfs.fat -F 32 -s 1 -h "$START" --offset "$START" -n VELMARO "$OUT" $(( SECTORS / 2 )) >/dev/null

export MTOOLS_SKIP_CHECK=1
FS="$OUT@@1M"
mcopy -i "$FS" "$EFI" ::/Velmaro.efi

# The stick is the only disk, so it should be fs0:; the check keeps a different
# mapping from running nothing silently. The shell writes the status redirect as
# UTF-16LE with a byte-order mark.
TMP="$(mktemp -d)"
trap 'rm -rf "$TMP"' EXIT
printf '%s\r\n' \
  '@echo -off' \
  'fs0:' \
  'if not exist \Velmaro.efi then' \
  '  fs1:' \
  'endif' \
  'if exist \Velmaro.efi then' \
  "  \\Velmaro.efi $OPTIONS" \
  '  echo %lasterror% > \status.txt' \
  'else' \
  '  echo "Velmaro.efi not found on fs0: or fs1:"' \
  'endif' \
  'reset -s' > "$TMP/startup.nsh"
mcopy -i "$FS" "$TMP/startup.nsh" ::/startup.nsh

if [ "$DEBUG" = 1 ]; then
  echo "debug marker" > "$TMP/VELMARO_DEBUG.LOG"
  mmd -i "$FS" ::/boot
  mcopy -i "$FS" "$TMP/VELMARO_DEBUG.LOG" ::/boot/VELMARO_DEBUG.LOG
fi
echo "make_stick: $OUT"
