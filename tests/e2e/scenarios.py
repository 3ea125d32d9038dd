#!/usr/bin/env python3
"""Switches installer groups on test sticks with build/Velmaro.efi on OVMF, and judges each
stick afterwards by reading it back: every group's BCD store, source folder and EFI folder
whole and once, under the active names or its own; nothing else added or lost; the state
file; the log's key lines; which installer ran (the stand-in writes \\installer_ran.txt and
prints one console line).

usage: scenarios.py [SCENARIO ...]   (default: all of them, in this order)

  first-boot         no state file, s-win-a active by names, records without partition keys: to s-win-b
  switch-back        s-win-a -> s-win-b -> s-win-a on the same stick
  already-active     s-win-a requested while active: nothing but the run's own files written
  unknown-id         an ID the entries file lacks, advanced diagnostics on: error, key wait, nothing changed
  no-group-id        no load options: the error and the key wait are the whole log, nothing changed
  wrong-bcd          s-win-a active under a \\boot\\BCD of no group: repaired, the wrong one kept as BCD_BAK
  sibling            s-win-b on a sibling FAT32 partition 2 (EFI folder moved by the shell's mv), and back
  gpt                s-win-a -> s-win-b on a GPT stick
  cut-run            a run cut after the state file's reset: the next run converges
  ntfs-test          the test driver over a FAT32 partition 2: written and renamed on real firmware
  ntfs-test-no-driver  no driver anywhere: error, key wait, nothing changed

Each boot prints the application's time by the log's stamps and QEMU's wall time; a summary
table follows. Sticks and serial transcripts stay in build/e2e/.
"""
import os, re, sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402
from sticks import (DIR, DRIVER, INSTALLER, LOG, RUN_FILES, STAMP, STATE, VELMARO, Group, blob, make, md5,  # noqa: E402
                    state_text)

WORK = os.path.join(os.path.dirname(os.path.dirname(HERE)), "build", "e2e")
QEMU_LIMIT = 50  # seconds; a switch boots in well under half of it under TCG
KEY_PROMPT, KEY_PAUSE = "Premere un tasto per continuare", 1.0
OK, NOT_FOUND = "Success (0x0)", "Not Found (0x800000000000000E)"
END = "=== Velmaro log end ===\n"
START, HEAD = "\n\n=== Velmaro log start ===\n", ["Velmaro UEFI\n", "Target: X64\n"]
DIAGNOSTICS = {False: "Advanced diagnostics: disabled\n", True: "Advanced diagnostics: enabled by \\boot\\VELMARO_DEBUG.LOG\n"}
DATE = re.compile(r"Data/ora firmware log: (\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d) timezone=(-?\d+) daylight=0x[0-9A-Fa-f]+\n")
# The shell's %lasterror% clears the top bit of a failing EFI status.
SHELL_OK, SHELL_NOT_FOUND = "0x0", "0xE"
WRITE_TEST = b"Velmaro UEFI write test OK"

results, rows = [], []


def check(name, ok, detail=""):
    results.append(bool(ok))
    print(f"  {'PASS' if ok else 'FAIL'}: {name}" + ("" if ok or not detail else f" -- {detail}"))
    return ok


