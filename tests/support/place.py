# SPDX-License-Identifier: MIT
# place.py: where stories happen: the daemon's fixed paths, the stage for everything else, and what they
# leave.
#
# tools/private-machine says in CORVANE_MACHINE of what kind this machine is. On a private one everything in
# /run and /var/log is the story's. In a container only the daemon's own files and the stage are.
import glob
import os
import shutil

LOG = "/var/log/corvane-cs.log"
RUN = "/run/corvane"
PID_FILE = "/var/run/corvane/corvane-cs.pid"
STAGE = "/run/stage"
IMAGES = "/usr/share/corvane"  # where the daemon looks for them
PROGRAMS = ("corvane-ls", "corvane-pfk", "corvane-x11-put-image", "corvane-xh")

NAME = "com.corvane.ControlServer"
PATH = "/com/corvane/ControlServer"


def is_private():
    """Whether /run, /var/log, mounts and pids are this process's own."""
    return os.environ["CORVANE_MACHINE"] == "private"


def set_stage():
    """Makes the directories that daemon and story need; fails where another story still is."""
    if "CORVANE_MACHINE" not in os.environ:
        raise RuntimeError("stories run inside tools/private-machine only")
    if os.path.exists(STAGE):
        clear_stage()
    if traces := [*glob.glob("/var/log/corvane-*"), *glob.glob(f"{RUN}/*")]:
        raise RuntimeError(f"stories need a machine without a daemon: {' '.join(traces)} is there")
    os.makedirs(RUN, exist_ok=True)
    for directory in ("bin", "records", "behaviour"):
        os.makedirs(f"{STAGE}/actors/{directory}")


def clear_stage():
    """Removes what a story and its daemon made."""
    traces = ["/run/*", "/run/.*", "/var/log/*", "/var/log/.*"]
    if not is_private():
        traces = [RUN, STAGE, "/var/log/corvane-*"]
    for pattern in traces:
        for path in glob.glob(pattern):
            remove(path)
    if os.path.islink(IMAGES) and os.readlink(IMAGES).startswith(STAGE):
        os.unlink(IMAGES)


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    else:
        os.unlink(path)
