// ZARCmdLine: null words, missing options, response files that are bad or
// cannot be opened. Random command lines and response files against a model
// (values, yes/no flags, duplicates, the snapshot of unmarked options in
// bucket order): the cmdline fuzz target; every allocation failing:
// alloc-faults' command-line case.
#include "zar/cmdline.hpp"

#include <errno.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/status.h"

namespace {

using zar::fault::Op;
using zar::test::CaptureFd;
using zar::test::FaultPlan;
using zar::test::hexStatus;
using Words = std::vector<const char*>;
using Lines = std::vector<std::string>;

unsigned parse(ZARCmdLine& cl, const Words& words) {
  return cl.initialize(static_cast<int>(words.size()), words.data());
}

// A table in walk order, "name=value", with "@file:stanza" for an option
// from a response file.
Lines walk(const ZARCmdLine::OptionTable& t) {
  Lines out;
  ZARCmdLine::OptionIter it(t);
  ZARString* k = nullptr;
  ZARCmdLine::Option* o = nullptr;
  while (it.next(k, o)) {
    out.push_back(std::string(k->getData()) + "=" + o->value.getData());
    if (o->rspFile.getLen() > 0)
      out.back() += "@" + std::string(o->rspFile.getData()) + ":" + o->stanza.getData();
  }
  return out;
}

// The options of a parser that nobody marked, by name.
std::map<std::string, std::string> options(const ZARCmdLine& cl) {
  std::map<std::string, std::string> m;
  ZARCmdLine::OptionIter it(cl.invalidOptions());
  ZARString* k = nullptr;
  ZARCmdLine::Option* o = nullptr;
  while (it.next(k, o)) m[k->getData()] = o->value.getData();
  return m;
}

// Null words (which the fuzz model never gives) are skipped; a name not
// given is missing, and out-parameters stay as they were.
TEST(ZARCmdLine, NullWordsAndMissingOptions) {
  ZARCmdLine cl;
  ASSERT_EQ(0u, parse(cl, {nullptr, "-a", nullptr, "-b"}));
  EXPECT_EQ((std::map<std::string, std::string>{{"a", ""}, {"b", ""}}), options(cl));
  ZARStringRef ref("kept");
  EXPECT_EQ(ZAR_S_NOT_AVAILABLE, cl.findOption("absent", ref));
  EXPECT_EQ(ZAR_S_NOT_AVAILABLE, cl.getCmdName(ref));
  EXPECT_STREQ("kept", ref.getData());
}

TEST(ZARCmdLine, ResponseFiles) {
  constexpr char kRsp[] =
      "[other]\nport = 1\n"
      "[srv]\n  port = 80  # default\nhost = a\nempty =\nport = 82\n"
      "[late]\nport = 2\n";
  constexpr char kOk[] = "[srv]\na = 1\n";
  struct {
    const char* text;  // of the file; null: there is none
    int commandLine;   // "prog -port 81" -1: before the file, 1: after it, 0: not at all
    Op op;             // the first call of op fails with err; kCount: none
    int err;
    unsigned status;
    Lines options;  // walk order (buckets: port 0, host 23, empty 24); '@' ends "@<file>:srv"
    Lines duplicates;
  } cases[] = {
      {kRsp, -1, Op::kCount, 0, 0, {"port=81", "host=a@", "empty=@"}, {"port=80@", "port=82@"}},
      {kRsp, 1, Op::kCount, 0, 0, {"port=80@", "host=a@", "empty=@"}, {"port=82@", "port=81"}},
      {"[x]\na = 1\n", 0, Op::kCount, 0, 0, {}, {}},
      {"[srv]\na = 1\nno separator\nb = 2\n", 0, Op::kCount, 0, ZAR_S_STZ_BAD_FORMAT, {"a=1@"}, {}},
      {"[x\n[srv]\na = 1\n", 0, Op::kCount, 0, ZAR_S_STZ_BAD_FORMAT, {}, {}},
      {"[srv]\na = 1\n[y]\nbad\n", 0, Op::kCount, 0, 0, {"a=1@"}, {}},
      {nullptr, 0, Op::kCount, 0, ZAR_S_STZ_OPEN_FAILED, {}, {}},
      {kOk, 0, Op::kOpen, EACCES, ZAR_S_STZ_OPEN_FAILED, {}, {}},
      {kOk, 0, Op::kFcntl, EDEADLK, ZAR_S_STZ_OPEN_FAILED, {}, {}},
  };
  zar::test::TempDir dir;
  const std::string path = dir.file("rsp");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "no file");
    remove(path.c_str());
    if (c.text != nullptr) zar::test::writeFile(path, c.text);
    ZARCmdLine cl;
    const Words words = {"prog", "-port", "81"};
    ASSERT_EQ(0u, c.commandLine < 0 ? parse(cl, words) : 0u);
    {
      CaptureFd err(2);
      std::optional<FaultPlan> plan;
      if (c.op != Op::kCount) plan.emplace(c.op, 1, false, c.err);
      EXPECT_EQ(hexStatus(c.status),
                hexStatus(cl.loadRspFile(path.c_str(), ZARStringRef("srvx", 3))));
    }
    ASSERT_EQ(0u, c.commandLine > 0 ? parse(cl, words) : 0u);
    Lines want[] = {c.options, c.duplicates};
    for (Lines& l : want)
      for (std::string& s : l) s += s.back() == '@' ? path + ":srv" : "";
    EXPECT_EQ(want[0], walk(cl.invalidOptions()));
    EXPECT_EQ(want[1], walk(cl.duplicateOptions()));
  }
}

}  // namespace
