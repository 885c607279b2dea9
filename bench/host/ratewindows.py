#!/usr/bin/env python3
"""Samples how a download grows and reports its rate in one-second windows.

    ratewindows.py SECONDS LIMIT PATH... -- COMMAND...

Runs COMMAND, sums the sizes of the files (or folders) at PATH every 20 ms for SECONDS, stops the
command, and prints the rate of every whole one-second window after the first two, with the
largest deviation from LIMIT (bytes per second).
"""
import os
import signal
import subprocess
import sys
import time


def size_of(paths):
    total = 0
    for path in paths:
        if os.path.isdir(path):
            for entry in os.scandir(path):
                try:
                    if entry.is_file():
                        total += entry.stat().st_size
                except FileNotFoundError:
                    pass  # removed since the listing (a spill file appended meanwhile)
        elif os.path.exists(path):
            total += os.stat(path).st_size
    return total


def main():
    split = sys.argv.index("--")
    seconds, limit, paths = float(sys.argv[1]), float(sys.argv[2]), sys.argv[3:split]
    command = sys.argv[split + 1:]
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    start = time.monotonic()
    samples = []
    while time.monotonic() - start < seconds and process.poll() is None:
        samples.append((time.monotonic() - start, size_of(paths)))
        time.sleep(0.02)
    elapsed = time.monotonic() - start
    ended_early = process.poll() is not None
    final_size = size_of(paths)
    process.send_signal(signal.SIGKILL)
    process.wait()
    if ended_early:
        print(f"the command ended after {elapsed:.1f} s: {final_size / 1048576:.1f} MiB at "
              f"{final_size / elapsed / 1024:.0f} KiB/s on average, so the limit did not hold")
        return

    def size_at(t):  # the last sample at or before t
        best = 0
        for when, size in samples:
            if when > t:
                break
            best = size
        return best

    windows = [size_at(s + 1) - size_at(s) for s in range(2, int(seconds) - 1)]
    if not windows:
        print("no complete window")
        return
    deviations = [abs(w - limit) / limit * 100 for w in windows]
    print("windows (KiB/s): " + " ".join(f"{w / 1024:.0f}" for w in windows))
    print(f"max deviation {max(deviations):.1f}%  mean rate {sum(windows) / len(windows) / 1024:.0f} KiB/s")


if __name__ == "__main__":
    main()
