# SPDX-License-Identifier: MIT
# conftest.py: the fixtures for every story of this folder. pytest finds them here.
from hostile import ground, own_limit  # noqa: F401
from support.fixtures import bare, machine  # noqa: F401
