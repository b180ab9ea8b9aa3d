// Building the tree from expat's events. Expat takes time in proportion to the document, whatever it holds, and has no
// limit for nesting or for the length of a text; what it may take of memory is limited here.
#include "platform/xml/XmlParse.h"

#include "platform/text/Utf8.h"
#include "platform/xml/XmlTree.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>

#include <expat.h>
#include <malloc.h>

namespace {

constexpr std::size_t kLongestDocument = 8 * 1024 * 1024; // characters
constexpr std::size_t kSmallestBlock = 64 * 1024;         // characters handed to the parser at a time
constexpr std::size_t kLongestCharacter = 4;              // bytes
constexpr std::size_t kParserMemory = 64 * 1024 * 1024;   // bytes

// --- The parser's memory -------------------------------------------------------------------------------------------

// Expat keeps some 150 bytes for each open element and 70 for each different name, of which a byte or two may have come
// in. The functions that it allocates with have no context, but a document is parsed in one go by one thread.
thread_local std::size_t t_cbParser = 0;

void *Reallocate(void *pOld, std::size_t cb) {
  std::size_t const cbOld = malloc_usable_size(pOld);
  if (cb > kParserMemory || t_cbParser - cbOld > kParserMemory - cb)
    return nullptr;
  void *const pNew = std::realloc(pOld, cb);
  if (pNew)
    t_cbParser += malloc_usable_size(pNew) - cbOld;
  return pNew;
}

void *Allocate(std::size_t cb) { return Reallocate(nullptr, cb); }

void Free(void *p) {
  t_cbParser -= malloc_usable_size(p);
  std::free(p);
}

constexpr XML_Memory_Handling_Suite kMemory = {Allocate, Reallocate, Free};

// --- Text ----------------------------------------------------------------------------------------------------------

bool IsBlank(std::string_view text) { return std::all_of(text.begin(), text.end(), IsXmlBlank); }

/// The bytes that the text takes in UTF-8. False for a surrogate that is left alone, which is no character of XML.
bool MeasureUtf8(std::wstring_view text, std::size_t &cb) {
  cb = AsciiPrefix(text);
  for (WCHAR const *p = text.data() + cb, *const pEnd = text.data() + text.size(); p != pEnd;) {
    char32_t const character = NextCharacter(p, pEnd);
    if (IsSurrogate(character))
      return false;
    EncodeUtf8(character, [&cb](char) { ++cb; });
  }
  return true;
}

/// Takes up to `cchMost` units off the front of the text, whole characters only. Returns the bytes put.
std::size_t TakeUtf8(std::wstring_view &text, std::size_t cchMost, char *pPut) {
  char *const pStart = pPut;
  std::wstring_view const block = text.substr(0, cchMost);
  std::size_t const cchAscii = AsciiPrefix(block);
  CopyAscii(block.substr(0, cchAscii), pPut);
  pPut += cchAscii;
  WCHAR const *p = block.data() + cchAscii;
  WCHAR const *const pEnd = text.data() + text.size(); // the block's last character may need one unit more
  while (p < block.data() + block.size())
    EncodeUtf8(NextCharacter(p, pEnd), [&pPut](char c) { *pPut++ = c; });
  text.remove_prefix(static_cast<std::size_t>(p - text.data()));
  return static_cast<std::size_t>(pPut - pStart);
}

} // namespace

