#!/usr/bin/env python3
"""Multi-boot test sticks holding installer groups, for the QEMU scenarios (scenarios.py)
and make demo, built with make_stick.sh, sfdisk, mkfs.fat and mtools and read back with
mtools.

A group s-win-<x> has the names bcd_<x>, grp_<x> and efi_<x>: its BCD store (bytes of its
own), its backup and digest file in \\boot\\backup, a source folder with recovery.txt, its
marker-ID file, an install image and the stand-in installer as bootx64.efi, and an EFI
folder with a marker-ID file and a boot manager. The active group of a partition carries
"\\boot\\BCD", "\\sources" and "\\efi\\microsoft" instead. Partition 1 (FAT32, at 1 MiB)
holds \\Velmaro.efi and the entries file; partition 2, when asked for, is a sibling FAT32
partition at 64 MiB.

usage: sticks.py demo IMG OPTIONS      the demo stick: s-win-a active, s-win-b, s-win-c
       sticks.py show IMG [--log]      every partition's tree, the log, the installer's record
"""
import hashlib, os, re, subprocess, sys, tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(REPO, "build")
VELMARO, INSTALLER, DRIVER = (os.path.join(BUILD, f) for f in ("Velmaro.efi", "StandInInstaller.efi", "StandInDriver.efi"))
SECTOR = 512
OFFSETS = {1: 2048 * SECTOR}
P2_START, P2_SECTORS = 64 * 2048, 81920  # 40 MiB after make_stick.sh's 64: one sector per cluster keeps it FAT32
OFFSETS[2] = P2_START * SECTOR
MTOOLS_ENV = dict(os.environ, MTOOLS_SKIP_CHECK="1")
DIR = None  # what a folder reads as in a tree
STATE, ENTRIES, LOG = "boot/VELMARO.COM", "boot/NUR_VEL_EFI.COM", "velmaro_log.txt"
# Written by every boot, not by a switch: the log, the shell's status and the installer's record.
RUN_FILES = (LOG, "status.txt", "installer_ran.txt")
STAMP = re.compile(r"\[\+(\d{8}) ms\] ")


def run(*argv, data=None):
    """Runs a command that has to work; its output."""
    done = subprocess.run(argv, input=data, capture_output=True, env=MTOOLS_ENV)
    if done.returncode != 0:
        sys.exit(f"sticks: {' '.join(argv[:5])}: {done.stderr.decode(errors='replace')}")
    return done.stdout


def put(fs, files):
    """Files ("a/b/name": bytes) onto an mtools volume ("IMG@@OFFSET"), their folders first."""
    folders = sorted({"/".join(p.split("/")[:i]) for p in files for i in range(1, p.count("/") + 1)})
    if folders:  # a folder already there is skipped, and mmd then answers 1: mcopy tells a real failure
        subprocess.run(["mmd", "-D", "s", "-i", fs, *("::/" + d for d in folders)], capture_output=True, env=MTOOLS_ENV)
    for path, data in files.items():
        run("mcopy", "-o", "-i", fs, "-", "::/" + path, data=data)