def boot(stick, label, options=None, answers=0, status=SHELL_OK):
    """One boot of the stick (with new load options when given); the log's messages
    (CR LF read as LF) and the serial console. Checks what every log must be, whatever
    the run did: UTF-16LE without a byte-order mark, CR LF line ends, one stamp opening
    every message, stamps that never decrease and count the key wait, the banner, every
    stamped line also on the console, and the end line."""
    if options is not None:
        stick.set_options(options)
    stick.delete_run_files()  # nothing an earlier boot left may answer for this one
    done = run_qemu.boot(stick.img, QEMU_LIMIT, KEY_PROMPT, f"{stick.img}.{label}.serial.txt", echo=False,
                         answer_delay=KEY_PAUSE)
    raw = stick.read(1, LOG) or b""
    text = raw.decode("utf-16-le", "replace")
    parts = STAMP.split(text)
    stamps, messages = [int(s) for s in parts[1::2]], [m.replace("\r\n", "\n") for m in parts[2::2]]
    app_ms = stamps[-1] - stamps[0] if stamps else None
    rows.append([label, app_ms, done["seconds"], len(results)])
    print(f"  [{label}] application {app_ms} ms by the log's stamps, QEMU {done['seconds']:.1f} s, "
          f"transcript {stick.img}.{label}.serial.txt")
    check(f"QEMU powered off by itself within {QEMU_LIMIT} s", done["powered_off"],
          "timed out" if done["timed_out"] else f"exit {done['returncode']}")
    check(f"the key prompt was answered {answers} time(s)", done["answers"] == answers, f"answered {done['answers']}")
    raw_status = stick.read(1, "status.txt")
    shell = raw_status and raw_status.decode("utf-16" if raw_status.startswith(b"\xff\xfe") else "ascii", "replace").strip()
    check(f"the shell recorded status {status}", shell == status, f"status.txt says {shell!r}")
    check("the log is UTF-16LE without a byte-order mark, every line ending CR LF",
          raw and not raw.startswith(b"\xff\xfe") and text.endswith("\r\n") and not re.search(r"\r(?!\n)|(?<!\r)\n", text))
    check("a stamp opens every message and stamps never decrease", parts[0] == "" and stamps == sorted(stamps)
          and all(m.endswith("\n") for m in messages), f"stamps {stamps[:12]}, log starts {text[:40]!r}")
    date = DATE.fullmatch(messages[2]) if len(messages) > 2 else None
    check("the banner: log start, diagnostics, a plausible firmware date, name and target",
          messages[:2] == [START, DIAGNOSTICS[stick.debug]] and date and plausible(date) and messages[3:5] == HEAD,
          f"{messages[:5]}")
    prompt = [i for i, m in enumerate(messages) if KEY_PROMPT in m]
    if prompt and prompt[0] + 1 < len(stamps):
        # The key came KEY_PAUSE after the prompt at the earliest, so the next stamp shows it.
        waited = stamps[prompt[0] + 1] - stamps[prompt[0]]
        check(f"the stamps count the {KEY_PAUSE:g} s key wait", waited >= KEY_PAUSE * 1000, f"{waited} ms")
    console = done["console"].replace("\r\n", "\n")
    missing = [m for s, m in zip(stamps, messages) if f"[+{s:08d} ms] {m}"[:300] not in console]
    check("the console showed every stamped line", not missing, f"{missing[:3]}")
    check("the log is complete: it ends with the end line", messages[-1:] == [END], f"log ends {text[-200:]!r}")
    return messages, done["console"]


def plausible(date):
    year, month, day, hour, minute, second, tz = (int(g) for g in date.groups())
    return (year >= 2000 and 1 <= month <= 12 and 1 <= day <= 31 and hour < 24 and minute < 60 and second < 60
            and (-1440 <= tz <= 1440 or tz == 2047))


def lines_in_order(messages, wanted, absent=()):
    """The log holds every wanted message verbatim, in this order, and none of absent."""
    at = 0
    for want in wanted:
        found = next((i for i in range(at, len(messages)) if messages[i] == want), None)
        if not check(f"log: {want.strip()!r}", found is not None, "missing" + (" after the previous line" if at else "")):
            return
        at = found + 1
    for line in absent:
        check(f"log has no {line.strip()!r}", line not in messages)


def record_grew(old, new, uuid, digest):
    """A recovery record may only have grown at its end by keys it lacked, with the
    volume's own values."""
    if new is None or not new.startswith(old) or not new.endswith(b"\r\n" if new != old else b""):
        return False
    allowed = {b"SRC_PART|": uuid.encode(), b"SRC_FS|": b"FAT32", b"BCD_MD5|": digest.encode()}
    added = new[len(old):].split(b"\r\n")[:-1]
    keys = [a.split(b"|")[0] + b"|" for a in added]
    return (len(set(keys)) == len(keys) and all(k in allowed and k not in old and a == k + allowed[k] for k, a in zip(keys, added)))


def described(entry):
    return "a folder" if entry is DIR else entry if isinstance(entry, str) else f"{len(entry)} bytes (md5 {md5(entry)[:8]})"


