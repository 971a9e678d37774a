# SPDX-License-Identifier: MIT
# fixtures.py: hands a clean machine to every story.
import pytest

from support.machine import Machine


@pytest.fixture
def bare():
    """A clean machine on which nothing runs yet."""
    machine = Machine()
    yield machine
    machine.clean()


@pytest.fixture
def machine(bare):
    """A machine with a bus and a daemon that serves it."""
    bare.start_bus()
    bare.start_daemon()
    return bare
