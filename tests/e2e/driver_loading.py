#!/usr/bin/env python3
"""Loads a file-system driver the way the application does, on OVMF, through the test-only
build/DriverProbe.efi (MountNtfsSource with advanced diagnostics), and judges the facts its
log shows. The driver is build/StandInDriver.efi, which starts and mounts nothing: the
sibling FAT32 partitions are mounted by OVMF's own FAT driver.

usage: driver_loading.py [--host DIR] [SCENARIO ...]   (default: all of them)

  sibling         p1: probe and driver, p2 FAT32: loaded from the app's device, p2 chosen
  two-siblings    p2 and p3 FAT32: loaded, EFI_ALREADY_STARTED, nothing chosen
  missing-driver  no driver file anywhere: every attempt finds no file
  not-an-image    the driver file holds text and the stick nothing else: every form refused
  other-usb       the driver only on a second USB stick: loaded from that file system

With --host, the same facts are read from the host suite's logs (DriverTableTest writes
DIR/host-driver-<scenario>.log) and every fact the fake firmware answers otherwise fails.
The OVMF side then reuses a scenario's transcript when it is newer than the probe, the
driver and this script. Sticks and transcripts stay in build/e2e/.
"""
import argparse, os, re, subprocess, sys

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402
from sticks import add_fat32, put  # noqa: E402

PROBE = os.path.join(REPO, "build", "DriverProbe.efi")
DRIVER = os.path.join(REPO, "build", "StandInDriver.efi")
WORK = os.path.join(REPO, "build", "e2e")
QEMU_LIMIT = 40  # seconds; a boot with the probe takes well under half of it under TCG
PART_SECTORS = 81920  # 40 MiB partitions
OK, UNSUPPORTED, NOT_FOUND, ALREADY_STARTED = "0x0", "0x8000000000000003", "0x800000000000000E", "0x8000000000000014"
STAMP = re.compile(r"^\[\+\d+ ms\] ")
ATTEMPT = re.compile(r"^Tentativo driver (?:dal device dell'app|da filesystem USB (\d+)), parent candidate (\d+)/(\d+):")
STEP = re.compile(r"^ +(LoadImage\([^)]*\)|StartImage\(driver\)|Root->Open\(driver\)) *: .*\((0x[0-9A-Fa-f]+)\)$")
TAIL = [("load failure", re.compile(r"^ERRORE: driver NTFS non caricato: .*\((0x[0-9A-Fa-f]+)\)")),
        ("file systems before connecting", re.compile(r"^Prima Shell ConnectAllEfi: SimpleFS=(\d+) ")),
        ("polls", re.compile(r"^map -r: SOURCE FS visibile dopo refresh, tentativo=(\d+)")),
        ("siblings seen at once", re.compile(r"^ERRORE: fallback SimpleFS ambiguo: (\d+) partizioni")),
        ("final status", re.compile(r"^DriverProbe: status .*\((0x[0-9A-Fa-f]+)\), partition")),
        ("partition", re.compile(r"^DriverProbe: status .*, partition (\w+)$"))]


def facts(text):
    """Every fact of one probe log, in log order: each attempt (where, which parent), each
    form's, the driver file's and StartImage's status in it, the attempt and form that
    started the driver, the parent count, the load failure, the file systems before the
    connection, the polls, the siblings seen at once, the final status and the partition."""
    found, attempt, started = {}, 0, None
    for raw in text.splitlines():
        line = STAMP.sub("", raw.rstrip("\r"))
        if m := ATTEMPT.match(line):
            attempt += 1
            where = "app device" if m.group(1) is None else f"usb fs {m.group(1)}"
            found[f"attempt {attempt}"] = f"{where}, parent {m.group(2)}"
            found["parent candidates"] = m.group(3)
        elif (m := STEP.match(line)) and attempt:
            found[f"attempt {attempt} {m.group(1)}"] = m.group(2).upper().replace("0X", "0x")
            if m.group(1).startswith("LoadImage") and found[f"attempt {attempt} {m.group(1)}"] == OK:
                started = f"attempt {attempt} {m.group(1)}"
        elif line == "NTFS_DRIVER: started OK":
            found["started"] = started or "<no form loaded it>"
        for name, pattern in TAIL:
            if m := pattern.match(line):
                found[name] = m.group(1).upper().replace("0X", "0x") if m.group(1).startswith("0x") else m.group(1)
    return found


