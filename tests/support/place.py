# SPDX-License-Identifier: MIT
# place.py: the fixed paths of the daemon, and the stage, the directory for all other files of a story.
#
# tools/private-machine sets CORVANE_MACHINE to the kind of this machine. On a private machine, everything in
# /run and /var/log belongs to the story. In a container, only the stage and the daemon's files belong to it.
import glob
import os
import shutil

LOG = "/var/log/corvane-cs.log"
RUN = "/run/corvane"
PID_FILE = "/var/run/corvane/corvane-cs.pid"
STAGE = "/run/stage"
IMAGES = "/usr/share/corvane"  # the daemon's path
PROGRAMS = ("corvane-ls", "corvane-pfk", "corvane-x11-put-image", "corvane-xh")

NAME = "com.corvane.ControlServer"
PATH = "/com/corvane/ControlServer"


def is_private():
    """Whether /run, /var/log, the mounts and the pids belong to the story alone."""
    return os.environ["CORVANE_MACHINE"] == "private"


def set_stage():
    """Makes the directories that the daemon and the story need; fails if a daemon has left files."""
    if "CORVANE_MACHINE" not in os.environ:
        raise RuntimeError("stories run only inside tools/private-machine")
    if os.path.exists(STAGE):
        clear_stage()
    if traces := [*glob.glob("/var/log/corvane-*"), *glob.glob(f"{RUN}/*")]:
        raise RuntimeError(f"stories need a machine without a daemon, but found {' '.join(traces)}")
    os.makedirs(RUN, exist_ok=True)
    for directory in ("actors/bin", "actors/records", "actors/behaviour", "preload"):
        os.makedirs(f"{STAGE}/{directory}")


def clear_stage():
    """Removes the files that a story and its daemon made."""
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
