"""Who may log in, and the tokens that have been issued. A token is valid for the life of the process."""

import secrets
from typing import Dict, Optional

# The only member.
USER = "mika@kestrelhub.example"
PASSWORD = "tulip & birch = 100%"
NAME = "Mika Ångström"


class Members:
    def __init__(self) -> None:
        self._accounts: Dict[str, str] = {}

    def log_in(self, account: str, password: str) -> Optional[str]:
        """Returns a new token, or None for an unknown account or a wrong password."""
        if (account, password) != (USER, PASSWORD):
            return None
        token = secrets.token_hex(16)
        self._accounts[token] = account
        return token

    def account_of(self, token: str) -> Optional[str]:
        """Returns the account that the token was issued to, or None for an unknown token."""
        return self._accounts.get(token)