def add_fat(img, number, label, files=None, new=False):
    """Partition `number`, 40 MiB of FAT32 with files: on a new stick at 1 MiB, else after
    make_stick.sh's 64 MiB."""
    start = 2048 if new else 64 * 2048 + (number - 2) * PART_SECTORS
    put(add_fat32(img, start, PART_SECTORS, label, new=new), files or {})


def ovmf_log(name, layout, reuse):
    """The serial console of one boot of the scenario's stick(s), or of an earlier boot."""
    img = os.path.join(WORK, f"driver-{name}.img")
    transcript = img + ".serial.txt"
    newest = max(os.path.getmtime(p) for p in (PROBE, DRIVER, os.path.abspath(__file__)))
    if reuse and os.path.isfile(transcript) and os.path.getmtime(transcript) > newest:
        print(f"  OVMF transcript of an earlier boot: {transcript}")
        return run_qemu.ANSI.sub(b"", open(transcript, "rb").read()).decode("latin-1")
    subprocess.run(["bash", os.path.join(HERE, "make_stick.sh"), img, "--efi", PROBE], check=True, stdout=subprocess.DEVNULL)
    driver = {"efi/boot/ntfs_x64.efi": open(DRIVER, "rb").read()}
    put(img + "@@1M", {"driver": driver, "text": {"efi/boot/ntfs_x64.efi": b"not an image, only text\r\n" * 40}}.get(layout["p1"], {}))
    for number in range(2, 2 + layout["siblings"]):
        add_fat(img, number, f"SIBLING{number}")
    extra = []
    if layout.get("other"):
        extra = [os.path.join(WORK, f"driver-{name}-other.img")]
        add_fat(extra[0], 1, "DRIVERS", driver, new=True)
    boot = run_qemu.boot(img, QEMU_LIMIT, None, transcript, echo=False, extra_sticks=extra)
    print(f"  QEMU {boot['seconds']:.1f} s, transcript {transcript}")
    check(f"QEMU powered off by itself within {QEMU_LIMIT} s", boot["powered_off"], "timed out" if boot["timed_out"] else f"exit {boot['returncode']}")
    return boot["console"]


results = []


def check(name, ok, detail=""):
    results.append(bool(ok))
    print(f"  {'PASS' if ok else 'FAIL'}: {name}" + ("" if ok or not detail else f" -- {detail}"))


def attempts(f):
    return [f[k] for k in f if re.fullmatch(r"attempt \d+", k)]


