"""The subcommands, one module per group. A module's ``register`` adds the group's parsers and their functions."""

from . import account, publish, service

GROUPS = (account, publish, service)
