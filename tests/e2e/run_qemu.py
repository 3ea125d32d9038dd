#!/usr/bin/env python3
"""Boots a stick image in QEMU (OVMF, UEFI Shell, serial console) until it powers off.

usage: run_qemu.py IMG [--timeout 60] [--answer-key-on TEXT] [--answer-delay S]
                     [--transcript PATH] [--quiet]

The serial console is streamed to a transcript file (and to stdout unless --quiet).
Exits 0 when QEMU powered off by itself, 1 when it failed, 124 when the time limit
passed and QEMU had to be killed.
"""
import argparse, os, re, select, shutil, subprocess, sys, tempfile, time

OVMF_CODE = "/usr/share/OVMF/OVMF_CODE_4M.fd"
OVMF_VARS = "/usr/share/OVMF/OVMF_VARS_4M.fd"
# The shell's countdown before startup.nsh: any key but ESC starts the script after the
# current second; the shell reads that key itself, so it never reaches Velmaro.
SHELL_COUNTDOWN = "or any other key to continue"
ANSI = re.compile(rb"\x1b\[[0-9;=?]*[A-Za-z]")


def qemu_command(img, vars_copy, extra_sticks=()):
    # -nodefaults drops q35's built-in DVD drive, which the firmware would otherwise
    # try (and fail) to boot first; the console then has to be named explicitly.
    return ["qemu-system-x86_64", "-machine", "q35", "-accel", "tcg", "-m", "256",
            "-nodefaults", "-nographic", "-serial", "mon:stdio", "-nic", "none",
            "-drive", f"if=pflash,format=raw,readonly=on,file={OVMF_CODE}",
            "-drive", f"if=pflash,format=raw,file={vars_copy}",
            "-device", "qemu-xhci",
            "-drive", f"if=none,id=stick,format=raw,file={img}",
            "-device", "usb-storage,drive=stick"] + [
            arg for n, more in enumerate(extra_sticks, 2)
            for arg in ("-drive", f"if=none,id=stick{n},format=raw,file={more}", "-device", f"usb-storage,drive=stick{n}")]


def send(proc, key):
    try:
        proc.stdin.write(key)
        proc.stdin.flush()
    except BrokenPipeError:
        pass  # QEMU is already gone; the caller sees that on its output


def boot(img, timeout=60.0, answer_key_on=None, transcript=None, echo=True, answer_delay=0.0, extra_sticks=()):
    """Runs one boot. Returns a dict: powered_off, timed_out, returncode, seconds,
    answers (keys sent for answer_key_on), console (serial text without escapes).
    answer_delay holds each answer back like a person reading the prompt first;
    extra_sticks are further images, each plugged in as a USB stick of its own."""
    raw = b""
    answers = 0
    answer_at = None  # when the pending answer is due
    countdown_skipped = False
    timed_out = False
    start = time.monotonic()
    deadline = start + timeout
    with tempfile.TemporaryDirectory(prefix="velmaro-qemu-") as tmp:
        vars_copy = os.path.join(tmp, "vars.fd")
        shutil.copyfile(OVMF_VARS, vars_copy)  # each run starts from pristine variables
        out = open(transcript, "wb") if transcript else None
        proc = subprocess.Popen(qemu_command(img, vars_copy, extra_sticks), stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            fd = proc.stdout.fileno()
            while True:
                left = deadline - time.monotonic()
                if left <= 0:
                    timed_out = True
                    break
                if answer_at is not None and time.monotonic() >= answer_at:
                    answers, answer_at = answers + 1, None
                    send(proc, b"\r")
                due = left if answer_at is None else max(0.0, answer_at - time.monotonic())
                ready, _, _ = select.select([fd], [], [], min(left, due, 1.0))
                if not ready:
                    continue
                chunk = os.read(fd, 4096)
                if not chunk:
                    break  # QEMU closed its output: it has exited
                raw += chunk
                if out:
                    out.write(chunk)
                    out.flush()
                if echo:
                    sys.stdout.buffer.write(chunk)
                    sys.stdout.flush()
                text = ANSI.sub(b"", raw).decode("latin-1")
                if not countdown_skipped and SHELL_COUNTDOWN in text:
                    countdown_skipped = True
                    send(proc, b" ")
                # One key for every new appearance of the prompt.
                if answer_key_on and answer_at is None and text.count(answer_key_on) > answers:
                    answer_at = time.monotonic() + answer_delay
            if timed_out:
                proc.kill()
            try:
                proc.wait(timeout=max(1.0, deadline - time.monotonic()))
            except subprocess.TimeoutExpired:
                timed_out = True
                proc.kill()
                proc.wait()
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            if out:
                out.close()
    return {"powered_off": not timed_out and proc.returncode == 0, "timed_out": timed_out,
            "returncode": proc.returncode, "seconds": time.monotonic() - start,
            "answers": answers, "console": ANSI.sub(b"", raw).decode("latin-1")}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("img")
    parser.add_argument("--timeout", type=float, default=60.0)
    parser.add_argument("--answer-key-on", metavar="TEXT")
    parser.add_argument("--answer-delay", type=float, default=0.0, metavar="S",
                        help="seconds to hold each answer back")
    parser.add_argument("--transcript", help="serial transcript (default IMG.serial.txt)")
    parser.add_argument("--quiet", action="store_true", help="do not echo the console")
    args = parser.parse_args()
    result = boot(args.img, args.timeout, args.answer_key_on,
                  args.transcript or args.img + ".serial.txt", echo=not args.quiet,
                  answer_delay=args.answer_delay)
    state = ("timed out, QEMU killed" if result["timed_out"] else
             "powered off" if result["powered_off"] else f"QEMU exit {result['returncode']}")
    print(f"\nrun_qemu: {state} after {result['seconds']:.1f} s, "
          f"keys answered: {result['answers']}", file=sys.stderr)
    sys.exit(0 if result["powered_off"] else 124 if result["timed_out"] else 1)


if __name__ == "__main__":
    main()
