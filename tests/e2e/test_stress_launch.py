# SPDX-License-Identifier: MIT
# test_stress_launch.py: forks are safe whatever other threads do at that moment.
#
# No launch hangs between fork and exec, no child crashes there, and each actor has the signals of the start.
import os
import re
import subprocess

from stress import report, size, time_limit
from support.machine import SANITIZER
from support.place import PROGRAMS

pytestmark = time_limit
LAUNCH_STRESS = os.environ["CORVANE_LAUNCH_STRESS"]


def test_every_launch_reaches_its_program_while_eight_threads_log_without_pause(bare):
    for program in PROGRAMS:
        bare.remove(program)
        os.symlink(LAUNCH_STRESS, f"/run/stage/actors/bin/{program}")
    launches = size(480, 5040)
    with open("/run/stage/figures", "w+") as output:  # a launch that hangs would keep a pipe open
        run = subprocess.run(
            [LAUNCH_STRESS, str(launches)],
            env=bare.environment(),
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            timeout=600,
        )
        output.seek(0)
        text = output.read()
    figures = re.fullmatch(r"launched (\d+) stuck (\d+) clean (\d+)\n", text)
    assert figures, text
    launched, stuck, clean = map(int, figures.groups())
    report("with 8 threads that log", launched=launched, stuck=stuck, with_signals_as_at_start=clean)
    assert (stuck, clean) == (0, launched) and launched >= launches and run.returncode == 0


def test_no_child_crashes_while_the_creation_of_another_thread_fails(bare):
    forks = size(2000, 200_000 if not SANITIZER else 2000)
    run = subprocess.run(
        [f"{os.path.dirname(LAUNCH_STRESS)}/fork-stress", str(forks)],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=1300,
    )
    figures = re.fullmatch(r"forks (\d+) crashed (\d+) refused (\d+)\n", run.stdout)
    assert figures, (run.returncode, run.stdout, run.stderr)
    made, crashed, refused = map(int, figures.groups())
    report("with creations that fail", forks=made, crashed=crashed, creations_refused=refused)
    assert (made, crashed, run.returncode) == (forks, 0, 0) and refused > forks