def judge(name, f):
    """What OVMF must show in each scenario."""
    tried = attempts(f)
    forms = {k.split(" ", 2)[2]: v for k, v in f.items() if re.match(r"attempt \d+ LoadImage", k)}
    check("the probe printed its final line", "final status" in f and "partition" in f)
    check("the shell is the second parent candidate", f.get("parent candidates") == "2", f.get("parent candidates"))
    if name in ("sibling", "two-siblings"):
        check("loaded by path from the app's device with the app as parent, and started",
              tried == ["app device, parent 1"] and f.get("started") == "attempt 1 LoadImage(path)"
              and f.get("attempt 1 StartImage(driver)") == OK, f"{f}")
        check("found at the first poll" if name == "sibling" else "both siblings seen at the first poll, no poll taken",
              (f.get("polls"), f.get("siblings seen at once")) == (("0", None) if name == "sibling" else (None, "2")), f"{f}")
        want = (OK, "2") if name == "sibling" else (ALREADY_STARTED, "none")
        check(f"status {want[0]}, partition {want[1]}", (f.get("final status"), f.get("partition")) == want, f"{f}")
    elif name == "missing-driver":
        check("both parents tried on the app's device, then on the sibling (the second file system)",
              tried == ["app device, parent 1", "app device, parent 2", "usb fs 1, parent 1", "usb fs 1, parent 2"], f"{tried}")
        check("every attempt: no file by path, none to read", set(forms) == {"LoadImage(path)"} and set(forms.values()) == {NOT_FOUND}
              and all(f.get(f"attempt {i} Root->Open(driver)") == NOT_FOUND for i in range(1, len(tried) + 1)), f"{f}")
        check("the load failure and the final status are EFI_NOT_FOUND, nothing chosen",
              (f.get("load failure"), f.get("final status"), f.get("partition")) == (NOT_FOUND, NOT_FOUND, "none"), f"{f}")
    elif name == "not-an-image":
        check("both parents tried, each with all three forms", tried == ["app device, parent 1", "app device, parent 2"]
              and all(f"attempt {i} {form}" in f for i in (1, 2) for form in ("LoadImage(path)", "LoadImage(buffer+path)", "LoadImage(buffer,no path)")), f"{f}")
        # The DXE core's PE/COFF loader finds no image header: EFI_UNSUPPORTED, whatever the form.
        check("every form refused with EFI_UNSUPPORTED, nothing started", set(forms.values()) == {UNSUPPORTED}
              and "started" not in f and not any("StartImage" in k for k in f), f"{f}")
        check("the last form's refusal is the load failure and the final status",
              f.get("load failure") == f.get("final status") == f.get("attempt 2 LoadImage(buffer,no path)") and f.get("partition") == "none", f"{f}")
    elif name == "other-usb":
        check("the app's device tried first with both parents", tried[:2] == ["app device, parent 1", "app device, parent 2"], f"{tried}")
        check("loaded by path from another USB file system with the app as parent, and started",
              tried[-1].startswith("usb fs") and tried[-1].endswith("parent 1") and f.get("started") == f"attempt {len(tried)} LoadImage(path)", f"{f}")
        check("p2 chosen at the first poll, EFI_SUCCESS",
              (f.get("polls"), f.get("final status"), f.get("partition")) == ("0", OK, "2"), f"{f}")


LAYOUTS = {"sibling": {"p1": "driver", "siblings": 1}, "two-siblings": {"p1": "driver", "siblings": 2},
           "missing-driver": {"p1": None, "siblings": 1}, "not-an-image": {"p1": "text", "siblings": 0},
           "other-usb": {"p1": None, "siblings": 1, "other": True}}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", metavar="DIR", help="compare with DIR/host-driver-<scenario>.log")
    parser.add_argument("scenarios", nargs="*", default=list(LAYOUTS))
    args = parser.parse_args()
    if any(n not in LAYOUTS for n in args.scenarios):
        sys.exit(f"driver_loading: unknown scenario in {args.scenarios}; known: {list(LAYOUTS)}")
    for path in (PROBE, DRIVER):
        if not os.path.isfile(path):
            sys.exit(f"driver_loading: {path} is missing; build it first with: bash scripts/build.sh")
    os.makedirs(WORK, exist_ok=True)
    for name in args.scenarios:
        print(f"[{name}]")
        ovmf = facts(ovmf_log(name, LAYOUTS[name], args.host is not None))
        print("  OVMF: " + "; ".join(f"{k}={v}" for k, v in ovmf.items()))
        judge(name, ovmf)
        if args.host:
            path = os.path.join(args.host, f"host-driver-{name}.log")
            binary = os.path.join(args.host, "host_tests")
            if not os.path.isfile(path) or (os.path.isfile(binary) and os.path.getmtime(path) < os.path.getmtime(binary)):
                check(f"{path} is written by the host suite's last build", False, "run the host suite first")
                continue
            host = facts(open(path, "rb").read().decode("utf-8", "replace"))
            differ = [k for k in dict.fromkeys(list(ovmf) + list(host)) if ovmf.get(k) != host.get(k)]
            for k in differ:
                print(f"  DIFFERS {k}: ovmf {ovmf.get(k, '<none>')}, fake {host.get(k, '<none>')}")
            check(f"the fake firmware shows all {len(ovmf)} facts as OVMF does", not differ, ", ".join(differ))
    print(f"{sum(results)} passed, {len(results) - sum(results)} failed")
    sys.exit(0 if results and all(results) else 1)


if __name__ == "__main__":
    main()
