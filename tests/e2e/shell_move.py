#!/usr/bin/env python3
"""Moves a group's \\efi\\efi_b to \\efi\\microsoft on a stick's second FAT32 partition with
the firmware shell's mv, through the application's ShellMoveEfiFolder run by the test-only
build/ShellMoveProbe.efi, and judges each stick afterwards by reading it back with mtools.

usage: shell_move.py [SCENARIO ...]   (default: all of them)

Each scenario boots a fresh stick from make_stick.sh (the probe on partition 1, with a
decoy \\efi\\efi_b without the marker that must stay untouched) plus a partition 2 holding
"\\<serial>.uuid" and the group's \\efi\\efi_b:

  uuid           the volume is found by its marker through blkN: names: moved
  no-uuid        the volume is named by the shell's answer for its device path: moved
  active-exists  \\efi\\microsoft is there already: EFI_ALREADY_STARTED, no mv run
  zero-date      \\efi\\efi_b has no dates: OVMF's FAT driver refuses the times mv passes
                 back, so mv must run, fail and leave everything as it was

Sticks and serial transcripts stay in build/e2e/.
"""
import os, re, subprocess, sys

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402
from sticks import DIR, P2_SECTORS, P2_START, SECTOR, Stick, add_fat32, folders_of, put, run  # noqa: E402

PROBE = os.path.join(REPO, "build", "ShellMoveProbe.efi")
WORK = os.path.join(REPO, "build", "e2e")
QEMU_LIMIT = 40  # seconds; a boot with the move takes well under half of it under TCG
P1 = "@@1M"  # make_stick.sh's partition fills the first 64 MiB; partition 2 follows it
EFI_SUCCESS, EFI_ALREADY_STARTED, EFI_ERROR_BIT = 0, 0x8000000000000014, 0x8000000000000000

WIN_B = b"s-win-b group marker\r\n"
# Longer than a cluster and no repetition of one: a chain cut short or out of order shows.
BOOTMGR = bytes((i * 7 + (i >> 9)) & 0xFF for i in range(3000))
WIN_C = b"s-win-c group marker\r\n"
DECOY = b"s-win-a group on the boot volume\r\n"

results = []


def check(name, ok, detail=""):
    results.append(bool(ok))
    print(f"  {'PASS' if ok else 'FAIL'}: {name}" + ("" if ok or not detail else f" -- {detail}"))


def files_of(uuid, moved, active_exists):
    """Partition 2's tree as Stick.tree reads it: the group under the active or its own name."""
    group = "microsoft" if moved else "efi_b"
    files = {f"{uuid}.uuid": b"", f"efi/{group}/s-win-b.txt": WIN_B, f"efi/{group}/boot/bootmgfw.efi": BOOTMGR}
    files |= {"efi/microsoft/s-win-c.txt": WIN_C} if active_exists else {}
    return files | {d: DIR for d in folders_of(files)}


def make_stick(img, uuid, options, active_exists, zero_dated):
    subprocess.run(["bash", os.path.join(HERE, "make_stick.sh"), img, "--efi", PROBE, "--options", options],
                   check=True, stdout=subprocess.DEVNULL)
    p2 = add_fat32(img, P2_START, P2_SECTORS, "SOURCE", serial=uuid.replace("-", ""))
    put(img + P1, {"efi/efi_b/s-win-a.txt": DECOY})
    put(p2, {p: d for p, d in files_of(uuid, False, active_exists).items() if d is not DIR})
    if zero_dated:  # creation tenths, time and date, access date; modification time and date
        with open(img, "r+b") as f:
            f.seek(P2_START * SECTOR)
            part = f.read(P2_SECTORS * SECTOR)
            hits = [m.start() for m in re.finditer(rb"EFI_B      \x10", part) if m.start() % 32 == 0]
            if len(hits) != 1:
                sys.exit(f"shell_move: {len(hits)} short entries for \\efi\\efi_b on partition 2")
            for at, size in ((13, 7), (22, 4)):
                f.seek(P2_START * SECTOR + hits[0] + at)
                f.write(bytes(size))
    return p2


