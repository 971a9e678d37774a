# SPDX-License-Identifier: MIT
# test_displays.py: the daemon with real X clients on real displays. The stories check what the screens show.
#
# The stations, their displays and the main story are those of the demonstration.
import os

import pytest

from support.displays import BUNDLE, Stations
from support.story import Story


@pytest.fixture
def stations():
    stations = Stations()
    yield stations
    stations.clean()


def login(number):
    return "Login", f"corvane-ls :{number}"


def test_each_stage_of_the_demonstration_is_reached(stations):
    stages = list(Story(stations).stages())

    assert [stage.title for stage in stages] == [
        "The daemon waits",
        "Login windows",
        "A hot key",
        "Keys and clicks from a program",
        "A station is disabled",
        "And enabled again",
        "A login is killed",
        "And is back two seconds later",
        "Everything is stopped",
    ]


def test_a_login_is_relaunched_after_its_display_was_restarted_and_other_logins_stay(stations):
    stations.serve()
    for number in (1, 2, 3):
        stations.start(number, "local-login", "COMMON")
    before = [stations.expect(number, login(number)) for number in (1, 2, 3)]

    stations.screens[2].close()
    stations.wait_gone(before[1][0])
    stations.screens[2].open()

    after = [stations.expect(number, login(number)) for number in (1, 2, 3)]
    assert after[0] == before[0] and after[2] == before[2]
    assert after[1] != before[1]


def test_a_login_started_before_its_display_appears_when_the_display_starts(stations):
    stations.serve()
    stations.screens[3].close()
    stations.start(3, "local-login", "COMMON")
    stations.wait_log(r"Child process died: \d+", count=2)

    stations.screens[3].open()

    stations.expect(3, login(3))


def test_actors_of_one_group_exclude_each_other_on_the_screen(stations):
    stations.serve()
    image = "Image disabled", f"corvane-x11-put-image :1 {BUNDLE} disabled"
    stations.start(1, "local-login", "PCI")
    stations.expect(1, login(1))
    stations.start(1, "disable-station", "PCI")
    stations.expect(1, image, login(1))

    stations.start(1, "press-fkey", "PCI")  # refused: the image runs
    stations.start(1, "init-station", "PCI")
    stations.wait_log("No action needed for INIT_STATION")
    stations.expect(1, image, login(1))
    assert not os.path.exists("/var/log/corvane-pfk1.log")

    stations.stop(1, "press-fkey")  # stops the image, which is in the same group
    stations.expect(1, login(1))
    stations.start(1, "press-fkey", "PCI")
    stations.expect(1, ("Login, key F1", "corvane-ls :1"))
