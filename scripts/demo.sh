#!/usr/bin/env bash
# Builds Velmaro, puts it on a sample stick (build/demo/stick.img) that runs it with the
# group ID s-win-demo, boots the stick in QEMU with its console on this terminal, then
# shows the log the run left on the stick.
set -euo pipefail
REPO="$(cd "$(dirname "$0")/.." && pwd)"
IMG="$REPO/build/demo/stick.img"

bash "$REPO/scripts/build.sh"
mkdir -p "$REPO/build/demo"
bash "$REPO/tests/e2e/make_stick.sh" "$IMG" --options s-win-demo
python3 "$REPO/tests/e2e/run_qemu.py" "$IMG" --timeout 60 \
  --answer-key-on "Premere un tasto per continuare"

export MTOOLS_SKIP_CHECK=1
echo
echo "---- \\velmaro_log.txt read back from the stick ----"
# The log is UTF-16LE with CR LF line ends; show it as plain text.
mtype -i "$IMG@@1M" ::/velmaro_log.txt \
  | python3 -c 'import sys; sys.stdout.write(sys.stdin.buffer.read().decode("utf-16-le").replace("\r\n", "\n"))'
# The shell writes the status with a byte-order mark; the utf-16 codec drops it.
echo "---- status recorded by the shell: $(mtype -i "$IMG@@1M" ::/status.txt \
  | python3 -c 'import sys; print(sys.stdin.buffer.read().decode("utf-16").strip())') ----"