def expect_tree(stick, part, want, what):
    """The partition holds exactly want (folded paths) besides the run's files and the state
    file, records allowed to grow; want's groups give each record its digest."""
    tree, digests = stick.tree(part), {}
    for g in stick.groups:
        digests[g.id] = md5(g.store)
    differ = []
    for path in sorted(set(tree) | set(want)):
        if path in RUN_FILES or path == STATE.lower():
            continue
        have, should = tree.get(path, "<absent>"), want.get(path, "<absent>")
        if path.endswith("/recovery.txt") and isinstance(should, bytes) and isinstance(have, bytes):
            owner = re.search(rb"^ID\|(\S+)", should, re.M)
            if record_grew(should, have, stick.uuid(part), digests.get(owner.group(1).decode(), "") if owner else ""):
                continue
        if have != should:
            differ.append(f"{path}: {described(have)} where {described(should)}")
    check(f"fsck.fat finds partition {part} consistent", *stick.fsck(part))
    return check(f"partition {part}: {what}", not differ, "; ".join(differ[:8]) + (" ..." if len(differ) > 8 else ""))


def judge(stick, active, extra=None):
    """Every group whole and once under the names active gives it; nothing else on any
    partition (extra: {part: {path: bytes}} expected besides)."""
    model = stick.model(active)
    for part in stick.parts:
        tree = stick.tree(part)
        for g in (g for g in stick.groups if g.part == part):
            paths = {p.lower() for p in g.files(g.id in active, b"")}
            whole = [p for p in paths if tree.get(p) != model[part][p] and not (
                p.endswith("recovery.txt") and record_grew(model[part][p], tree.get(p), stick.uuid(part), md5(g.store)))]
            check(f"{g.id}: BCD store, source folder and EFI folder whole under the {'active' if g.id in active else 'own'} names",
                  not whole, f"differ: {sorted(whole)}")
        expect_tree(stick, part, {**model[part], **{k.lower(): v for k, v in (extra or {}).get(part, {}).items()}},
                    "every group once, nothing else added or lost")


def expect_state(stick, want):
    have = stick.read(1, STATE)
    check(f"\\boot\\VELMARO.COM holds {want!r}", have == want, f"it holds {have!r}")


def expect_installer(stick, console, group=None, part=1):
    """The stand-in installer of group ran from "\\sources\\bootx64.efi" on partition part,
    once; with no group, none ran."""
    records = {p: stick.read(p, "installer_ran.txt") for p in stick.parts}
    if group is None:
        check("no installer ran", "STAND-IN INSTALLER" not in console and not any(records.values()), f"{records}")
        return
    line = f"STAND-IN INSTALLER: group {group.id} from partition {part}"
    check(f"console: {line!r}", console.count(line) == 1 and console.count("STAND-IN INSTALLER") == 1,
          f"{[l for l in console.splitlines() if 'STAND-IN' in l]}")
    want = f"group={group.id}\r\npartition={part}\r\nimage=\\sources\\bootx64.efi\r\n".encode()
    check(f"\\installer_ran.txt on partition {part} names {group.id} and \\sources\\bootx64.efi, no other partition has one",
          (records[part] or b"").startswith(want) and not any(r for p, r in records.items() if p != part), f"{records}")


def unchanged(stick, before):
    """Every file and folder as before, byte for byte, the state file too, but the run's own files."""
    for part in stick.parts:
        expect_tree(stick, part, before[part], "every file and folder as before, byte for byte")
    expect_state(stick, before[1].get(STATE.lower()))


def img(name):
    return os.path.join(WORK, name + ".img")


def abc(b_part=1):
    return [Group("a"), Group("b", b_part), Group("c")]


def switch_lines(uuid, frm, to, atomic=True):
    """The key lines of a switch on one volume from group frm to group to."""
    first = ([f"Ripristino atomico: uso solo partizione corrente SRC_FS=FAT32 SRC_PART={uuid}\n",
              f"recovery BCD: BCD={frm.bcd} OK\n", f"recovery SRC: SRC={frm.src} OK\n", f"recovery EFI: EFI={frm.efi} OK\n"]
             if atomic else [])
    return ([f"ID ricevuto: {to.id}\n", "\nrecovery phase\n"] + first
            + [f"Ripristino atomico: VELMARO.COM reset verificato: {OK}\n", "\nrenewal phase\n"])