/// Turns the parser's events into nodes. A handler that runs out of memory stops the parser; none throws, since the
/// parser is written in C.
class XmlTreeBuilder {
public:
  /// For a document of `cb` bytes. May throw std::bad_alloc.
  XmlTreeBuilder(XML_Parser pParser, std::size_t cb) : m_pParser(pParser), m_pTree(std::make_shared<XmlTree>()) {
    m_pTree->m_texts = std::make_unique_for_overwrite<char[]>(m_cbTexts = cb + 1);
    m_pTree->m_texts[m_uUsed++] = 0; // the document's own
    XML_SetUserData(pParser, this);
    XML_SetElementHandler(
        pParser,
        [](void *p, XML_Char const *szName, XML_Char const **pszAttributes) {
          Handle(p, [=](XmlTreeBuilder &builder) { builder.StartElement(szName, pszAttributes); });
        },
        [](void *p, XML_Char const *) { Handle(p, [](XmlTreeBuilder &builder) { builder.EndElement(); }); });
    XML_SetCharacterDataHandler(pParser, [](void *p, XML_Char const *pText, int cb) {
      Handle(p, [=](XmlTreeBuilder &builder) { builder.AddText({pText, static_cast<std::size_t>(cb)}); });
    });
    XML_SetCdataSectionHandler(
        pParser, [](void *p) { Handle(p, [](XmlTreeBuilder &builder) { builder.OpenText(NODE_CDATA_SECTION); }); },
        [](void *p) { Handle(p, [](XmlTreeBuilder &builder) { builder.CloseText(); }); });
    XML_SetCommentHandler(pParser, [](void *p, XML_Char const *szText) {
      Handle(p, [=](XmlTreeBuilder &builder) { builder.AddLeaf(NODE_COMMENT, {szText}); });
    });
    XML_SetProcessingInstructionHandler(pParser, [](void *p, XML_Char const *szTarget, XML_Char const *szText) {
      Handle(p, [=](XmlTreeBuilder &builder) { builder.AddLeaf(NODE_PROCESSING_INSTRUCTION, {szTarget, szText}); });
    });
    // A document type declaration ends the parsing: no entity of the sender's is ever expanded or loaded.
    XML_SetStartDoctypeDeclHandler(pParser, [](void *p, XML_Char const *, XML_Char const *, XML_Char const *, int) {
      XML_StopParser(static_cast<XmlTreeBuilder *>(p)->m_pParser, XML_FALSE);
    });
  }

  bool OutOfMemory() const { return m_bOutOfMemory; }
  std::size_t Events() const { return m_uEvents; }
  std::shared_ptr<XmlTree const> Finish() {
    m_pTree->At(XmlTree::kDocument).uEnd = m_pTree->m_uCount;
    return std::move(m_pTree);
  }

private:
  /// Runs a handler's work. Some events still come after the parser was stopped.
  template <class Work> static void Handle(void *p, Work const &work) noexcept {
    auto &builder = *static_cast<XmlTreeBuilder *>(p);
    ++builder.m_uEvents;
    if (builder.m_bOutOfMemory)
      return;
    try {
      work(builder);
    } catch (std::bad_alloc const &) {
      builder.m_bOutOfMemory = true;
      XML_StopParser(builder.m_pParser, XML_FALSE);
    }
  }

  void StartElement(XML_Char const *szName, XML_Char const **pszAttributes) {
    m_pTree->At(m_uElement).bHasElements = true;
    bool bKeepsBlanks = m_pTree->At(m_uElement).bKeepsBlanks;
    m_uElement = AddLeaf(NODE_ELEMENT, {szName});
    for (; *pszAttributes; pszAttributes += 2) {
      AddLeaf(NODE_ATTRIBUTE, {pszAttributes[0], pszAttributes[1]});
      if (std::strcmp(pszAttributes[0], "xml:space") != 0)
        continue;
      bool const bPreserve = std::strcmp(pszAttributes[1], "preserve") == 0;
      if (bPreserve || std::strcmp(pszAttributes[1], "default") == 0)
        bKeepsBlanks = bPreserve;
    }
    m_pTree->At(m_uElement).bKeepsBlanks = bKeepsBlanks;
  }

  void EndElement() {
    CloseText();
    XmlTree::Node &element = m_pTree->At(m_uElement);
    element.uEnd = m_pTree->m_uCount;
    m_uElement = element.uParent;
  }