def scenario(name, serial, with_uuid, active_exists=False, zero_dated=False):
    print(f"[{name}]")
    img = os.path.join(WORK, f"shell-move-{name}.img")
    uuid = f"{serial[:4]}-{serial[4:]}".lower()  # as blkid prints a FAT serial
    given = uuid if with_uuid else ""
    p2 = make_stick(img, uuid, given and f"uuid={given}", active_exists, zero_dated)
    stick = Stick(img, parts=(1, 2))
    if zero_dated:
        listing = run("mdir", "-i", p2, "::/efi").decode("latin-1")
        check("\\efi\\efi_b has no date before the boot", re.search(r"^efi_b +<DIR> +1980-00-00 +0:00", listing, re.M),
              listing)
    before = stick.tree(2)
    check("partition 2 holds the group before the boot", before == files_of(uuid, False, active_exists), f"{sorted(before)}")

    boot = run_qemu.boot(img, QEMU_LIMIT, None, img + ".serial.txt", echo=False)
    check(f"QEMU powered off by itself within {QEMU_LIMIT} s ({boot['seconds']:.1f} s)", boot["powered_off"],
          "timed out" if boot["timed_out"] else f"exit {boot['returncode']}")

    log = (stick.read(1, "velmaro_log.txt") or b"").decode("utf-16-le", "replace")
    status = re.search(r"Probe: uuid \"(.*)\", status .* \(0x([0-9A-Fa-f]+)\)", log)
    check("the probe logged its status in \\velmaro_log.txt", status, f"log {log[-300:]!r}")
    code = int(status.group(2), 16) if status else None
    check(f"the probe read uuid {given or 'none'}", status and status.group(1) == given)
    moves = re.findall(r"Shell Execute\((?:blk )?mv\)[^\r\n]*", log)
    check("no mv was run" if active_exists else "the shell's mv was run once",
          len(moves) == (0 if active_exists else 1), f"mv lines {moves}")
    if active_exists:
        check("refused with EFI_ALREADY_STARTED", code == EFI_ALREADY_STARTED, f"status 0x{code or 0:x}")
    elif zero_dated:
        check("the move failed", code is not None and code & EFI_ERROR_BIT, f"status 0x{code or 0:x}")
    else:
        check("EFI_SUCCESS", code == EFI_SUCCESS, f"status 0x{code or 0:x}")
        check("the log shows the move verified on a fresh root", "Shell mv verified OK:" in log)

    moved = not active_exists and not zero_dated
    want, after = files_of(uuid, moved, active_exists), stick.tree(2)
    differ = sorted(p for p in set(want) | set(after) if want.get(p, "<absent>") != after.get(p, "<absent>"))
    check("partition 2 holds " + ("the group under \\efi\\microsoft" if moved else "what it held before")
          + ", every file with its bytes, and nothing else", not differ, f"differ: {differ}")
    check("the boot volume's own \\efi\\efi_b is untouched", stick.read(1, "efi/efi_b/s-win-a.txt") == DECOY)
    check("fsck.fat finds partition 2 consistent", *stick.fsck(2))


SCENARIOS = {  # each stick its own serial, with hex letters: the marker is named in lower case
    "uuid": lambda: scenario("uuid", "5EC0A1B2", True),
    "no-uuid": lambda: scenario("no-uuid", "5EC0A1B3", False),
    "active-exists": lambda: scenario("active-exists", "5EC0A1B4", True, active_exists=True),
    "zero-date": lambda: scenario("zero-date", "5EC0A1B5", True, zero_dated=True),
}


def main():
    if not os.path.isfile(PROBE):
        sys.exit(f"shell_move: {PROBE} is missing; build it first with: bash scripts/build.sh")
    names = sys.argv[1:] or list(SCENARIOS)
    if any(n not in SCENARIOS for n in names):
        sys.exit(f"shell_move: unknown scenario in {names}; known: {list(SCENARIOS)}")
    os.makedirs(WORK, exist_ok=True)
    for name in names:
        SCENARIOS[name]()
    print(f"{sum(results)} passed, {len(results) - sum(results)} failed")
    sys.exit(0 if results and all(results) else 1)


if __name__ == "__main__":
    main()
