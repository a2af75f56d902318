"""hold.py MOUNT_POINT COMMAND ...: starts a mount and prints the seconds to the first listing. It stays the parent of
the mount's processes, also when they go to the background, so that its caller can find them. It ends with the last."""
import contextlib
import ctypes
import os
import signal
import subprocess
import sys
import time

PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36


def device(point):
    with contextlib.suppress(OSError):
        return os.stat(point).st_dev


for option, value in ((PR_SET_PDEATHSIG, signal.SIGTERM), (PR_SET_CHILD_SUBREAPER, 1)):
    ctypes.CDLL(None).prctl(option, value)
point, *command = sys.argv[1:]
empty = device(point)
start = time.perf_counter()
child = subprocess.Popen(command, stdout=sys.stderr)
while device(point) in (None, empty):
    if child.poll():
        sys.exit(f"{command[0]} has ended")
    time.sleep(0.0001)
os.listdir(point)
print(time.perf_counter() - start, flush=True)
with contextlib.suppress(ChildProcessError):
    while True:
        os.wait()
