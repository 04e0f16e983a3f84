// Checks the message sources in messages/ against the invariants that the
// compiled tables, the catalogs and the library's lookups rely on: the file
// format, numbers and counts, identifiers, printf conversions the library's
// engine accepts, translations that match their English originals, and what
// the build made of them.
#include <nl_types.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/msg.h"

namespace zar {
namespace {

struct Source {
  std::map<std::string, std::string> meta;  // key=value pairs of the first line
  std::map<int, std::string> texts;         // by message number
};

// Reads one file of the gencat subset; msggen refuses (and fails the build
// on) anything outside it, so only what it accepts is read here.
Source parseSource(const std::string& path) {
  static const std::regex kMessage(R"re((\d{1,5}) "(.*)")re");
  Source src;
  std::vector<std::string> lines = test::splitLines(test::readFile(path));
  std::istringstream items(lines.empty() ? "" : lines[0]);
  for (std::string item; items >> item;)
    if (size_t eq = item.find('='); eq != std::string::npos)
      src.meta[item.substr(0, eq)] = item.substr(eq + 1);
  for (const std::string& ln : lines) {
    std::smatch m;
    if (!std::regex_match(ln, m, kMessage)) continue;
    std::string text, raw = m[2];
    for (size_t p = 0; p < raw.size(); ++p) {
      const char e = raw[p] == '\\' && p + 1 < raw.size() ? raw[++p] : '\0';
      text += e == '\0' ? raw[p] : e == 'n' ? '\n' : e == 't' ? '\t' : e;
    }
    src.texts[std::stoi(m[1])] = text;
  }
  return src;
}

// The conversions of a format as the library's printf engine parses them
// (its grammar: '%' [n$] flags [width] [.precision] [length] conversion);
// false, with the reason, for anything that engine rejects.
bool conversions(const std::string& f, std::vector<std::string>* sig, std::string* why) {
  static const std::regex kConversion(
      R"(%(\d+\$)?[ #'+\-0]*(\d+|\*(\d+\$)?)?)"                    // n$, flags, width
      R"((\.(\d+|\*(\d+\$)?)?)?(ll|l|h|L|q)?([cCsSdiouxXpeEfgG%]))");  // precision, length
  for (size_t p = f.find('%'); p != std::string::npos; p = f.find('%', p)) {
    std::smatch m;
    if (!std::regex_search(f.begin() + p, f.end(), m, kConversion,
                           std::regex_constants::match_continuous))
      return *why = "bad conversion at " + f.substr(p), false;
    if ((m[3].matched || m[6].matched) && !m[1].matched) return *why = "'*m$' without 'n$'", false;
    if ((m[7] == "h" || m[7] == "l") && strchr("eEfgG", m.str(8)[0]) != nullptr)
      return *why = "'h' or 'l' with a floating conversion", false;
    if (m[8] == "%" && m.length() != 2) return *why = "'%%' with flags", false;
    if (m[8] != "%") sig->push_back(m.str());
    p += m.length();
  }
  return true;
}

std::string messagesDir() { return test::sourceDir() + "/messages/"; }

using Ranges = std::vector<std::pair<int, int>>;
bool inRanges(int n, const Ranges& ranges) {
  return std::any_of(ranges.begin(), ranges.end(),
                     [n](auto r) { return n >= r.first && n <= r.second; });
}

struct FileRow {
  const char* name;
  const char* technology;
  const char* table;  // null for technology 1
  size_t count;
  Ranges ranges, identified;  // numbers; every text of the identified ranges is a printed message
};

const std::vector<FileRow> kFiles = {
    {"wsc", "3", "zarsv_client_svc_g_table", 114,
     {{150, 180}, {300, 328}, {450, 500}, {4050, 4052}}, {{150, 180}}},
    {"wsd", "3", "zarsv_deploy_svc_g_table", 864, {{150, 1007}, {4050, 4055}}, {{311, 312}}},
    {"wsi", "3", "zarsv_if_svc_g_table", 100, {{150, 215}, {300, 331}, {4050, 4051}}, {{300, 331}}},
    {"bas", "1", nullptr, 13, {{500, 522}}, {}}, {"rpc", "1", nullptr, 4, {{136, 144}}, {}},
    {"lib", "1", nullptr, 2, {{30, 31}}, {}},    {"ivc", "1", nullptr, 1, {{456, 456}}, {}}};

void PrintTo(const FileRow& row, std::ostream* os) { *os << row.name; }

class MessageFile : public ::testing::TestWithParam<FileRow> {};

TEST_P(MessageFile, FollowsTheFormatAndTheNumbering) {
  const FileRow& row = GetParam();
  Source src = parseSource(messagesDir() + row.name + ".msg");
  EXPECT_EQ(row.technology, src.meta["technology"]);
  EXPECT_EQ(row.name, src.meta["component"]);
  EXPECT_EQ(row.table ? row.table : "", src.meta["table"]);
  EXPECT_EQ(row.count, src.texts.size());
  std::set<std::string> seen;
  for (const auto& [number, text] : src.texts) {
    SCOPED_TRACE(std::string(row.name) + " " + std::to_string(number) + ": " + text);
    EXPECT_TRUE(inRanges(number, row.ranges)) << "number outside the component's ranges";
    EXPECT_FALSE(text.empty());
    std::string body = text;
    if (text.compare(0, 3, "XKJ") == 0 || inRanges(number, row.identified)) {
      char id[16];  // the identifier, a severity letter and three blanks before the text
      snprintf(id, sizeof id, "XKJS%c%04d", toupper(row.name[2]), number);
      EXPECT_TRUE(text.size() > 13 && text.compare(0, 9, id) == 0 &&
                  std::string("EWI").find(text[9]) != std::string::npos &&
                  text.compare(10, 3, "   ") == 0 && text[13] != ' ')
          << id << " [EWI]   ";
      body = text.substr(std::min<size_t>(13, text.size()));
    }
    EXPECT_EQ(std::string::npos, body.find("XKJ")) << "identifier inside a text";
    EXPECT_TRUE(seen.insert(body).second) << "text repeated in the file";
    std::vector<std::string> sig;
    std::string why;
    EXPECT_TRUE(conversions(text, &sig, &why)) << why;
    // The error-text functions append " (tag / component)" in a 1024-byte buffer.
    EXPECT_LT(text.size(), 1000u);
  }
}

INSTANTIATE_TEST_SUITE_P(Files, MessageFile, ::testing::ValuesIn(kFiles),
                         [](const auto& info) { return std::string(info.param.name); });

// msggen refuses a source outside the subset, before it writes anything, so
// that no text reaches the tables or the catalogs other than as written.
TEST(MessageSource, MsggenRefusesWhatItCannotCompile) {
  const std::string head = "$ zar-message-source technology=1 component=fzt\n$quote \"\n$set 1\n";
  // Each source, with the reason msggen gives for refusing it.
  const std::pair<std::string, const char*> bad[] = {
      {head + "1 \"a \" b\"\n", "unescaped quote"},
      {head + "1 \"a\\qb\"\n", "unknown escape"},
      {head + "2 \"a\"\n1 \"b\"\n", "numbers must ascend"},
      {head + "4096 \"a\"\n", "out of range"},
      {"$ zar-message-source technology=2 component=fzt\n", "technology must be 1 or 3"},
      {"$quote \"\n", "missing zar-message-source line"}};
  test::TempDir dir;
  for (const auto& [source, reason] : bad) {
    test::writeFile(dir.file("fzt.msg"), source);
    const std::string cmd = test::buildDir() + "/zar_msggen --cc " + dir.file("out.cc") +
                            " --catalogs " + dir.file("cat") + " " + dir.file("fzt.msg") + " 2>" +
                            dir.file("err");
    EXPECT_NE(0, system(cmd.c_str())) << reason;
    EXPECT_NE(std::string::npos, test::readFile(dir.file("err")).find(reason)) << reason;
    EXPECT_FALSE(test::fileExists(dir.file("out.cc"))) << reason;
  }
}

// Translations: only numbers of the English file, the same identifier, the
// same conversions in the same order; technology-1 translations are
// complete. (That the ISO-8859-1 catalogs can hold them is checked below.)
TEST(MessageSource, GermanTranslationsMatchTheirOriginals) {
  for (const FileRow& row : kFiles) {
    std::string path = messagesDir() + "de/" + row.name + ".msg";
    if (!test::fileExists(path)) {
      EXPECT_TRUE(row.table != nullptr) << "technology-1 text without translation: " << path;
      continue;
    }
    Source de = parseSource(path), en = parseSource(messagesDir() + row.name + ".msg");
    EXPECT_EQ(en.meta, de.meta) << path;
    EXPECT_TRUE(row.table != nullptr || en.texts.size() == de.texts.size()) << path;
    for (const auto& [number, text] : de.texts) {
      SCOPED_TRACE(path + " " + std::to_string(number));
      ASSERT_EQ(1u, en.texts.count(number)) << "number not in the English file";
      const std::string& english = en.texts[number];
      const bool identified = english.compare(0, 3, "XKJ") == 0;
      EXPECT_EQ(identified ? english.substr(0, 13) : "", identified ? text.substr(0, 13) : "");
      std::vector<std::string> enSig, deSig;
      std::string why;
      EXPECT_TRUE(conversions(text, &deSig, &why)) << why;
      conversions(english, &enSig, &why);
      EXPECT_EQ(enSig, deSig);
    }
  }
}

// What the build made from the sources: every technology-3 text is in the
// compiled tables, and every text is in the catalogs of each locale, the
// German ones in that locale's code set (translated texts over English ones).
TEST(MessageSource, BuildsIntoTheCompiledTablesAndTheCatalogs) {
  const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz_0123456789-+@";  // base 40
  for (const FileRow& row : kFiles) {
    Source en = parseSource(messagesDir() + row.name + ".msg");
    uint32_t base = static_cast<uint32_t>(std::stoul(row.technology)) << 28;
    for (int i = 0, weight = 1600; i < 3; weight /= 40, ++i)
      base += static_cast<uint32_t>((strchr(kAlphabet, row.name[i]) - kAlphabet) * weight) << 12;
    for (const auto& [number, text] : en.texts) {
      const char* compiled = zar_msg_get_default_msg(base | number, nullptr);
      EXPECT_STREQ(row.table != nullptr ? text.c_str() : nullptr, compiled) << number;
    }
    for (const char* locale : {"C", "de_DE.UTF-8", "de_DE.ISO-8859-1"}) {
      std::map<int, std::string> want = en.texts;
      std::string de = messagesDir() + "de/" + row.name + ".msg";
      if (locale[0] == 'd' && test::fileExists(de)) {
        for (auto [number, text] : parseSource(de).texts) {
          if (strstr(locale, "8859") != nullptr) {  // Latin-1 from its UTF-8 (C2 xx, C3 xx)
            for (size_t i = 0; i < text.size(); ++i)
              if (static_cast<unsigned char>(text[i]) >= 0xC2 && i + 1 < text.size())
                text.replace(i, 2, 1, static_cast<char>((text[i] & 3) << 6 | (text[i + 1] & 0x3F)));
          }
          want[number] = text;
        }
      }
      std::string cat = test::buildDir() + "/nls/msg/" + locale + "/" + (row.table ? "kp" : "kpb") +
                        row.name + ".cat";
      nl_catd catd = catopen(cat.c_str(), 0);
      ASSERT_NE(reinterpret_cast<nl_catd>(-1), catd) << cat;
      for (const auto& [number, text] : want)
        EXPECT_EQ(text, catgets(catd, 1, number, "?NOPE?")) << cat << " " << number;
      catclose(catd);
    }
  }
}

}  // namespace
}  // namespace zar
