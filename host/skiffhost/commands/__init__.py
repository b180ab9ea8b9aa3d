"""The subcommands, a module for each group. A module's ``register`` adds its parsers and names their functions."""

from . import account, publish, service

GROUPS = (account, publish, service)
