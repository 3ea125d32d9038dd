#!/usr/bin/env python3
"""Runs the file-protocol table on OVMF's own FAT driver and compares its answers, row by
row, with the answers the host suite wrote.

usage: file_table.py [--host PATH]

The test image build/FileProbe.efi boots from a fresh FAT32 stick and leaves its text in
\\probe_result.txt, read back here with mtools. The host text comes from FileBehaviourTest
(default build/host/host-file-table.txt). Fails naming each row the two texts answer
differently, and when either text is missing, stale or not a whole run. The stick, the
serial transcript and the firmware's text stay in build/e2e/.
"""
import argparse, os, subprocess, sys

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402

PROBE = os.path.join(REPO, "build", "FileProbe.efi")
WORK = os.path.join(REPO, "build", "e2e")
TABLE = os.path.join(REPO, "tests", "probe", "FileTable.cpp")
QEMU_LIMIT = 50  # seconds; the table itself takes a few of them under TCG


def rows_of(who, text):
    """({row: answers} in order, None), or (None, why) when the text is not a whole run."""
    if text is None:
        return None, None
    lines = text.splitlines()
    if not lines or lines[-1] != f"end: rows={len(lines) - 1}":
        return None, f"{who} answers are not a whole run; last line {lines[-1] if lines else '<empty>'!r}"
    return {name: answers.strip() for name, _, answers in (line.partition(":") for line in lines[:-1])}, None


def host_text(path):
    if not os.path.isfile(path):
        return None, f"{path} does not exist: run the host suite first (make host-test)"
    for newer in (os.path.join(os.path.dirname(path), "host_tests"), TABLE):
        if os.path.isfile(newer) and os.path.getmtime(newer) > os.path.getmtime(path):
            return None, f"{path} is older than {newer}: run the host suite again"
    return open(path, "rb").read().decode("ascii", "replace"), None


def ovmf_text():
    """Boots the probe on a fresh stick; returns (text or None, problems)."""
    img = os.path.join(WORK, "file-table.img")
    subprocess.run(["bash", os.path.join(HERE, "make_stick.sh"), img, "--efi", PROBE],
                   check=True, stdout=subprocess.DEVNULL)
    run = run_qemu.boot(img, QEMU_LIMIT, None, img + ".serial.txt", echo=False)
    print(f"  QEMU {run['seconds']:.1f} s, transcript {img}.serial.txt")
    problems = [] if run["powered_off"] else [f"QEMU did not power off by itself within {QEMU_LIMIT} s"]
    done = subprocess.run(["mtype", "-i", img + "@@1M", "::/probe_result.txt"], capture_output=True,
                          env=dict(os.environ, MTOOLS_SKIP_CHECK="1"))
    if done.returncode != 0:
        return None, problems + ["the stick holds no \\probe_result.txt"]
    text = done.stdout.decode("ascii", "replace")
    open(os.path.join(WORK, "ovmf-file-table.txt"), "w").write(text)
    return text, problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default=os.path.join(REPO, "build", "host", "host-file-table.txt"))
    args = parser.parse_args()
    if not os.path.isfile(PROBE):
        sys.exit(f"file_table: {PROBE} is missing; build it first with: bash scripts/build.sh")
    os.makedirs(WORK, exist_ok=True)
    print("[file-table]")
    host, why = host_text(args.host)
    failures = [why] if why else []
    ovmf, problems = ovmf_text()
    failures += problems
    (host_rows, host_why), (ovmf_rows, ovmf_why) = rows_of("host", host), rows_of("ovmf", ovmf)
    failures += [why for why in (host_why, ovmf_why) if why]
    if host_rows is not None and ovmf_rows is not None:
        names = list(dict.fromkeys(list(ovmf_rows) + list(host_rows)))
        differ = [name for name in names if host_rows.get(name) != ovmf_rows.get(name)]
        if not differ and list(host_rows) != list(ovmf_rows):
            differ = ["<row order>"]
        print(f"  {len(names) - len(differ)} of {len(names)} rows answer the same on the host and on OVMF")
        for name in differ:
            print(f"  DIFFERS {name}\n    host: {host_rows.get(name, '<no such row>')}\n"
                  f"    ovmf: {ovmf_rows.get(name, '<no such row>')}")
        if differ:
            failures.append(f"{len(differ)} row(s) differ: " + ", ".join(differ))
    for failure in failures:
        print(f"  FAIL: {failure}")
    if not failures:
        print("  PASS: the host answers every row as OVMF's FAT driver does")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
