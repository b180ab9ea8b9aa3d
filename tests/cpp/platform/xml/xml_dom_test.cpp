// What parses, what a path finds, and what nodes show of their text and children, as on the native platform.
#include "tests/cpp/platform/xml/xml_dom.h"

#include <sstream>
#include <string>
#include <utility>

namespace {

TEST(XmlDom, LoadsWhatIsWellFormedAndRefusesTheRest) {
  WCHAR const lone[] = {'<', 'r', '>', 0xD83D, '<', '/', 'r', '>', 0};
  std::pair<HRESULT, WCHAR const *> const rows[] = {
      {S_OK, L"<!-- c --><?p i?><x:r a:b:c=''>\u0080\U0001F600</x:r><!-- c -->"},
      {S_FALSE, lone},
      {S_FALSE, L"\u00EF\u00BB\u00BF<r/>"},
  };
  for (auto const &[hr, xml] : rows) {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, L"<old/>"), S_OK);
    EXPECT_EQ(Load(document, xml), hr) << testing::PrintToString(xml);
    EXPECT_EQ(ChildrenOf(document).empty(), hr != S_OK) << "a failed load empties the document";
  }
  std::wistringstream malformed(
      L"  |<r>|<r></R>|<r/>junk|<r/><r/>|<r>\u0001</r>|<r>a & b</r>|<r>&nbsp;</r>|<r>&#0;</r>|"
      L"<r>&#xFFFE;</r>|<r>&#xD800;</r>|<r>]]></r>|<r><!-- -- --></r>|<r a='<'/>|"
      L"<r a='1' a='2'/>|<r><?xml version='1.0'?></r>");
  for (std::wstring xml; std::getline(malformed, xml, L'|');)
    EXPECT_EQ(Load(NewDocument(), xml.c_str()), S_FALSE) << testing::PrintToString(xml);
}

TEST(XmlDom, PathsKeepFoundAndNotFoundApart) {
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, L"<INFO xmlns='urn:d' xmlns:x='urn:x'><a><c/></a><a><b>second</b></a><x:p>q</x:p>"
                           L"<b>outer</b></INFO>"),
            S_OK);
  struct Row {
    WCHAR const *path;
    HRESULT hr;
    WCHAR const *text;
  };
  Row const rows[] = {{L"INFO/b", S_OK, L"outer"},   {L"INFO/a/b", S_OK, L"second"}, {L"INFO/x:p", S_OK, L"q"},
                      {L"INFO/p", S_FALSE, nullptr}, {L"info/b", S_FALSE, nullptr},  {L"b", S_FALSE, nullptr}};
  for (Row const &row : rows) {
    CComPtr<IXMLDOMNode> node;
    EXPECT_EQ(document->selectSingleNode(CComBSTR(row.path), &node), row.hr) << testing::PrintToString(row.path);
    ASSERT_EQ(node != nullptr, row.text != nullptr) << testing::PrintToString(row.path);
    if (row.text) {
      EXPECT_EQ(TextOf(node), row.text);
    }
  }
  CComPtr<IXMLDOMNode> root;
  EXPECT_EQ(NewDocument()->selectSingleNode(CComBSTR(L"INFO"), &root), S_FALSE) << "an empty document";
}

TEST(XmlDom, TextAndChildrenLeaveOutWhatIsNoContent) {
  WCHAR const *const rows[][3] = {
      {L"<r> \u00A0 a\r\nb &#32;</r>", L"\u00A0 a\nb", L"#text|"},
      {L"<r>\n <a>1</a>\n <b>2</b>\n</r>", L"1 2", L"a|b|"},
      {L"<r>0<a><b>1</b>\n \n</a><c/>\t<!--n--> <b>2</b></r>", L"01 2", L"#text|a|c|#comment|b|"},
      {L"<r>lead <b>in</b> <c>y</c> trail</r>", L"lead in y trail", L"#text|b|c|#text|"},
      {L"<r><!--n-->a<?p i?><![CDATA[<&> ]]>b</r>", L"a<&> b", L"#comment|#text|p|#cdata-section|#text|"},
      {L"<r xml:space='preserve'> <a/> </r>", L"  ", L"#text|a|#text|"},
      {L"<r xml:space='preserve'><a xml:space='default'> <b xml:space='?'> </b></a> </r>", L" ", L"a|#text|"},
      {L"<r xmlns:x='u'>&lt;&#x4E2D;&amp;&#x1F600;<x:a/></r>", L"<\u4E2D&\U0001F600", L"#text|x:a|"}};
  for (auto const &[xml, text, children] : rows) {
    CComPtr<IXMLDOMNode> const root = RootOf(xml);
    EXPECT_EQ(TextOf(root), text) << testing::PrintToString(xml);
    EXPECT_EQ(ChildrenOf(root), children) << testing::PrintToString(xml);
  }
}

} // namespace