def add_fat32(img, start, sectors, label, serial=None, new=False):
    """A FAT32 partition of sectors at sector start, with volume serial serial (8 hex
    digits) when given: appended to img's MBR, or alone on a new MBR stick. One sector per
    cluster keeps a small partition FAT32; -h records where it starts, as a partitioning
    tool would. Its mtools volume."""
    if new:
        open(img, "wb").close()
    os.truncate(img, max(os.path.getsize(img), (start + sectors) * SECTOR))
    run("sfdisk", "-q", *(["--label", "dos"] if new else ["--append"]), img, data=f"start={start}, size={sectors}, type=c\n".encode())
    run("mkfs.fat", "-F", "32", "-s", "1", "-h", str(start), "--offset", str(start), "-n", label,
        *(["-i", serial] if serial else []), img, str(sectors // 2))
    return f"{img}@@{start * SECTOR}"


def blob(seed, size):
    """size bytes that belong to seed alone, no run of them repeating within a cluster."""
    out, block = b"", seed.encode()
    while len(out) < size:
        block = hashlib.sha256(block).digest()
        out += block
    return out[:size]


def md5(data):
    return hashlib.md5(data).hexdigest()


def encode_entry(text):
    """An entries-file line: every byte bit-complemented, as two hex digits."""
    return "".join(f"{~b & 0xFF:02x}" for b in text.encode())


class Group:
    def __init__(self, letter, part=1):
        self.id, self.part = f"s-win-{letter}", part
        self.bcd, self.src, self.efi = f"bcd_{letter}", f"grp_{letter}", f"efi_{letter}"
        self.store = blob("BCD store of " + self.id, 6000)

    def entry(self):
        return f"ID:{self.id} BCD:{self.bcd} SRC:{self.src} EFI:{self.efi}"

    def record(self, uuid=None):
        """Its recovery record as the stick was prepared; with uuid, one the engine completed."""
        keys = [f"ID|{self.id}", f"SRC|{self.src}", f"BCD_MD5|{md5(self.store)}"]
        return "".join(k + "\r\n" for k in keys + ([f"SRC_PART|{uuid}", "SRC_FS|FAT32"] if uuid else [])).encode()

    def names(self, active):
        return ("BCD", "sources", "microsoft") if active else (self.bcd, self.src, self.efi)

    def files(self, active, record):
        bcd, src, efi = self.names(active)
        return {f"boot/{bcd}": self.store, f"boot/backup/{self.bcd}": self.store,
                f"boot/backup/{self.bcd}.md5": (md5(self.store) + "\r\n").encode(),
                f"{src}/recovery.txt": record, f"{src}/{self.id}.txt": b"",
                f"{src}/install.wim": blob("install image of " + self.id, 9000),
                f"{src}/bootx64.efi": open(INSTALLER, "rb").read(),
                f"efi/{efi}/{self.id}.txt": b"", f"efi/{efi}/boot/bootmgfw.efi": blob("boot manager of " + self.id, 3000)}


def folders_of(files):
    return {"/".join(p.split("/")[:i]) for p in files for i in range(1, p.count("/") + 1)}


def state_text(group, uuid):
    """The state file naming group, as the engine writes it after a switch."""
    return (f"BCD:c:\\boot\\{group.bcd}\r\nSRC:c:\\{group.src}\r\nEFI:c:\\efi\\{group.efi}\r\n"
            f"SRC_PART:{uuid}\r\nSRC_FS:FAT32\r\n").encode()


class Stick:
    """One image; partitions by number. Paths are lower case, "/"-separated, without a
    leading "/"; a folder's value in a tree is DIR."""

    def __init__(self, img, groups=(), parts=(1,)):
        self.img, self.groups, self.parts = img, list(groups), parts
        self.fixed = {p: {} for p in parts}  # what is no group's: the application, data files, markers
        self.debug = False

    def fs(self, part):
        return f"{self.img}@@{OFFSETS[part]}"

    def uuid(self, part):
        """The volume serial as the application writes it: "%04x-%04x"."""
        with open(self.img, "rb") as f:
            f.seek(OFFSETS[part] + 0x43)
            serial = int.from_bytes(f.read(4), "little")
        return f"{serial >> 16:04x}-{serial & 0xFFFF:04x}"

    def put(self, part, files):
        put(self.fs(part), files)

    def read(self, part, path):
        done = subprocess.run(["mtype", "-i", self.fs(part), "::/" + path], capture_output=True, env=MTOOLS_ENV)
        return done.stdout if done.returncode == 0 else None

    def tree(self, part, fold=True):
        """Every file (its bytes) and folder (DIR) of a partition; names folded to lower
        case, as FAT matches them, unless fold is False."""
        with tempfile.TemporaryDirectory(prefix="velmaro-tree-") as tmp:
            run("mcopy", "-s", "-n", "-i", self.fs(part), "::/", tmp)
            out = {}
            for top, dirs, files in os.walk(tmp):
                rel = os.path.relpath(top, tmp).replace(os.sep, "/")
                for name in dirs + files:
                    path = name if rel == "." else rel + "/" + name
                    full = os.path.join(top, name)
                    out[path.lower() if fold else path] = DIR if os.path.isdir(full) else open(full, "rb").read()
            return out

    def fsck(self, part):
        """fsck.fat's verdict on a partition, read-only: (consistent, its words)."""
        end = {1: P2_START * SECTOR, 2: (P2_START + P2_SECTORS) * SECTOR}[part]
        with tempfile.NamedTemporaryFile() as copy, open(self.img, "rb") as f:
            f.seek(OFFSETS[part])
            copy.write(f.read(end - OFFSETS[part]))
            copy.flush()
            done = subprocess.run(["fsck.fat", "-n", copy.name], capture_output=True)
        return done.returncode == 0, (done.stdout + done.stderr).decode(errors="replace").strip().replace("\n", " | ")

    def delete_run_files(self):
        for part in self.parts:
            for path in RUN_FILES:
                subprocess.run(["mdel", "-i", self.fs(part), "::/" + path], capture_output=True, env=MTOOLS_ENV)

    def set_options(self, options):
        """The next boot runs Velmaro with these load options."""
        run("bash", os.path.join(HERE, "make_stick.sh"), self.img, "--startup-only", "--options", options)
        self.fixed[1]["startup.nsh"] = self.read(1, "startup.nsh")

    def log(self):
        raw = self.read(1, LOG)
        return None if raw is None else raw.decode("utf-16-le", "replace")

    def model(self, active, fold=True):
        """Every partition's expected tree when active (a set of group IDs) carry the active
        names, the records as prepared; names folded to lower case unless fold is False."""
        trees = {p: dict(self.fixed[p]) for p in self.parts}
        for g in self.groups:
            trees[g.part].update(g.files(g.id in active, self.prepared[g.id]))
        for tree in trees.values():
            tree.update({d: DIR for d in folders_of(tree)})
        return {p: {k.lower() if fold else k: v for k, v in t.items()} for p, t in trees.items()}


def make(img, groups, active, options, gpt=False, sibling=False, state=True, complete=True, describe=(), driver=False,
         debug=False):
    """A fresh stick at img: groups (Group), active (IDs carrying the active
    names), load options; gpt labels it GPT; sibling adds partition 2; state writes the
    state file naming the active group of partition 1 (bytes: exactly these); complete
    gives records their SRC_PART and SRC_FS (always so on partition 2, where a record
    without them belongs to no volume); describe lists IDs whose group description file
    names partition 2's uuid marker; driver puts the stand-in driver at
    \\efi\\boot\\ntfs_x64.efi; debug puts the marker that turns the advanced diagnostics on."""
    os.makedirs(os.path.dirname(os.path.abspath(img)), exist_ok=True)
    run("bash", os.path.join(HERE, "make_stick.sh"), img, "--options", options, *(["--gpt"] if gpt else []))
    stick = Stick(img, groups, (1, 2) if sibling else (1,))
    if sibling:
        add_fat32(img, P2_START, P2_SECTORS, "SOURCE")
        stick.fixed[2][f"{stick.uuid(2)}.uuid"] = b""
    entries = "\r\n".join(encode_entry(t) for t in ["VELMARO ENTRIES"] + [g.entry() for g in groups]) + "\r\n"
    stick.fixed[1].update({"Velmaro.efi": open(VELMARO, "rb").read(), "startup.nsh": stick.read(1, "startup.nsh"),
                           ENTRIES: entries.encode()})
    for gid in describe:
        stick.fixed[1][f"boot/{gid}.txt"] = f"Gruppo {gid} di prova\r\n{gid}-src\r\n{stick.uuid(2)}.uuid\r\n".encode()
    if debug:
        stick.debug, stick.fixed[1]["boot/VELMARO_DEBUG.LOG"] = True, b"debug marker\n"
    if driver:
        stick.fixed[1]["efi/boot/ntfs_x64.efi"] = open(DRIVER, "rb").read()
    stick.prepared = {g.id: g.record(stick.uuid(g.part) if complete or g.part == 2 else None) for g in groups}
    current = [g for g in groups if g.id in active and g.part == 1]
    if isinstance(state, bytes):
        stick.fixed[1][STATE] = state
    elif state and current:
        stick.fixed[1][STATE] = state_text(current[0], stick.uuid(1))
    for part, tree in stick.model(set(active), fold=False).items():
        stick.put(part, {p: d for p, d in tree.items() if d is not DIR and p not in ("Velmaro.efi", "startup.nsh")})
    return stick


def show(stick, with_log=False):
    for part in stick.parts:
        print(f"-- partition {part} (FAT32, UUID {stick.uuid(part)}) --")
        tree = stick.tree(part, fold=False)
        for path in sorted(tree, key=lambda p: p.lower().split("/")):
            data = tree[path]
            depth, leaf = path.count("/"), path.split("/")[-1]
            print("   " + "  " * depth + (leaf + "/" if data is DIR else f"{leaf}  ({len(data)} bytes)"))
    if with_log:
        print("-- \\velmaro_log.txt (UTF-16LE) --")
        print((stick.log() or "(no log)").replace("\r\n", "\n"), end="")
        for part in stick.parts:
            record = stick.read(part, "installer_ran.txt")
            if record is not None:
                print(f"-- \\installer_ran.txt on partition {part} --\n" + record.decode(errors="replace").replace("\r\n", "\n"), end="")


def main():
    if len(sys.argv) >= 4 and sys.argv[1] == "demo":
        make(sys.argv[2], [Group("a"), Group("b"), Group("c")], {"s-win-a"}, sys.argv[3])
    elif len(sys.argv) >= 3 and sys.argv[1] == "show":
        parts = (1, 2) if os.path.getsize(sys.argv[2]) > P2_START * SECTOR else (1,)
        show(Stick(sys.argv[2], parts=parts), "--log" in sys.argv[3:])
    else:
        sys.exit(__doc__.split("\n\n")[-1])


if __name__ == "__main__":
    main()
