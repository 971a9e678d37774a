# SPDX-License-Identifier: MIT
# fixtures.py: gives every story a clean machine.
import pytest

from support.machine import Machine


@pytest.fixture
def bare():
    """A clean machine without a bus and a daemon."""
    machine = Machine()
    yield machine
    machine.clean()


@pytest.fixture
def machine(bare):
    """A machine with a bus and a daemon."""
    bare.start_bus()
    bare.start_daemon()
    return bare
