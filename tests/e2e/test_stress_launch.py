# SPDX-License-Identifier: MIT
# test_stress_launch.py: no launch gets stuck between fork and exec, and no actor finds its signals changed, however
# many threads hold locks at the moment of the fork; and no child crashes in it.
import os
import re
import subprocess

from support.machine import SANITIZER
from support.place import PROGRAMS
from stress import report, size, time_limit

pytestmark = time_limit
LAUNCH_STRESS = os.environ["CORVANE_LAUNCH_STRESS"]


def test_each_launch_beside_eight_threads_that_log_without_pause_reaches_its_program(bare):
    for program in PROGRAMS:
        bare.remove(program)
        os.symlink(LAUNCH_STRESS, f"/run/stage/actors/bin/{program}")
    launches = size(480, 5040)
    with open("/run/stage/figures", "w+") as output:  # not a pipe: a launch that is stuck would hold it open
        run = subprocess.run([LAUNCH_STRESS, str(launches)], env=bare.environment(), stdin=subprocess.DEVNULL,
                             stdout=output, stderr=subprocess.STDOUT, timeout=600)
        output.seek(0)
        said = output.read()
    figures = re.fullmatch(r"launched (\d+) stuck (\d+) clean (\d+)\n", said)
    assert figures, said
    launched, stuck, clean = map(int, figures.groups())
    report("beside 8 threads that log", launched=launched, stuck=stuck, with_signals_as_at_start=clean)
    assert (stuck, clean) == (0, launched) and launched >= launches and run.returncode == 0


def test_no_fork_crashes_beside_creations_of_threads_that_fail(bare):
    forks = size(2000, 200_000 if not SANITIZER else 2000)
    run = subprocess.run([f"{os.path.dirname(LAUNCH_STRESS)}/fork-stress", str(forks)], stdin=subprocess.DEVNULL,
                         capture_output=True, text=True, timeout=1300)
    figures = re.fullmatch(r"forks (\d+) crashed (\d+) refused (\d+)\n", run.stdout)
    assert figures, (run.returncode, run.stdout, run.stderr)
    made, crashed, refused = map(int, figures.groups())
    report("beside creations that fail", forks=made, crashed=crashed, creations_refused=refused)
    assert (made, crashed, run.returncode) == (forks, 0, 0) and refused > forks
