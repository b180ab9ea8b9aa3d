"""Who may log in, and the tokens that have been issued.

Members come from a JSON file: account -> {"password", "username", "reply"}. "reply" overrides or adds elements of the
login reply ({"firstloginUrl": "https://..."}); null leaves an element out.
"""

import json
import secrets
from pathlib import Path
from typing import Any, Dict, Mapping, Optional

# The member that is built in.
USER = "mika@kestrelhub.example"
PASSWORD = "tulip & birch = 100%"
DEFAULT_MEMBERS: Mapping[str, Mapping[str, Any]] = {USER: {"password": PASSWORD, "username": "Mika Ångström"}}


class Members:
    """The member list and its sessions. A token is valid for the life of the process."""

    def __init__(self, file: Optional[Path]) -> None:
        self._members = json.loads(file.read_text("utf-8")) if file else DEFAULT_MEMBERS
        self._accounts: Dict[str, str] = {}

    def log_in(self, account: str, password: str) -> Optional[str]:
        """Returns a new token, or None for an unknown account or a wrong password."""
        member = self._members.get(account)
        if member is None or member["password"] != password:
            return None
        token = secrets.token_hex(16)
        self._accounts[token] = account
        return token

    def account_of(self, token: str) -> Optional[str]:
        """Returns the account that the token was issued to, or None for an unknown token."""
        return self._accounts.get(token)

    def details(self, account: str) -> Mapping[str, Any]:
        """Returns the member's entry."""
        return self._members[account]