  /// A text comes in pieces, which make one node until another event comes.
  void AddText(std::string_view text) {
    if (m_uOpenText == XmlTree::kNone)
      OpenText(NODE_TEXT);
    Put(text);
  }

  void OpenText(DOMNodeType type) {
    CloseText();
    m_uOpenText = Add(type);
  }

  void CloseText() {
    if (m_uOpenText == XmlTree::kNone)
      return;
    XmlTree::Node &node = m_pTree->At(m_uOpenText);
    std::string_view const text(m_pTree->m_texts.get() + node.uText, m_uUsed - node.uText);
    node.bHidden = node.type == NODE_TEXT && !m_pTree->At(node.uParent).bKeepsBlanks && IsBlank(text);
    m_uOpenText = XmlTree::kNone;
    Put({"\0", 1});
  }

  XmlTree::Index AddLeaf(DOMNodeType type, std::initializer_list<char const *> texts) {
    CloseText();
    XmlTree::Index const uNode = Add(type);
    for (char const *const szText : texts)
      Put({szText, std::strlen(szText) + 1});
    return uNode;
  }

  XmlTree::Index Add(DOMNodeType type) {
    XmlTree::Index const uNode = m_pTree->Append(type, m_uElement);
    m_pTree->At(uNode).uText = static_cast<std::uint32_t>(m_uUsed);
    return uNode;
  }

  void Put(std::string_view text) {
    if (text.size() > m_cbTexts - m_uUsed)
      throw std::bad_alloc(); // no document gets here
    std::memcpy(m_pTree->m_texts.get() + m_uUsed, text.data(), text.size());
    m_uUsed += text.size();
  }

  XML_Parser const m_pParser;
  std::shared_ptr<XmlTree> m_pTree;
  std::size_t m_cbTexts = 0;
  std::size_t m_uUsed = 0; // bytes of the texts
  XmlTree::Index m_uElement = XmlTree::kDocument;
  XmlTree::Index m_uOpenText = XmlTree::kNone;
  std::size_t m_uEvents = 0;
  bool m_bOutOfMemory = false;
};

std::shared_ptr<XmlTree const> ParseXml(std::wstring_view text) {
  std::size_t cb = 0;
  if (text.size() > kLongestDocument)
    return nullptr;
  text.remove_prefix(std::min(text.find_first_not_of(L" \t\r\n\uFEFF"), text.size()));
  if (text.empty() || !MeasureUtf8(text, cb))
    return nullptr;
  // The encoding that is given here overrides the declared one.
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> const parser(
      XML_ParserCreate_MM("UTF-8", &kMemory, nullptr), XML_ParserFree);
  if (!parser)
    throw std::bad_alloc();
  XmlTreeBuilder builder(parser.get(), cb);
  // The parser starts anew with a tag or comment that a block left unfinished. So after a block without an event the
  // next one is larger: else the time for a long tag would grow with the square of its length.
  for (std::size_t cch = kSmallestBlock; !text.empty();) {
    std::size_t const uEvents = builder.Events();
    std::size_t const cchBlock = std::min(cch, text.size());
    auto *const pBuffer = static_cast<char *>(
        XML_GetBuffer(parser.get(), static_cast<int>(std::min((cchBlock + 1) * kLongestCharacter, cb))));
    if (!pBuffer)
      throw std::bad_alloc();
    std::size_t const cbBlock = TakeUtf8(text, cchBlock, pBuffer);
    cb -= cbBlock;
    if (XML_ParseBuffer(parser.get(), static_cast<int>(cbBlock), text.empty()) != XML_STATUS_OK) {
      if (builder.OutOfMemory() || XML_GetErrorCode(parser.get()) == XML_ERROR_NO_MEMORY)
        throw std::bad_alloc();
      return nullptr;
    }
    cch = builder.Events() == uEvents ? 2 * cch : kSmallestBlock;
  }
  return builder.Finish();
}
