#!/usr/bin/env python3
"""Moves a group's EFI folder on a stick's second FAT32 partition with OVMF's own UEFI
Shell, through the application's ShellMoveEfiFolder run by the test-only
build/ShellMoveProbe.efi, and judges each stick afterwards by reading it back with mtools.

usage: shell_move.py [SCENARIO ...]   (default: all of them)

Each scenario boots a fresh two-partition stick: partition 1 holds the probe, a
startup.nsh that runs it and a group folder of its own that must stay untouched;
partition 2 holds "\\<serial>.uuid" and "\\efi\\efi_b". The probe leaves
\\shellmove_result.txt and \\velmaro_log.txt on partition 1.

  uuid           the volume is found by its marker through blkN: names: moved
  no-uuid        the volume is named by the shell's answer for its device path: moved
  active-exists  "\\efi\\microsoft" is there already: EFI_ALREADY_STARTED, nothing run
  zero-date      "\\efi\\efi_b" has no dates: OVMF's FAT driver refuses the times the
                 shell's mv passes back, so mv must run, fail and leave everything as it was

Sticks, serial transcripts and the log lines each scenario reads stay in build/e2e/.
"""
import os, re, struct, subprocess, sys, tempfile, time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402

PROBE = os.path.join(REPO, "build", "ShellMoveProbe.efi")
WORK = os.path.join(REPO, "build", "e2e")
QEMU_LIMIT = 40  # seconds; a boot with the move takes well under half of it under TCG
SECTOR = 512
# Two FAT32 partitions of 40 MiB each: with one sector per cluster both keep more
# clusters than FAT32's minimum.
P1_START, P1_SECTORS = 2048, 81920
P2_START, P2_SECTORS = P1_START + P1_SECTORS, 81920
IMAGE_SECTORS = P2_START + P2_SECTORS + 2048
BOOT_SERIAL = "0B007001"
MTOOLS_ENV = dict(os.environ, MTOOLS_SKIP_CHECK="1")

EFI_SUCCESS = 0
EFI_ALREADY_STARTED = 0x8000000000000014
EFI_ERROR_BIT = 0x8000000000000000

# What the stick's partition 2 holds before the move. The boot file is longer than a
# cluster and not a repetition of one, so a chain cut short or a cluster out of order
# shows in the bytes.
WIN_B = b"s-win-b group marker\r\n"
BOOTMGR = bytes((i * 7 + (i >> 9)) & 0xFF for i in range(3000))
WIN_C = b"s-win-c group marker\r\n"
# Partition 1 carries its own \efi\efi_b without the marker: a move that picked the boot
# volume would take it.
DECOY = b"s-win-a group on the boot volume\r\n"

LOG_KEYS = ("Shell Execute(", "Shell mv", "Shell blk mv", "BLK diag:", "Probe:", "ERRORE:")

results = []


def check(name, ok, detail=""):
    results.append(bool(ok))
    print(f"  {'PASS' if ok else 'FAIL'}: {name}" + ("" if ok or not detail else f" -- {detail}"))


def run(*argv):
    return subprocess.run(list(argv), capture_output=True, env=MTOOLS_ENV)


def fs(img, start):
    return f"{img}@@{start * SECTOR}"


def serial_of(img, start):
    """The FAT32 volume serial as blkid prints it, but lower case: "%04x-%04x"."""
    with open(img, "rb") as f:
        f.seek(start * SECTOR + 0x43)
        serial = struct.unpack("<I", f.read(4))[0]
    return f"{serial >> 16:04x}-{serial & 0xFFFF:04x}"


def put(img, start, path, data):
    with tempfile.NamedTemporaryFile() as tmp:
        tmp.write(data)
        tmp.flush()
        done = run("mcopy", "-i", fs(img, start), tmp.name, "::" + path)
    if done.returncode != 0:
        sys.exit(f"shell_move: mcopy {path}: {done.stderr.decode(errors='replace')}")


def mkdirs(img, start, *paths):
    done = run("mmd", "-i", fs(img, start), *("::" + p for p in paths))
    if done.returncode != 0:
        sys.exit(f"shell_move: mmd {paths}: {done.stderr.decode(errors='replace')}")


def read_back(img, start, path):
    done = run("mtype", "-i", fs(img, start), "::" + path)
    return done.stdout if done.returncode == 0 else None


def tree(img, start):
    """Every path on the volume, lower case, folders ending in '/'."""
    done = run("mdir", "-/", "-b", "-i", fs(img, start), "::/")
    return {line.strip()[3:].lower() for line in done.stdout.decode("latin-1").splitlines()
            if line.startswith("::/")}


