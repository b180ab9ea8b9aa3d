// Running out of memory: each allocation of an operation fails once. Each time the operation must end as described and
// leave nothing behind; the last time, when none fails, it must succeed.
#include "platform/base/LastError.h"
#include "reply/Document.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"
#include "tests/cpp/upload/receiver.h"
#include "tests/torture/allocator.h"
#include "upload/Uploader.h"

#include <openssl/err.h>

#include <set>

namespace {

using Results = std::set<DWORD>;

/// Runs the operation with each allocation of C++ failing, and with each `step`th of all. It returns 0 if it succeeds.
template <class Operation> void FailEach(Results const &failures, int step, Operation operation) {
  DWORD result = operation();
  for (unsigned const which : {kOnlyNew, kAny})
    for (int n = 0, hasFailed = 1; hasFailed; n += which == kOnlyNew ? 1 : step) {
      bool isGrowing = true; // what stays once is a cache; what stays each time is lost
      for (int again = 0; again < 3 && isGrowing; ++again) {
        long const live = LiveBlocks();
        FailAllocation(n, which);
        result = operation();
        hasFailed = EndFailing();
        ERR_clear_error(); // OpenSSL keeps the texts of the last errors
        isGrowing = LiveBlocks() > live;
        EXPECT_TRUE(result == 0 || failures.contains(result)) << "allocation " << n << ": " << result;
      }
      EXPECT_FALSE(isGrowing) << "allocation " << n << ": a leak";
    }
  EXPECT_EQ(result, 0U) << "when none fails";
}

TEST(Memory, AReplyIsReadOrNot) {
  std::string reply = "<a><b>x</b>";
  for (int n = 0; n < 300; ++n)
    reply += "<c d='e'>f<!-- g --> <![CDATA[h]]></c>";
  reply += "</a>";
  FailEach({1, ERROR_NOT_ENOUGH_MEMORY}, 1, [&reply]() -> DWORD {
    try {
      CString text;
      return ReadElement(LoadReply(reply), L"a/b", text) == ElementState::Found ? 0 : 1;
    } catch (std::bad_alloc const &) {
      return ERROR_NOT_ENOUGH_MEMORY;
    }
  });
}

TEST(Memory, AnUploadEndsWithItsErrorNumber) {
  ScopedTestHooks const hooks({.sleep = [](DWORD) {}});
  Peer const peer("reply --tls good --body '<a/>'");
  std::string const path = Folder() + "/file";
  std::ofstream(path) << std::string(70'000, 'x');
  UploadJob job;
  job.SetUrl("https://good.test/servlet/uploadTemplate");
  job.AddField("title", "abc");
  job.AddFile(L"PIPfile", std::wstring(path.begin(), path.end()).c_str(), L"type");
  // A library that runs out of memory may report what it was about to do.
  FailEach({0x8007000E, 0x80070008, 0x80072EE2, 0x80072EE7, 0x80072EF3, 0x80072EFD, 0x80072EFE, 0x80072F06, 0x80072F0D,
            0x80072F78, 0x80072F7D},
           7, [&job] {
             Receiver receiver;
             UploadResult result;
             SessionHandle session;
             Uploader uploader(&receiver, &job, &result, session);
             return static_cast<DWORD>(uploader.Post());
           });
}

} // namespace