def success_lines(uuid):
    return [f"Fase rinomina: SOURCE_FS atomico verificato SRC_FS=FAT32 SRC_PART={uuid}\n",
            "Fase rinomina: eseguiti solo BCD/SRC/EFI su SOURCE_FS\n", f"Verifica VELMARO.COM: {OK}\n",
            "SUCCESSO: fase SOURCE FS completata e verificata\n", "Avvio installer Windows: path=\\sources\\bootx64.efi\n",
            f"StartImage(\\sources\\bootx64.efi): {OK}\n", END]


def first_boot():
    a, b, c = groups = abc()
    stick = make(img("first-boot"), groups, {a.id}, b.id, state=False, complete=False)
    uuid = stick.uuid(1)
    log, console = boot(stick, "first-boot")
    lines_in_order(log, switch_lines(uuid, a, b, atomic=False)[:2] + [
        "Ripristino atomico: SRC_PART corrente assente, uso recovery legacy su partizioni visibili\n",
        f"recovery BCD: BCD={a.bcd} OK\n", "recovery SRC: SRC=(unknown) SKIP (not active)\n",
        "recovery EFI: EFI=(unknown) SKIP (not active)\n", f"Ripristino atomico: VELMARO.COM reset verificato: {OK}\n",
        "\nrenewal phase\n"] + success_lines(uuid)[:1]
        + ["Fase rinomina: destinazione \\sources contiene ID diverso valido s-win-a, normalizzo in \\grp_a\n",
           "Fase rinomina: destinazione \\efi\\microsoft contiene ID diverso valido s-win-a, normalizzo in \\efi\\efi_a\n"]
        + success_lines(uuid)[1:])
    judge(stick, {b.id})
    grown = {g.id: stick.read(1, f"{g.src}/recovery.txt") for g in (a, c)} | {b.id: stick.read(1, "sources/recovery.txt")}
    check("the records of s-win-a and s-win-b gained SRC_PART and SRC_FS of partition 1, s-win-c's is untouched",
          grown == {a.id: a.record(uuid), b.id: b.record(uuid), c.id: c.record()}, f"{grown}")
    expect_state(stick, state_text(b, uuid))
    expect_installer(stick, console, b)


def switch_back():
    a, b, c = groups = abc()
    stick = make(img("switch-back"), groups, {a.id}, b.id)
    uuid = stick.uuid(1)
    for label, frm, to in (("switch-to-b", a, b), ("switch-back-to-a", b, a)):
        log, console = boot(stick, label, options=to.id)
        lines_in_order(log, switch_lines(uuid, frm, to) + success_lines(uuid))
        judge(stick, {to.id})
        expect_state(stick, state_text(to, uuid))
        expect_installer(stick, console, to)


def already_active():
    a, _, _ = groups = abc()
    stick = make(img("already-active"), groups, {a.id}, a.id)
    before = {p: stick.tree(p) for p in stick.parts}
    log, console = boot(stick, "already-active")
    lines_in_order(log, [f"ID ricevuto: {a.id}\n", "SOURCE_FS: gruppo richiesto gia attivo e atomico; salto restore e rename\n"]
                   + success_lines("")[3:], absent=["\nrecovery phase\n", "\nrenewal phase\n"])
    unchanged(stick, before)
    expect_installer(stick, console, a)


def unknown_id():
    stick = make(img("unknown-id"), abc(), {"s-win-a"}, "s-win-zzz", debug=True)
    before = {p: stick.tree(p) for p in stick.parts}
    log, console = boot(stick, "unknown-id", answers=1, status=SHELL_NOT_FOUND)
    lines_in_order(log, ["ID ricevuto: s-win-zzz\n", f"LoadedImage: {OK}\n", "VELMARO_APP: started from FAT32 partition 1\n",
                         f"OpenRoot FAT32 app: {OK}\n", f"ERRORE: parsing/validazione NUR_VEL_EFI.COM: {NOT_FOUND}\n",
                         f"\nERRORE: esecuzione Velmaro non riuscita: {NOT_FOUND}\n", "\n" + KEY_PROMPT + "...\n", END],
                   absent=["\nrecovery phase\n"])
    unchanged(stick, before)
    expect_installer(stick, console)


