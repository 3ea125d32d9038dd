#!/usr/bin/env python3
"""Boots build/Velmaro.efi from fresh stick images in QEMU and checks what it leaves
on the stick: \\velmaro_log.txt and the status the shell recorded in \\status.txt.
Images and serial transcripts are kept in build/e2e/ for a look after a failure."""
import os, re, subprocess, sys, time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import run_qemu  # noqa: E402

EFI = os.path.join(REPO, "build", "Velmaro.efi")
WORK = os.path.join(REPO, "build", "e2e")
QEMU_LIMIT = 50  # seconds; with the stick making this keeps a scenario under a minute
KEY_PROMPT = "Premere un tasto per continuare"
KEY_PAUSE = 1.0  # seconds the harness waits, like a reader, before answering the prompt
STAMP = re.compile(r"\[\+(\d{8}) ms\] ")
DATE = re.compile(r"Data/ora firmware log: (\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d) "
                  r"timezone=(-?\d+) daylight=0x[0-9A-Fa-f]+\r\n")
START = "\r\n\r\n=== Velmaro log start ===\r\n"
END = "=== Velmaro log end ===\r\n"
HEAD = ["Velmaro UEFI\r\n", "Target: X64\r\n", "Modalita: FAT32 legacy test\r\n"]
# The shell turns an application's failing EFI status into its own status by clearing
# the top bit, so %lasterror% reads 0xE for EFI_NOT_FOUND (0x800000000000000E).
SHELL_NOT_FOUND = "0xE"

results = []


def check(name, ok, detail=""):
    results.append(bool(ok))
    print(f"  {'PASS' if ok else 'FAIL'}: {name}" + ("" if ok or not detail else f" -- {detail}"))


def read_back(img, path):
    done = subprocess.run(["mtype", "-i", img + "@@1M", "::" + path], capture_output=True,
                          env=dict(os.environ, MTOOLS_SKIP_CHECK="1"))
    return done.stdout if done.returncode == 0 else None


def shell_status(raw):
    # The shell writes redirected output as UTF-16LE with a byte-order mark.
    if raw is None:
        return None
    if raw.startswith(b"\xff\xfe"):
        return raw[2:].decode("utf-16-le").strip()
    return raw.decode("ascii", "replace").strip()


def date_is_plausible(match):
    year, month, day, hour, minute, second, tz = (int(g) for g in match.groups())
    return (year >= 2000 and 1 <= month <= 12 and 1 <= day <= 31 and hour < 24
            and minute < 60 and second < 60 and (-1440 <= tz <= 1440 or tz == 2047))


def message_mismatch(messages, expected):
    """None when the messages are exactly the expected ones, else the first difference."""
    for i, want in enumerate(expected):
        got = messages[i] if i < len(messages) else None
        if hasattr(want, "fullmatch"):
            match = want.fullmatch(got or "")
            if not (match and date_is_plausible(match)):
                return f"message {i}: {got!r} is not a plausible firmware date line"
        elif got != want:
            return f"message {i}: got {got!r}, want {want!r}"
    if len(messages) > len(expected):
        return f"unexpected extra messages {messages[len(expected):]!r}"
    return None


def scenario(name, options, debug, expected, status, answers):
    print(f"[{name}]")
    img = os.path.join(WORK, name + ".img")
    started = time.monotonic()
    subprocess.run(["bash", os.path.join(HERE, "make_stick.sh"), img, "--options", options]
                   + (["--debug"] if debug else []), check=True, stdout=subprocess.DEVNULL)
    run = run_qemu.boot(img, QEMU_LIMIT, KEY_PROMPT, img + ".serial.txt", echo=False,
                        answer_delay=KEY_PAUSE)
    print(f"  QEMU {run['seconds']:.1f} s, scenario {time.monotonic() - started:.1f} s, "
          f"transcript {img}.serial.txt")
    check("QEMU powered off by itself within the limit", run["powered_off"],
          "timed out" if run["timed_out"] else f"exit {run['returncode']}")
    check(f"harness answered the key prompt {answers} time(s)", run["answers"] == answers,
          f"answered {run['answers']}")
    got = shell_status(read_back(img, "/status.txt"))
    check(f"shell recorded status {status}", got == status, f"status file says {got!r}")

    raw = read_back(img, "/velmaro_log.txt")
    check("log file exists", raw is not None)
    if raw is None:
        return
    check("log has no byte-order mark", not raw.startswith(b"\xff\xfe"))
    try:
        text = raw.decode("utf-16-le")
    except UnicodeDecodeError as err:
        check("log decodes as UTF-16LE", False, str(err))
        return
    check("every line ends CR LF", text.endswith("\r\n") and not re.search(r"\r(?!\n)|(?<!\r)\n", text))
    parts = STAMP.split(text)
    stamps, messages = [int(s) for s in parts[1::2]], parts[2::2]
    # Each message ends at a line end, so every stamp opens a line.
    check("every message line opens with a stamp", parts[0] == "" and stamps
          and all(m.endswith("\r\n") for m in messages), f"log starts {text[:40]!r}")
    check("stamps never decrease", stamps == sorted(stamps), f"stamps {stamps}")
    prompt = [i for i, m in enumerate(messages) if KEY_PROMPT in m]
    if answers and prompt and prompt[0] + 1 < len(stamps):
        # The key came at least KEY_PAUSE after the prompt, so the next stamp must show it.
        waited = stamps[prompt[0] + 1] - stamps[prompt[0]]
        check(f"stamps count the {KEY_PAUSE:g} s key wait", waited >= KEY_PAUSE * 1000,
              f"stamps moved {waited} ms across the wait")
    mismatch = message_mismatch(messages, expected)
    check("log messages are the expected ones, in order", mismatch is None, mismatch)
    check("console showed the same stamped lines", text in run["console"])


def main():
    if not os.path.isfile(EFI):
        sys.exit(f"smoke_test: {EFI} is missing; build it first with: bash scripts/build.sh")
    os.makedirs(WORK, exist_ok=True)
    # A group ID on a stick that holds no groups: the advanced diagnostics show the boot
    # volume opened, and the run stops for want of the entries file (scenarios.py runs
    # whole switches on sticks with groups).
    missing = "Read file failed \\boot\\%s: Not Found (0x800000000000000E)\r\n"
    scenario("group-id-debug", "s-win-demo", True,
             [START, "Advanced diagnostics: enabled by \\boot\\VELMARO_DEBUG.LOG\r\n", DATE] + HEAD
             + ["ID ricevuto: s-win-demo\r\n", "LoadedImage: Success (0x0)\r\n", "VELMARO_APP: started from FAT32 partition 1\r\n",
                "OpenRoot FAT32 app: Success (0x0)\r\n", missing % "VELMARO.COM", missing % "NUR_VEL_EFI.COM",
                "\r\nERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)\r\n",
                "\r\n" + KEY_PROMPT + "...\r\n", END], SHELL_NOT_FOUND, 1)
    scenario("no-group-id", "", False,
             [START, "Advanced diagnostics: disabled\r\n", DATE] + HEAD
             + ["\r\nERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)\r\n",
                "\r\n" + KEY_PROMPT + "...\r\n", END], SHELL_NOT_FOUND, 1)
    passed = sum(results)
    print(f"{passed} passed, {len(results) - passed} failed")
    sys.exit(0 if results and all(results) else 1)


if __name__ == "__main__":
    main()
