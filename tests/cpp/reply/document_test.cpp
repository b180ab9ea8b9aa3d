// Replies as documents: which elements are found, and how failures of the DOM are told apart.
#include "reply/Document.h"
#include "tests/cpp/platform/TestHooks.h"

#include <gtest/gtest.h>

TEST(ReplyDocument, KeepsAMissingElementApartFromAFailedQuery) {
  CComPtr<IXMLDOMDocument> const pDocument = LoadReply("<info><a/></info>");
  CString strText(L"old");
  EXPECT_EQ(ReadElement(pDocument, L"info/d", strText), ElementState::Missing);
  EXPECT_EQ(ReadElement(nullptr, L"info/a", strText), ElementState::Missing);
  {
    ScopedTestHooks const hooks({.fault = [](FaultPoint, DWORD *) { return true; }});
    EXPECT_EQ(ReadElement(pDocument, L"info/a", strText), ElementState::QueryFailed);
    EXPECT_EQ(LoadReply("<info/>"), nullptr);
  }
  EXPECT_STREQ(strText, L"old") << "changes only when the element was found";
  EXPECT_EQ(ReadElement(pDocument, L"info/a", strText), ElementState::Found);
  EXPECT_STREQ(strText, L"") << "an empty element is an element";
}
