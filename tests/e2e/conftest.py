# SPDX-License-Identifier: MIT
# conftest.py: the fixtures that every story of this folder may use.
from support.fixtures import bare, machine  # noqa: F401: pytest finds them here