class Fat32:
    """Just enough of a FAT32 volume in an image to find and rewrite a directory entry."""

    def __init__(self, img, start):
        self.img, self.base = img, start * SECTOR
        with open(img, "rb") as f:
            f.seek(self.base)
            boot = f.read(SECTOR)
        self.bps, self.spc = struct.unpack_from("<HB", boot, 11)
        reserved, fats = struct.unpack_from("<HB", boot, 14)
        fat_sectors, self.root = struct.unpack_from("<I", boot, 36)[0], struct.unpack_from("<I", boot, 44)[0]
        self.fat = self.base + reserved * self.bps
        self.data = self.fat + fats * fat_sectors * self.bps
        self.cluster_bytes = self.bps * self.spc

    def chain(self, cluster):
        with open(self.img, "rb") as f:
            while 2 <= cluster < 0x0FFFFFF8:
                yield cluster
                f.seek(self.fat + cluster * 4)
                cluster = struct.unpack("<I", f.read(4))[0] & 0x0FFFFFFF

    def entries(self, cluster):
        """(offset in the image, 32-byte short entry) of each live short entry."""
        with open(self.img, "rb") as f:
            for c in self.chain(cluster):
                at = self.data + (c - 2) * self.cluster_bytes
                f.seek(at)
                block = f.read(self.cluster_bytes)
                for i in range(0, len(block), 32):
                    entry = block[i:i + 32]
                    if entry[0] == 0:
                        return
                    if entry[0] != 0xE5 and entry[11] != 0x0F:
                        yield at + i, entry

    def find(self, path):
        cluster, found = self.root, None
        for part in path.strip("\\").split("\\"):
            want = part.upper().encode("ascii").ljust(11)
            found = next(((at, e) for at, e in self.entries(cluster) if e[0:11] == want), None)
            if found is None:
                return None
            hi, lo = struct.unpack_from("<H", found[1], 20)[0], struct.unpack_from("<H", found[1], 26)[0]
            cluster = (hi << 16) | lo
        return found

    def zero_dates(self, path):
        """Clears the creation, access and modification dates and times of path's entry."""
        found = self.find(path)
        if found is None:
            sys.exit(f"shell_move: no short entry for {path} in the image")
        at, entry = found
        entry = bytearray(entry)
        entry[13:20] = bytes(7)   # creation tenths, time, date; access date
        entry[22:26] = bytes(4)   # modification time and date
        with open(self.img, "r+b") as f:
            f.seek(at)
            f.write(entry)
        return bytes(entry)


