#!/usr/bin/env python3
"""Runs the file-protocol table on OVMF's own FAT driver and compares its answers, row by
row, with the answers the host suite wrote from the fake volume.

usage: file_table.py [--host PATH]

The test image build/FileProbe.efi boots from a fresh FAT32 stick, runs the table in a
scratch folder and leaves its text in \\probe_result.txt, read back here with mtools.
The host text comes from FileBehaviourTest (default build/host/host-file-table.txt).
Fails, naming each differing row with both answers, when the two texts differ; fails
too when either text is missing, stale or incomplete. The stick, the serial transcript
and the firmware's text stay in build/e2e/ for a look afterwards.
"""
import argparse, os, subprocess, sys, time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402

PROBE = os.path.join(REPO, "build", "FileProbe.efi")
WORK = os.path.join(REPO, "build", "e2e")
HOST_DEFAULT = os.path.join(REPO, "build", "host", "host-file-table.txt")
TABLE_SOURCE = os.path.join(REPO, "tests", "probe", "FileTable.cpp")
QEMU_LIMIT = 50  # seconds; the table itself takes a few of them under TCG


def rows_of(text):
    """The table's lines as an ordered list of (row name, answers)."""
    rows = []
    for line in text.splitlines():
        name, sep, answers = line.partition(":")
        rows.append((name, answers.strip() if sep else "<no colon> " + line))
    return rows


def complete(rows):
    """None when the text ends the way a whole run does, else what is wrong."""
    if not rows:
        return "it is empty"
    name, answers = rows[-1]
    if name == "truncated":
        return "it was cut short (truncated)"
    if name != "end" or not answers.startswith("rows="):
        return f"its last line is {name}: {answers!r}, not the end line"
    count = int(answers[len("rows="):] or -1)
    if count != len(rows) - 1:
        return f"its end line counts {count} rows but it holds {len(rows) - 1}"
    return None


def host_text(path):
    """The host answers, or (None, why) when they cannot be trusted."""
    if not os.path.isfile(path):
        return None, (f"{path} does not exist: the host suite has not run the table yet "
                      "(make host-test, or FileBehaviour.* in the host suite)")
    written = os.path.getmtime(path)
    binary = os.path.join(os.path.dirname(path), "host_tests")
    if os.path.isfile(binary) and os.path.getmtime(binary) > written:
        return None, f"{path} is older than {binary}: run the host suite again"
    if os.path.getmtime(TABLE_SOURCE) > written:
        return None, f"{path} is older than the table in {TABLE_SOURCE}: run the host suite again"
    with open(path, "rb") as handle:
        return handle.read().decode("ascii", "replace"), None


def read_back(img, path):
    done = subprocess.run(["mtype", "-i", img + "@@1M", "::" + path], capture_output=True,
                          env=dict(os.environ, MTOOLS_SKIP_CHECK="1"))
    return done.stdout if done.returncode == 0 else None


def run_ovmf():
    """Boots the probe on a fresh stick; returns (text or None, problems, seconds)."""
    img = os.path.join(WORK, "file-table.img")
    started = time.monotonic()
    subprocess.run(["bash", os.path.join(HERE, "make_stick.sh"), img, "--efi", PROBE],
                   check=True, stdout=subprocess.DEVNULL)
    run = run_qemu.boot(img, QEMU_LIMIT, None, img + ".serial.txt", echo=False)
    print(f"  QEMU {run['seconds']:.1f} s, scenario {time.monotonic() - started:.1f} s, "
          f"transcript {img}.serial.txt")
    problems = []
    if not run["powered_off"]:
        problems.append("QEMU did not power off by itself within the limit ("
                        + ("timed out" if run["timed_out"] else f"exit {run['returncode']}") + ")")
    raw = read_back(img, "/probe_result.txt")
    if raw is None:
        problems.append("the stick holds no \\probe_result.txt")
        return None, problems, run["seconds"]
    text = raw.decode("ascii", "replace")
    with open(os.path.join(WORK, "ovmf-file-table.txt"), "w") as out:
        out.write(text)
    return text, problems, run["seconds"]


def differences(host_rows, ovmf_rows):
    """(row, host answers, firmware answers) for every row the two texts disagree on."""
    host, ovmf = dict(host_rows), dict(ovmf_rows)
    order = [name for name, _ in ovmf_rows] + [name for name, _ in host_rows if name not in ovmf]
    found = []
    for name in order:
        if host.get(name) != ovmf.get(name):
            found.append((name, host.get(name, "<no such row>"), ovmf.get(name, "<no such row>")))
    if [n for n, _ in host_rows] != [n for n, _ in ovmf_rows] and not found:
        found.append(("<order>", " ".join(n for n, _ in host_rows), " ".join(n for n, _ in ovmf_rows)))
    return found


def differing_steps(host, ovmf):
    """The labels whose answers differ, for a short summary line."""
    pairs_h = dict(token.partition("=")[::2] for token in host.split())
    pairs_o = dict(token.partition("=")[::2] for token in ovmf.split())
    labels = list(dict.fromkeys(list(pairs_o) + list(pairs_h)))
    return [label for label in labels if pairs_h.get(label) != pairs_o.get(label)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default=HOST_DEFAULT, help="the host suite's text")
    args = parser.parse_args()
    if not os.path.isfile(PROBE):
        sys.exit(f"file_table: {PROBE} is missing; build it first with: bash scripts/build.sh")
    os.makedirs(WORK, exist_ok=True)
    failures = []

    print("[file-table]")
    host, why = host_text(args.host)
    if host is None:
        failures.append("host answers unusable: " + why)
    elif complete(rows_of(host)):
        failures.append(f"host answers in {args.host} are incomplete: {complete(rows_of(host))}")
        host = None

    ovmf, problems, _ = run_ovmf()
    failures += problems
    if ovmf is not None and complete(rows_of(ovmf)):
        failures.append(f"firmware answers are incomplete: {complete(rows_of(ovmf))}")
        ovmf = None

    if host is not None and ovmf is not None:
        found = differences(rows_of(host), rows_of(ovmf))
        rows = len(rows_of(ovmf)) - 1
        print(f"  {rows - len(found)} of {rows} rows answer the same on the host and on OVMF")
        for name, host_answers, ovmf_answers in found:
            steps = differing_steps(host_answers, ovmf_answers)
            print(f"  DIFFERS {name}: " + ", ".join(steps))
            print(f"    host: {host_answers}")
            print(f"    ovmf: {ovmf_answers}")
        if found:
            failures.append(f"{len(found)} row(s) differ: " + ", ".join(n for n, _, _ in found))

    for failure in failures:
        print(f"  FAIL: {failure}")
    if not failures:
        print("  PASS: the host answers every row as OVMF's FAT driver does")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
