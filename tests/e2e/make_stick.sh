#!/usr/bin/env bash
# Makes a raw MBR stick image: one FAT32 partition (type 0x0c) at 1 MiB holding
# \Velmaro.efi and a \startup.nsh that runs it and records its status in \status.txt.
# --gpt labels the stick GPT instead (one basic-data partition at the same place).
# --startup-only rewrites only \startup.nsh of an existing stick, for the next boot's options.
# Usage: make_stick.sh OUT.img [--gpt] [--startup-only] [--options "LOAD OPTIONS"] [--efi PATH]
set -euo pipefail
REPO="$(cd "$(dirname "$0")/../.." && pwd)"
usage() { echo "usage: $0 OUT.img [--gpt] [--startup-only] [--options \"LOAD OPTIONS\"] [--efi PATH]" >&2; exit 2; }

[ $# -ge 1 ] || usage
OUT="$1"; shift
EFI="$REPO/build/Velmaro.efi"
OPTIONS=""
LABEL=dos
STARTUP_ONLY=0
while [ $# -gt 0 ]; do
  case "$1" in
    --gpt) LABEL=gpt; shift ;;
    --startup-only) STARTUP_ONLY=1; shift ;;
    --options) [ $# -ge 2 ] || usage; OPTIONS="$2"; shift 2 ;;
    --efi) [ $# -ge 2 ] || usage; EFI="$2"; shift 2 ;;
    *) usage ;;
  esac
done
export MTOOLS_SKIP_CHECK=1
FS="$OUT@@1M"
if [ "$STARTUP_ONLY" = 0 ]; then
  [ -f "$EFI" ] || { echo "make_stick: $EFI not found (run scripts/build.sh)" >&2; exit 1; }
  SIZE_MIB=64
  START=2048                                  # 1 MiB in 512-byte sectors
  # GPT keeps a backup table in the last 33 sectors: the partition ends 1 MiB earlier.
  SECTORS=$(( SIZE_MIB * 2048 - START ))
  TYPE=c
  if [ "$LABEL" = gpt ]; then SECTORS=$(( SECTORS - 2048 )); TYPE=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7; fi
  rm -f "$OUT"
  truncate -s "${SIZE_MIB}M" "$OUT"
  echo "start=$START, size=$SECTORS, type=$TYPE" | sfdisk -q --label "$LABEL" "$OUT"
  # -s 1 keeps enough clusters for FAT32 on a small partition; -h records where the
  # partition starts, as a partitioning tool would on a real stick.
  mkfs.fat -F 32 -s 1 -h "$START" --offset "$START" -n VELMARO "$OUT" $(( SECTORS / 2 )) >/dev/null
  mcopy -i "$FS" "$EFI" ::/Velmaro.efi
fi

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
mcopy -o -i "$FS" "$TMP/startup.nsh" ::/startup.nsh

echo "make_stick: $OUT"
