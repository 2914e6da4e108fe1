"""What one frame costs the database: system calls of the daemon while a radio hears a known number of lines."""

import re
import subprocess
import time

FRAMES = 100
CALLS = "openat,close,read,pread64,write,pwrite64,fsync,fdatasync,unlink,fcntl,ftruncate,stat,newfstatat,lstat,mmap"


def trace_frames(daemon, radios, path):
    strace = subprocess.Popen(["strace", "-f", "-y", "-qq", "-e", f"trace={CALLS}", "-p", str(daemon.process.pid),
                               "-o", path], stderr=subprocess.DEVNULL)
    time.sleep(1)
    begin = len(open(path).readlines())
    for number in range(FRAMES):
        radios.command(f"hear:1 *NTF,DPMR,RXVCALL,IND,0047312,1200003,N{number:06d},30")
        time.sleep(0.01)
    time.sleep(0.5)
    strace.terminate()
    strace.wait()
    with open(path) as file:
        return count_calls(file.readlines()[begin:], daemon.database)


def count_calls(lines, database):
    counts = {"opens of the file": 0, "other files opened": 0, "reads": 0, "bytes read": 0, "writes": 0,
              "bytes written": 0, "fsyncs": 0, "locks": 0, "all calls for the database": 0}
    for line in lines:
        call = re.match(r"\d+\s+(\w+)\(", line)
        if not call or database not in line:
            continue
        name, result = call[1], re.search(r"= (-?\d+)", line)
        result = int(result[1]) if result else 0
        counts["all calls for the database"] += 1
        if name == "openat":
            counts["opens of the file" if f'{database}"' in line else "other files opened"] += 1
        elif name in ("read", "pread64"):
            counts["reads"] += 1
            counts["bytes read"] += max(result, 0)
        elif name in ("write", "pwrite64"):
            counts["writes"] += 1
            counts["bytes written"] += max(result, 0)
        elif name in ("fsync", "fdatasync"):
            counts["fsyncs"] += 1
        elif name == "fcntl" and "LCK" in line:
            counts["locks"] += 1
    return {key: value / FRAMES for key, value in counts.items()}