def no_group_id():
    stick = make(img("no-group-id"), abc(), {"s-win-a"}, "")
    before = {p: stick.tree(p) for p in stick.parts}
    log, console = boot(stick, "no-group-id", answers=1, status=SHELL_NOT_FOUND)
    check("the log holds the banner, the mode, the error, the prompt and the end line, nothing else",
          log[3:] == HEAD + ["Modalita: FAT32 legacy test\n", f"\nERRORE: esecuzione Velmaro non riuscita: {NOT_FOUND}\n",
                             "\n" + KEY_PROMPT + "...\n", END], f"{log[3:]}")
    unchanged(stick, before)
    expect_installer(stick, console)


def wrong_bcd():
    a, _, _ = groups = abc()
    stick = make(img("wrong-bcd"), groups, {a.id}, a.id)
    wrong = blob("a BCD store of no group", 5000)
    stick.put(1, {"boot/BCD": wrong})
    log, console = boot(stick, "wrong-bcd")
    moved = "BCD atomico: \\boot\\BCD presente ma non coerente, sposto in \\boot\\BCD_BAK\n"
    lines_in_order(log, [f"ID ricevuto: {a.id}\n", moved, f"BCD atomico: recupero BCD coerente da \\boot\\backup\\{a.bcd}\n",
                         "SOURCE_FS: gruppo richiesto gia attivo e atomico; salto restore e rename\n"] + success_lines("")[3:],
                   absent=["\nrecovery phase\n"])
    check("the wrong store was moved aside once", log.count(moved) == 1, f"{log.count(moved)} times")
    judge(stick, {a.id}, extra={1: {"boot/BCD_BAK": wrong}})
    expect_state(stick, state_text(a, stick.uuid(1)))
    expect_installer(stick, console, a)


def sibling():
    a, b, c = groups = abc(b_part=2)
    stick = make(img("sibling"), groups, {a.id}, b.id, sibling=True, describe=[b.id])
    uuid1, uuid2 = stick.uuid(1), stick.uuid(2)
    log, console = boot(stick, "sibling-to-b")
    lines_in_order(log, [f"ID ricevuto: {b.id}\n", "File ID \\boot\\s-win-b.txt:\n", f"  marker ID: {uuid2}.uuid\n"]
                   + switch_lines(uuid1, a, b)[1:] + success_lines(uuid2)[:1]
                   + ["Shell mv verified OK: \\efi\\efi_b -> \\efi\\microsoft\n"] + success_lines(uuid2)[1:])
    judge(stick, {b.id})
    expect_state(stick, state_text(b, uuid2))
    expect_installer(stick, console, b, part=2)
    log, console = boot(stick, "sibling-back-to-a", options=a.id)
    lines_in_order(log, switch_lines(uuid2, b, a) + success_lines(uuid1))
    judge(stick, {a.id})
    expect_state(stick, state_text(a, uuid1))
    expect_installer(stick, console, a)


def gpt():
    a, b, c = groups = abc()
    stick = make(img("gpt"), groups, {a.id}, b.id, gpt=True)
    uuid = stick.uuid(1)
    log, console = boot(stick, "gpt")
    lines_in_order(log, switch_lines(uuid, a, b) + success_lines(uuid))
    judge(stick, {b.id})
    expect_state(stick, state_text(b, uuid))
    expect_installer(stick, console, b)


