// What msggen makes of the message sources in messages/: every technology-3
// text in the compiled tables, every text in the catalogs of each locale (the
// German ones in that locale's code set, with the conversions of their
// English originals), and sources it must refuse.
#include <nl_types.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <regex>

#include "tests/testutil/testutil.h"
#include "zar/msg.h"

namespace zar {
namespace {

using Texts = std::map<int, std::string>;  // by message number

// Reads one file of the gencat subset; msggen refuses (and fails the build
// on) anything outside it, so only what it accepts is read here.
Texts parseSource(const std::string& path) {
  static const std::regex kMessage(R"re((\d{1,5}) "(.*)")re");
  Texts src;
  for (const std::string& ln : test::splitLines(test::readFile(path))) {
    std::smatch m;
    if (!std::regex_match(ln, m, kMessage)) continue;
    std::string text, raw = m[2];
    for (size_t p = 0; p < raw.size(); ++p) {
      const char e = raw[p] == '\\' && p + 1 < raw.size() ? raw[++p] : '\0';
      text += e == '\0' ? raw[p] : e == 'n' ? '\n' : e == 't' ? '\t' : e;
    }
    src[std::stoi(m[1])] = text;
  }
  return src;
}

// The conversions of a format, in order: a translation must keep them.
std::vector<std::string> conversions(const std::string& text) {
  static const std::regex kConversion(R"(%[^a-zA-Z%]*[a-zA-Z%])");
  return {std::sregex_token_iterator(text.begin(), text.end(), kConversion), {}};
}

std::string messagesDir() { return test::sourceDir() + "/messages/"; }

// Components and whether they are of technology 3 (compiled tables, "kp"
// catalogs) or 1 ("kpb" catalogs only).
const std::pair<const char*, bool> kFiles[] = {{"wsc", true}, {"wsd", true},  {"wsi", true},
                                               {"bas", false}, {"rpc", false}, {"lib", false},
                                               {"ivc", false}};

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

// What the build made from the sources: every technology-3 text is in the
// compiled tables, and every text is in the catalogs of each locale, the
// German ones in that locale's code set (translated texts over English ones).
TEST(MessageSource, BuildsIntoTheCompiledTablesAndTheCatalogs) {
  const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz_0123456789-+@";  // base 40
  for (const auto& [name, tech3] : kFiles) {
    Texts en = parseSource(messagesDir() + name + ".msg");
    uint32_t base = tech3 ? 0x30000000u : 0x10000000u;
    for (int i = 0, weight = 1600; i < 3; weight /= 40, ++i)
      base += static_cast<uint32_t>((strchr(kAlphabet, name[i]) - kAlphabet) * weight) << 12;
    for (const auto& [number, text] : en) {
      const char* compiled = zar_msg_get_default_msg(base | number, nullptr);
      EXPECT_STREQ(tech3 ? text.c_str() : nullptr, compiled) << number;
    }
    for (const char* locale : {"C", "de_DE.UTF-8", "de_DE.ISO-8859-1"}) {
      Texts want = en;
      std::string de = messagesDir() + "de/" + name + ".msg";
      if (locale[0] == 'd' && test::fileExists(de)) {
        for (auto [number, text] : parseSource(de)) {
          EXPECT_EQ(conversions(en[number]), conversions(text)) << de << " " << number;
          if (strstr(locale, "8859") != nullptr) {  // Latin-1 from its UTF-8 (C2 xx, C3 xx)
            for (size_t i = 0; i < text.size(); ++i)
              if (static_cast<unsigned char>(text[i]) >= 0xC2 && i + 1 < text.size())
                text.replace(i, 2, 1, static_cast<char>((text[i] & 3) << 6 | (text[i + 1] & 0x3F)));
          }
          want[number] = text;
        }
      }
      std::string cat = test::buildDir() + "/nls/msg/" + locale + "/" + (tech3 ? "kp" : "kpb") +
                        name + ".cat";
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
