"""Finds out why an upload failed, which its events do not say: records the module's trace, which does, in memory."""

from __future__ import annotations

import os
import re
import sys
from typing import Optional

from .errors import error_of_hresult

__all__ = ["record_causes"]

REGISTRY = "/etc/skiffport/registry.reg"
TRACING_REGISTRY = b"""Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]
"DumpMsg"=dword:00000001
"DumpInETW"=dword:00000000
"""
END_OF_UPLOAD = re.compile(rb"Background Upload \(End\) hr\(0x([0-9a-f]+)\)")
LONGEST_LINE = 8192  # bytes; longer than any

_record: Optional[int] = None  # its descriptor


def record_causes() -> bool:
    """Makes failed uploads of this process know their cause. Returns whether it can.

    Call it before the process creates the first object of the module. It switches the trace on for the process, and
    directs it to memory instead of standard error. It does nothing on Windows, or where a registry file exists or
    SKIFFPORT_REGISTRY is set: there the user has decided about the trace.
    """
    global _record
    if sys.platform == "win32" or "SKIFFPORT_REGISTRY" in os.environ or os.path.exists(REGISTRY):
        return _record is not None
    _record = os.memfd_create("trace")
    os.environ["SKIFFPORT_DEBUG_OUTPUT"] = f"/proc/self/fd/{_record}"
    os.environ["SKIFFPORT_REGISTRY"] = tracing_registry()
    return True


def tracing_registry() -> str:
    """Returns the path of a registry file that switches the trace on. It is in memory: whatever ends the process, no
    file is left."""
    if sys.platform == "win32":
        raise NotImplementedError  # the registry is the system's
    descriptor = os.memfd_create("registry")
    os.write(descriptor, TRACING_REGISTRY)
    return f"/proc/self/fd/{descriptor}"


def take_cause() -> Optional[int]:
    """Returns the error number of the upload whose completion arrives; None if it is not known or there is none.

    Call it in the uploader's callable. Empties the record.
    """
    if sys.platform == "win32":
        return None
    if _record is None:
        return None
    size = os.fstat(_record).st_size
    found = END_OF_UPLOAD.findall(os.pread(_record, LONGEST_LINE, max(size - LONGEST_LINE, 0)))
    os.ftruncate(_record, 0)
    return error_of_hresult(int(found[-1], 16)) if found else None
