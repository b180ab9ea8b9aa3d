// The parser of XML documents, for the DOM alone. Any thread; it keeps nothing from one document to the next.
#pragma once

#include <memory>
#include <string_view>

class XmlTree;

/// Parses a document; skips leading U+FEFF and white space. Returns: null for a text that does not parse, which is not
/// well formed, holds a lone surrogate or a document type, or has more than 8 * 1024 * 1024 characters. May throw
/// std::bad_alloc, also for a document for which the parser would need more than 64 MiB.
std::shared_ptr<XmlTree const> ParseXml(std::wstring_view text);
