"""The error numbers of logins, of blocking requests and of the trace, with a sentence for each."""

from __future__ import annotations

import enum
from typing import Optional

__all__ = ["ErrorNumber", "error_of_hresult", "explain_error"]


class ErrorNumber(enum.IntEnum):
    """An error number of the module. ``sentence`` says what it means, as the ``errMsg`` of a blocking request does."""

    sentence: str

    def __new__(cls, number: int, sentence: str) -> ErrorNumber:
        member = int.__new__(cls, number)
        member._value_ = number
        member.sentence = sentence
        return member

    FILE_NOT_FOUND = 2, "A file does not exist."
    PATH_NOT_FOUND = 3, "A file's folder does not exist."
    TOO_MANY_OPEN_FILES = 4, "Too many files are open."
    ACCESS_DENIED = 5, "A file may not be read, or is a folder."
    NOT_ENOUGH_MEMORY = 8, "There is not enough memory for the request."
    OUTOFMEMORY = 14, "There is not enough memory for the upload."
    READ_FAULT = 30, "A file cannot be read."
    INVALID_NAME = 123, "A file's path is not valid."
    INTERNET_TIMEOUT = 12002, "The server did not answer in time."
    INTERNET_INVALID_URL = 12005, "The address of the server or of the page is not valid."
    INTERNET_NAME_NOT_RESOLVED = 12007, "The server's name could not be found."
    INTERNET_OPERATION_CANCELLED = 12017, "The request was closed while it ran."
    INTERNET_INCORRECT_HANDLE_STATE = 12019, "The request is not in the right state for this operation."
    INTERNET_CANNOT_CONNECT = 12029, "The server could not be reached, or refused the connection."
    INTERNET_CONNECTION_ABORTED = 12030, "The connection with the server was lost."
    INTERNET_CONNECTION_RESET = 12031, "The server reset the connection."
    INTERNET_SEC_CERT_DATE_INVALID = 12037, "The server's certificate has expired or is not valid yet."
    INTERNET_SEC_CERT_CN_INVALID = 12038, "The server's certificate was issued for another name."
    INTERNET_INVALID_CA = 12045, "The issuer is not trusted, or SSL_CERT_FILE names no readable certificates."
    INTERNET_SEC_CERT_REV_FAILED = 12057, "It could not be checked whether the server's certificate was revoked."
    HTTP_INVALID_SERVER_RESPONSE = 12152, "The server's reply is not valid HTTP, or too long."
    INTERNET_SECURITY_CHANNEL_ERROR = 12157, "A secure connection with the server could not be set up."
    INTERNET_SEC_CERT_REVOKED = 12170, "The server's certificate was revoked."
    INTERNET_DECODING_FAILED = 12175, "The server's reply could not be decoded."


def explain_error(number: int) -> str:
    """Returns the number's sentence as a part of one, with the number: "the server reset the connection (12031)"."""
    try:
        sentence = ErrorNumber(number).sentence  # type: ignore[call-arg]  # which takes __new__ for the look-up
    except ValueError:
        return f"error {number}"
    return f"{sentence[0].lower()}{sentence[1:-1]} ({number})"


def error_of_hresult(value: int) -> Optional[int]:
    """Returns the error number in an HRESULT of the form 0x8007nnnn, as the trace shows them; None for any other."""
    return value & 0xFFFF if value & 0xFFFF0000 == 0x80070000 else None
