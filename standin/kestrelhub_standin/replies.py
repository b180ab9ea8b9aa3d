"""XML replies: every reply of the service is one small document with a Content-Length.

Documents are ASCII with character references, so they read the same in any code page that the client assumes.
"""

import re
import xml.etree.ElementTree as ElementTree
from typing import Mapping

from aiohttp import web

_NOT_IN_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


class Refusal(Exception):
    """Refuses a request, with an HTTP status of 400 or more and a message for the member."""

    def __init__(self, status: int, text: str) -> None:
        super().__init__(text)
        self.status = status
        self.text = text


def add_element(parent: ElementTree.Element, name: str, text: str) -> ElementTree.Element:
    """Adds a child with that text. Characters that XML does not allow become question marks."""
    child = ElementTree.SubElement(parent, name)
    child.text = _NOT_IN_XML.sub("?", text)
    return child


def document(root: ElementTree.Element, status: int = 200) -> web.Response:
    """Returns a reply that holds the document."""
    return web.Response(status=status, body=ElementTree.tostring(root), content_type="text/xml", charset="us-ascii")


def flat_document(root: str, children: Mapping[str, str], status: int = 200) -> web.Response:
    """Returns a reply with a root and one level of text elements, in order."""
    element = ElementTree.Element(root)
    for name, text in children.items():
        add_element(element, name, text)
    return document(element, status)
