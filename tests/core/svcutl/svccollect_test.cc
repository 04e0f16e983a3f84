// The collector route types on capture sockets: priority, structured data
// escaped, invalid UTF-8 replaced, and the queue while a collector is away.
// Every field as real collectors parse it (the journal's binary fields and
// sealed memory files too): tests/scripts/collectors.sh.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/testutil/testutil.h"
#include "zar/collect.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::CaptureFd;
using zar::test::svcRoute;
using zar::test::TempDir;
using SvcCollect = zar::test::SvcTest;

constexpr uint32_t kSysFailed = 0x38C5209C;  // "XKJSC0156E   The %s system routine failed: ..."

// A datagram socket bound in a temporary directory.
struct Capture {
  TempDir dir;
  std::string path = dir.file("s");
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  Capture() {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path.copy(a.sun_path, sizeof a.sun_path - 1);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  ~Capture() { close(fd); }
  std::string next() {
    std::string buf(1 << 16, '\0');
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    return n < 0 ? "(nothing)" : buf.substr(0, static_cast<size_t>(n));
  }
};

void warn(const char* text, zar_codeset_t cs = nullptr) {
  zar_svc_printf_cs_withfile(zarsv_client_svc_handle, cs, "c.cc", 9, "%s%d", 0, svc_c_sev_warning,
                             kSysFailed, text, 7);
}

TEST_F(SvcCollect, RecordsOnCaptureSockets) {
  Capture cap;
  zar_svc_subcomp table[] = {{"s\"u]b\\", "d", 0, 0}, {nullptr, nullptr, 0, 0}};
  unsigned long st = 0;
  zar_svc_handle odd = zar_svc_register(table, "c\"o]m\\p", &st);
  ASSERT_ZAR_OK(st);
  struct Row {
    std::string route;
    std::function<void()> print;
    std::vector<std::string> want;  // pieces of the datagram, in order
  } rows[] = {
      {"SYSLOG:local7,unix,",
       [odd] {
         zar_svc_printf_withfile(odd, "f\"].c", 3, "%s%d", 0, svc_c_sev_error, kSysFailed, "x", 1);
       },
       {"<187>1 ",
        " 0x38C5209C [zar@32473 status=\"0x38C5209C\" component=\"c\\\"o\\]m\\\\p\" "
        "subcomponent=\"s\\\"u\\]b\\\\\" file=\"f\\\"\\].c\" line=\"3\" thread=\"0x",
        "\"] \xEF\xBB\xBFXKJSC0156E   The x system"}},
      {"SYSLOG:unix,",
       [] { warn("bad\xFF\xC3(end", zarsvc_get_utf8_code_page()); },
       {"<12>1 ", "The bad\xEF\xBF\xBD\xEF\xBF\xBD(end system"}},
  };
  for (const Row& row : rows) {
    ASSERT_ZAR_OK(svcRoute("*:" + row.route + cap.path));
    row.print();
    std::string got = cap.next();
    size_t at = 0;
    for (const std::string& piece : row.want) {
      size_t found = got.find(piece, at);
      EXPECT_NE(std::string::npos, found)
          << row.route << ": " << piece.substr(0, 80) << "\nin: " << got.substr(0, 400);
      if (found != std::string::npos) at = found + piece.size();
    }
  }
  ASSERT_ZAR_OK(svcRoute("*:STDERR:"));
  zar_svc_unregister(odd, &st);
}

TEST_F(SvcCollect, QueueHoldsRecordsWhileTheCollectorIsAwayAndCountsTheRest) {
  zar::test::ScopedEnv limit("SVC_COLLECTOR_QUEUE", "3");  // read at the first destination
  TempDir dir;
  std::string route = "SYSLOG:unix," + dir.file("later");
  zar_svc_collector_counts c;
  unsigned long st = 0;
  zar_svc_collector_counts_get(route.c_str(), &c, &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  ASSERT_ZAR_OK(svcRoute("WARNING:" + route));
  {
    CaptureFd err(2);
    for (const char* text : {"q1", "q2", "q3", "q4", "q5"}) warn(text);
    EXPECT_NE(std::string::npos, err.text().find(": 1 record(s) could not be delivered"))
        << err.text();
  }
  zar_svc_collector_counts_get(route.c_str(), &c, &st);
  EXPECT_EQ((std::vector<uint64_t>{0, 2, 3}), (std::vector<uint64_t>{c.sent, c.dropped, c.queued}));
  // The collector comes: the queue goes to it in order within the flush's time.
  Capture cap;
  rename(cap.path.c_str(), dir.file("later").c_str());
  EXPECT_EQ(0u, zar_svc_collector_flush(1000));
  for (const char* text : {"The q1 ", "The q2 ", "The q3 "})
    EXPECT_NE(std::string::npos, cap.next().find(text));
  zar_svc_collector_counts_get(route.c_str(), &c, &st);
  EXPECT_EQ((std::vector<uint64_t>{3, 2, 0}), (std::vector<uint64_t>{c.sent, c.dropped, c.queued}));
  ASSERT_ZAR_OK(svcRoute("WARNING:STDERR:"));
}

}  // namespace