def make_stick(img, serial, options, active_exists, zero_dated):
    if os.path.exists(img):
        os.remove(img)
    with open(img, "wb") as f:
        f.truncate(IMAGE_SECTORS * SECTOR)
    table = (f"start={P1_START}, size={P1_SECTORS}, type=c\n"
             f"start={P2_START}, size={P2_SECTORS}, type=c\n").encode()
    subprocess.run(["sfdisk", "-q", "--label", "dos", img], input=table, check=True)
    for start, sectors, label, volume_id in ((P1_START, P1_SECTORS, "VELMARO", BOOT_SERIAL),
                                             (P2_START, P2_SECTORS, "SOURCE", serial)):
        subprocess.run(["mkfs.fat", "-F", "32", "-s", "1", "-h", str(start), "--offset", str(start),
                        "-n", label, "-i", volume_id, img, str(sectors // 2)],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    uuid = serial_of(img, P2_START)

    with open(PROBE, "rb") as f:
        put(img, P1_START, "/ShellMoveProbe.efi", f.read())
    # The stick is the only disk: its first partition sorts first and is fs0:.
    script = ["@echo -off", "fs0:", "if exist \\ShellMoveProbe.efi then",
              f"  \\ShellMoveProbe.efi {options}", "endif", "echo \"cwd after the probe: %cwd%\"",
              "reset -s"]
    put(img, P1_START, "/startup.nsh", "".join(line + "\r\n" for line in script).encode())
    mkdirs(img, P1_START, "/efi", "/efi/efi_b")
    put(img, P1_START, "/efi/efi_b/s-win-a.txt", DECOY)

    put(img, P2_START, f"/{uuid}.uuid", b"")
    mkdirs(img, P2_START, "/efi", "/efi/efi_b", "/efi/efi_b/boot")
    put(img, P2_START, "/efi/efi_b/s-win-b.txt", WIN_B)
    put(img, P2_START, "/efi/efi_b/boot/bootmgfw.efi", BOOTMGR)
    if active_exists:
        mkdirs(img, P2_START, "/efi/microsoft")
        put(img, P2_START, "/efi/microsoft/s-win-c.txt", WIN_C)
    if zero_dated:
        Fat32(img, P2_START).zero_dates("\\efi\\efi_b")
    return uuid


def fsck(img, start, sectors):
    """fsck.fat's verdict on one partition, copied out of the image: (clean, report)."""
    with tempfile.NamedTemporaryFile() as part:
        with open(img, "rb") as f:
            f.seek(start * SECTOR)
            part.write(f.read(sectors * SECTOR))
        part.flush()
        done = subprocess.run(["fsck.fat", "-n", part.name], capture_output=True)
    report = (done.stdout + done.stderr).decode(errors="replace")
    return done.returncode == 0, report


def result_of(raw):
    """{key: value} of \\shellmove_result.txt."""
    if raw is None:
        return None
    return dict(line.partition("=")[::2] for line in raw.decode("ascii", "replace").splitlines() if "=" in line)


def status_code(result):
    match = re.search(r"0x([0-9A-Fa-f]+)$", (result or {}).get("status", ""))
    return int(match.group(1), 16) if match else None


def log_lines(img):
    raw = read_back(img, P1_START, "/velmaro_log.txt")
    if raw is None:
        return None
    text = raw.decode("utf-16-le", "replace")
    return [re.sub(r"^\[\+\d+ ms\] ", "", line) for line in text.split("\r\n")
            if any(key in line for key in LOG_KEYS)]


def mappings(console):
    """The shell's mapping table as it printed it at start: [(name, aliases, device path)]."""
    lines = console.replace("\r", "").split("\n")
    table = []
    for i, line in enumerate(lines):
        match = re.match(r"^\s*((?:FS|BLK)\d+): Alias\(s\):(.*)$", line)
        if match:
            table.append((match.group(1), match.group(2).strip(), lines[i + 1].strip() if i + 1 < len(lines) else ""))
        elif table and "Press ESC" in line:
            break
    return table


def moved_tree(uuid):
    return {f"{uuid}.uuid", "efi/", "efi/microsoft/", "efi/microsoft/boot/",
            "efi/microsoft/s-win-b.txt", "efi/microsoft/boot/bootmgfw.efi"}


def untouched_tree(uuid, active_exists):
    paths = {f"{uuid}.uuid", "efi/", "efi/efi_b/", "efi/efi_b/boot/",
             "efi/efi_b/s-win-b.txt", "efi/efi_b/boot/bootmgfw.efi"}
    if active_exists:
        paths |= {"efi/microsoft/", "efi/microsoft/s-win-c.txt"}
    return paths


def scenario(name, serial, with_uuid, active_exists=False, zero_dated=False):
    print(f"[{name}]")
    img = os.path.join(WORK, f"shell-move-{name}.img")
    started = time.monotonic()
    uuid = serial_of_text(serial)
    options = f"uuid={uuid}" if with_uuid else ""
    got_uuid = make_stick(img, serial, options, active_exists, zero_dated)
    check(f"partition 2 carries serial {uuid}", got_uuid == uuid, f"boot sector says {got_uuid}")
    if zero_dated:
        found = Fat32(img, P2_START).find("\\efi\\efi_b")
        check("\\efi\\efi_b's entry has no dates or times before the boot",
              found is not None and found[1][13:20] == bytes(7) and found[1][22:26] == bytes(4),
              found[1].hex() if found else "no entry")
    before = tree(img, P2_START)
    check("partition 2 holds the group before the boot",
          before == untouched_tree(uuid, active_exists), f"{sorted(before)}")

    boot = run_qemu.boot(img, QEMU_LIMIT, None, img + ".serial.txt", echo=False)
    print(f"  QEMU {boot['seconds']:.1f} s, scenario {time.monotonic() - started:.1f} s, "
          f"transcript {img}.serial.txt")
    check(f"QEMU powered off by itself within {QEMU_LIMIT} s", boot["powered_off"],
          "timed out" if boot["timed_out"] else f"exit {boot['returncode']}")

    result = result_of(read_back(img, P1_START, "/shellmove_result.txt"))
    check("the probe wrote \\shellmove_result.txt", result is not None)
    code = status_code(result)
    lines = log_lines(img)
    check("the probe's \\velmaro_log.txt is there", lines is not None)
    summary = {"status": (result or {}).get("status"), "source_map": (result or {}).get("source_map"),
               "boot_map": (result or {}).get("boot_map"), "mappings": mappings(boot["console"]),
               "log": lines or []}

    after = tree(img, P2_START)
    moves = [l for l in lines or [] if re.match(r"Shell Execute\((blk )?mv\)", l)]
    if active_exists:
        check("refused with EFI_ALREADY_STARTED", code == EFI_ALREADY_STARTED, f"status {summary['status']}")
        check("partition 2 is unchanged", after == untouched_tree(uuid, True), f"{sorted(after)}")
        check("the active folder keeps its marker", read_back(img, P2_START, "/efi/microsoft/s-win-c.txt") == WIN_C)
        check("no mv was run", lines is not None and not moves, f"log shows {moves}")
    elif zero_dated:
        # Only an mv that ran and failed says anything about the zero dates.
        check("the shell's mv was run", len(moves) == 1, f"mv lines {moves}")
        check("the move failed", code is not None and code & EFI_ERROR_BIT, f"status {summary['status']}")
        check("partition 2 is unchanged: the group folder whole, no active folder",
              after == untouched_tree(uuid, False), f"{sorted(after)}")
    else:
        check("EFI_SUCCESS", code == EFI_SUCCESS, f"status {summary['status']}")
        check("partition 2 holds the group under \\efi\\microsoft and nothing else",
              after == moved_tree(uuid), f"{sorted(after)}")
        check("the moved folder has one entry per name: no folder moved inside it",
              "efi/microsoft/efi_b/" not in after)
        check("\\efi\\microsoft\\s-win-b.txt keeps its bytes",
              read_back(img, P2_START, "/efi/microsoft/s-win-b.txt") == WIN_B)
        check("\\efi\\microsoft\\boot\\bootmgfw.efi keeps its bytes",
              read_back(img, P2_START, "/efi/microsoft/boot/bootmgfw.efi") == BOOTMGR)
        check("the log shows the move verified on a fresh root",
              lines is not None and any(l.startswith("Shell mv verified OK:") for l in lines))
    if not active_exists and after != moved_tree(uuid):
        check("\\efi\\efi_b\\s-win-b.txt keeps its bytes",
              read_back(img, P2_START, "/efi/efi_b/s-win-b.txt") == WIN_B)
        check("\\efi\\efi_b\\boot\\bootmgfw.efi keeps its bytes",
              read_back(img, P2_START, "/efi/efi_b/boot/bootmgfw.efi") == BOOTMGR)
    check("the boot volume's own \\efi\\efi_b is untouched",
          read_back(img, P1_START, "/efi/efi_b/s-win-a.txt") == DECOY)
    clean, report = fsck(img, P2_START, P2_SECTORS)
    check("fsck.fat finds partition 2 consistent", clean, report.strip().replace("\n", " | "))

    cwd = re.search(r"cwd after the probe: (.*)", boot["console"])
    summary["cwd"] = cwd.group(1).strip() if cwd else None
    with open(img + ".log-lines.txt", "w") as out:
        out.write("".join(line + "\n" for line in summary["log"]))
    print(f"  status: {summary['status']}")
    print(f"  GetMapFromDevicePath: partition 2 {summary['source_map']!r}, boot volume {summary['boot_map']!r}")
    for mapping, aliases, path in summary["mappings"]:
        print(f"  map: {mapping} ({aliases}) {path}")
    # The drive changes of the blk probe are many and alike: counted, not listed.
    changes = [l for l in summary["log"] if re.match(r"BLK diag: blk\d+: ", l)]
    if changes:
        answers = sorted({l.partition(" status=")[2] for l in changes})
        print(f"  log: {len(changes)} drive changes blk0:.. answered {answers}")
    for line in summary["log"]:
        if line not in changes:
            print(f"  log: {line}")
    print(f"  shell's cwd after the probe: {summary['cwd']}")
    print(f"  all log lines in {img}.log-lines.txt")
    summary["name"], summary["moves"] = name, moves
    return summary


def serial_of_text(serial):
    value = int(serial, 16)
    return f"{value >> 16:04x}-{value & 0xFFFF:04x}"


SCENARIOS = {
    # Each stick its own serial, with hex letters: the marker is named in lower case, as
    # blkid prints a FAT serial.
    "uuid": lambda: scenario("uuid", "5EC0A1B2", True),
    "no-uuid": lambda: scenario("no-uuid", "5EC0A1B3", False),
    "active-exists": lambda: scenario("active-exists", "5EC0A1B4", True, active_exists=True),
    "zero-date": lambda: scenario("zero-date", "5EC0A1B5", True, zero_dated=True),
}


def main():
    if not os.path.isfile(PROBE):
        sys.exit(f"shell_move: {PROBE} is missing; build it first with: bash scripts/build.sh")
    names = sys.argv[1:] or list(SCENARIOS)
    unknown = [n for n in names if n not in SCENARIOS]
    if unknown:
        sys.exit(f"shell_move: unknown scenario(s) {unknown}; known: {list(SCENARIOS)}")
    os.makedirs(WORK, exist_ok=True)
    started = time.monotonic()
    summaries = [SCENARIOS[name]() for name in names]
    print("[summary]")
    for summary in summaries:
        print(f"  {summary['name']}: {summary['status']}; mv: {summary['moves'] or 'not run'}")
    passed = sum(results)
    print(f"{passed} passed, {len(results) - passed} failed, {time.monotonic() - started:.1f} s")
    sys.exit(0 if results and all(results) else 1)


if __name__ == "__main__":
    main()