def cut_run():
    a, b, c = groups = abc()
    stick = make(img("cut-run"), groups, set(), b.id, state=b"velmaro file configuration\r\n")
    uuid = stick.uuid(1)
    log, console = boot(stick, "cut-run")
    lines_in_order(log, switch_lines(uuid, a, b, atomic=False)[:2] + [
        "Ripristino atomico: SRC_PART corrente assente, uso recovery legacy su partizioni visibili\n",
        "recovery BCD: BCD=(unknown) SKIP (not active)\n", "recovery SRC: SRC=(unknown) SKIP (not active)\n",
        "recovery EFI: EFI=(unknown) SKIP (not active)\n"] + switch_lines(uuid, a, b)[-2:] + success_lines(uuid))
    judge(stick, {b.id})
    expect_state(stick, state_text(b, uuid))
    expect_installer(stick, console, b)


def ntfs_test(driver):
    label = "ntfs-test" if driver else "ntfs-test-no-driver"
    stick = make(img(label), [], set(), "ntfs-test", sibling=True, state=False, driver=driver)
    sources = {"sources/install.wim": blob("install image on the NTFS partition", 9000), "sources/s-win-n.txt": b""}
    stick.put(2, sources)
    before = {p: stick.tree(p) for p in stick.parts}
    if not driver:
        log, console = boot(stick, label, answers=1, status=SHELL_NOT_FOUND)
        lines_in_order(log, ["Modalita: NTFS engine test\n", f"ERRORE: driver NTFS non caricato: {NOT_FOUND}\n",
                             f"\nERRORE: esecuzione Velmaro non riuscita: {NOT_FOUND}\n", "\n" + KEY_PROMPT + "...\n", END],
                       absent=["\nSCRITTURA NTFS OK\n"])
        unchanged(stick, before)
        expect_installer(stick, console)
        return
    log, console = boot(stick, label)
    lines_in_order(log, ["Modalita: NTFS engine test\n", "NTFS_DRIVER: started OK\n", "\nSCRITTURA NTFS OK\n",
                         f"  RenameSources(\\sources_backup): {OK}\n", "\nSUCCESSO: \\sources rinominata in \\sources_backup\n", END])
    expect_tree(stick, 1, before[1], "every file and folder as before, byte for byte")
    after = {re.sub(r"^sources(?=/|$)", "sources_backup", p): d for p, d in before[2].items()} | {"velmaro_write_test.txt": WRITE_TEST}
    expect_tree(stick, 2, after, "\\sources whole as \\sources_backup, \\velmaro_write_test.txt holds the 26 test bytes")
    expect_installer(stick, console)


SCENARIOS = {"first-boot": first_boot, "switch-back": switch_back, "already-active": already_active,
             "unknown-id": unknown_id, "no-group-id": no_group_id, "wrong-bcd": wrong_bcd, "sibling": sibling, "gpt": gpt, "cut-run": cut_run,
             "ntfs-test": lambda: ntfs_test(True), "ntfs-test-no-driver": lambda: ntfs_test(False)}


def main():
    names = sys.argv[1:] or list(SCENARIOS)
    if any(n not in SCENARIOS for n in names):
        sys.exit(f"scenarios: unknown scenario in {names}; known: {list(SCENARIOS)}")
    for path in (VELMARO, INSTALLER, DRIVER):
        if not os.path.isfile(path):
            sys.exit(f"scenarios: {path} is missing; build it first with: bash scripts/build.sh")
    summary = []
    for name in names:
        print(f"[{name}]")
        first = len(rows)
        SCENARIOS[name]()
        # A boot answers for the checks from its start to the next boot's.
        ends = [row[3] for row in rows[first + 1:]] + [len(results)]
        for (label, app_ms, wall, start), end in zip(rows[first:], ends):
            failed = results[start:end].count(False)
            summary.append((name, label, app_ms, wall, "PASS" if failed == 0 else f"FAIL ({failed})"))
    print(f"\n{'scenario':<20} {'boot':<20} {'application (log stamps)':>25} {'QEMU wall':>10}  result")
    for name, label, app_ms, wall, verdict in summary:
        print(f"{name:<20} {label:<20} {'-' if app_ms is None else f'{app_ms} ms':>25} {wall:>9.1f}s  {verdict}")
    print(f"{sum(results)} passed, {len(results) - sum(results)} failed")
    sys.exit(0 if results and all(results) else 1)


if __name__ == "__main__":
    main()
