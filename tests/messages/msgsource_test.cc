// Checks the message sources in messages/ against the invariants that the
// compiled tables, the catalogs and the library's lookups rely on: the file
// format, numbers and counts, identifiers, printf conversions the library's
// engine accepts, a text for every status code the library returns, and
// translations that match their English originals.
#include <nl_types.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace zar {
namespace {

struct Message {
  int number;
  std::string text;
};

struct Source {
  std::map<std::string, std::string> meta;  // key=value pairs of the first line
  std::vector<Message> messages;
  std::vector<std::string> errors;  // format violations, with line numbers
};

// Reads one file in the agreed gencat subset. Everything outside that subset
// is recorded as an error rather than skipped.
Source parseSource(const std::string& path) {
  Source src;
  std::vector<std::string> lines = test::splitLines(test::readFile(path));
  bool quoteSeen = false, setSeen = false;
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string& ln = lines[i];
    auto fail = [&](const std::string& why) {
      src.errors.push_back(path + ":" + std::to_string(i + 1) + ": " + why);
    };
    if (i == 0) {
      const std::string head = "$ zar-message-source ";
      if (ln.compare(0, head.size(), head) != 0) {
        fail("first line is not the metadata comment");
        continue;
      }
      size_t pos = head.size();
      while (pos < ln.size()) {
        size_t end = ln.find(' ', pos);
        if (end == std::string::npos) end = ln.size();
        std::string item = ln.substr(pos, end - pos);
        size_t eq = item.find('=');
        if (eq == std::string::npos) fail("metadata item without '=': " + item);
        else src.meta[item.substr(0, eq)] = item.substr(eq + 1);
        pos = end + 1;
      }
      continue;
    }
    if (ln.empty()) continue;
    if (ln == "$quote \"" || ln == "$set 1") {
      bool& seen = ln[1] == 'q' ? quoteSeen : setSeen;
      if (seen || !src.messages.empty()) fail("directive repeated or after a message");
      seen = true;
      continue;
    }
    if (ln.compare(0, 2, "$ ") == 0) continue;
    size_t digits = 0;
    while (digits < ln.size() && ln[digits] >= '0' && ln[digits] <= '9') ++digits;
    if (digits == 0 || digits > 5 || ln.size() < digits + 3 || ln[digits] != ' ' ||
        ln[digits + 1] != '"' || ln.back() != '"') {
      fail("not a message line");
      continue;
    }
    if (!quoteSeen || !setSeen) fail("message before $quote and $set 1");
    Message m{std::stoi(ln.substr(0, digits)), {}};
    for (size_t p = digits + 2; p + 1 < ln.size(); ++p) {
      char c = ln[p];
      if (c == '"') fail("unescaped quote");
      if (static_cast<unsigned char>(c) < 0x20) fail("raw control character");
      if (c != '\\') {
        m.text += c;
        continue;
      }
      char e = ++p + 1 < ln.size() ? ln[p] : '\0';
      if (e == 'n') m.text += '\n';
      else if (e == 't') m.text += '\t';
      else if (e == '"' || e == '\\') m.text += e;
      else fail("unsupported escape");
    }
    src.messages.push_back(m);
  }
  return src;
}

// The conversions of a format as the library's printf engine parses them;
// returns false (with the reason) for anything that engine rejects.
bool conversions(const std::string& f, std::vector<std::string>* sig, std::string* why) {
  auto digits = [&](size_t& p) {
    size_t s = p;
    while (p < f.size() && f[p] >= '0' && f[p] <= '9') ++p;
    return p > s;
  };
  for (size_t p = 0; p < f.size(); ++p) {
    if (f[p] != '%') continue;
    size_t start = p++;
    size_t q = p;
    bool positional = digits(q) && q < f.size() && f[q] == '$';
    if (positional) p = q + 1;
    while (p < f.size() && std::string(" #'+-0").find(f[p]) != std::string::npos) ++p;
    for (int part = 0; part < 2; ++part) {  // width, then precision
      if (part == 1) {
        if (p >= f.size() || f[p] != '.') break;
        ++p;
      }
      if (digits(p)) {
        if (p < f.size() && f[p] == '*') return *why = "digits before '*'", false;
      } else if (p < f.size() && f[p] == '*') {
        ++p;
        size_t r = p;
        if (digits(r)) {
          if (r >= f.size() || f[r] != '$' || !positional)
            return *why = "'*m' without '$' or without 'n$'", false;
          p = r + 1;
        }
      }
    }
    std::string len;
    while (p < f.size() && std::string("hlLq").find(f[p]) != std::string::npos) len += f[p++];
    if (!len.empty() && len != "h" && len != "l" && len != "ll" && len != "L" && len != "q")
      return *why = "length modifier " + len, false;
    if (p >= f.size()) return *why = "'%' at the end", false;
    char c = f[p];
    if (std::string("cCsSdiouxXpeEfgG%").find(c) == std::string::npos)
      return *why = std::string("conversion character '") + c + "'", false;
    if ((len == "h" || len == "l") && std::string("eEfgG").find(c) != std::string::npos)
      return *why = "'h' or 'l' with a floating conversion", false;
    if (c == '%' && p != start + 1) return *why = "'%%' with flags", false;
    if (c != '%') sig->push_back(f.substr(start, p + 1 - start));
  }
  return true;
}

std::string messagesDir() { return test::sourceDir() + "/messages/"; }

struct Range {
  int first, last;
};

struct FileRow {
  const char* name;
  const char* technology;
  const char* table;  // null for technology 1
  char letter;        // component letter of identifiers, 0 for technology 1
  size_t count;
  std::vector<Range> ranges;
  std::vector<Range> identified;  // every text in these ranges is a printed message
};

const std::vector<FileRow> kFiles = {
    {"wsc", "3", "zarsv_client_svc_g_table", 'C', 114,
     {{150, 180}, {300, 328}, {450, 500}, {4050, 4052}}, {{150, 180}}},
    {"wsd", "3", "zarsv_deploy_svc_g_table", 'D', 864, {{150, 1007}, {4050, 4055}}, {{311, 312}}},
    {"wsi", "3", "zarsv_if_svc_g_table", 'I', 100, {{150, 215}, {300, 331}, {4050, 4051}},
     {{300, 331}}},
    {"bas", "1", nullptr, 0, 13, {{500, 522}}, {}},
    {"rpc", "1", nullptr, 0, 4, {{136, 144}}, {}},
    {"lib", "1", nullptr, 0, 2, {{30, 31}}, {}},
    {"ivc", "1", nullptr, 0, 1, {{456, 456}}, {}},
};

// Test names carry the file name; the rows print as that name too.
void PrintTo(const FileRow& row, std::ostream* os) { *os << row.name; }

class MessageFile : public ::testing::TestWithParam<FileRow> {};

TEST_P(MessageFile, FollowsTheFormatAndTheNumbering) {
  const FileRow& row = GetParam();
  Source src = parseSource(messagesDir() + row.name + ".msg");
  for (const std::string& e : src.errors) ADD_FAILURE() << e;
  EXPECT_EQ(row.technology, src.meta["technology"]);
  EXPECT_EQ(row.name, src.meta["component"]);
  EXPECT_EQ(row.table ? row.table : "", src.meta["table"]);
  EXPECT_EQ(row.count, src.messages.size());
  std::set<std::string> seen;
  int previous = -1;
  for (const Message& m : src.messages) {
    SCOPED_TRACE(std::string(row.name) + " " + std::to_string(m.number) + ": " + m.text);
    EXPECT_GT(m.number, previous) << "numbers must ascend strictly";
    previous = m.number;
    bool inRange = false, mustIdentify = false;
    for (const Range& r : row.ranges) inRange |= m.number >= r.first && m.number <= r.last;
    for (const Range& r : row.identified) mustIdentify |= m.number >= r.first && m.number <= r.last;
    EXPECT_TRUE(inRange) << "number outside the component's ranges";
    EXPECT_FALSE(m.text.empty());
    std::string body = m.text;
    if (m.text.compare(0, 3, "XKJ") == 0 || mustIdentify) {
      char id[16];
      snprintf(id, sizeof id, "XKJS%c%04d", row.letter, m.number);
      ASSERT_GE(m.text.size(), 14u);
      EXPECT_EQ(id, m.text.substr(0, 9));
      EXPECT_NE(std::string::npos, std::string("EWI").find(m.text[9])) << "severity letter";
      EXPECT_EQ("   ", m.text.substr(10, 3));
      EXPECT_NE(' ', m.text[13]);
      body = m.text.substr(13);
    }
    EXPECT_EQ(std::string::npos, body.find("XKJ")) << "identifier inside a text";
    EXPECT_TRUE(seen.insert(body).second) << "text repeated in the file";
    std::vector<std::string> sig;
    std::string why;
    EXPECT_TRUE(conversions(m.text, &sig, &why)) << why;
    // The error-text functions append " (tag / component)" in a 1024-byte buffer.
    EXPECT_LT(m.text.size(), 1000u);
  }
}

INSTANTIATE_TEST_SUITE_P(Files, MessageFile, ::testing::ValuesIn(kFiles),
                         [](const auto& info) { return std::string(info.param.name); });

// Texts that the library and its callers depend on word for word.
TEST(MessageSource, CarriesTheFixedTexts) {
  struct Fixed {
    const char* file;
    int number;
    const char* text;
  };
  const Fixed kFixed[] = {
      {"wsc", 150, "XKJSC0150E   An SSL toolkit failure occurred while calling %s. Error: %s."},
      {"wsc", 151, "XKJSC0151E   Memory could not be allocated."},
      {"wsc", 166,
       "XKJSC0166E   A configuration entry is invalid. There is no separator between the entry "
       "name and value on the line '%S' in stanza [%s]."},
      {"wsc", 170, "XKJSC0170E   The configuration file is not open."},
      {"wsc", 179, "XKJSC0179E   An KRY toolkit failure occurred while calling %s.  Error: %s."},
      {"wsc", 314, "Trace Level: %d"},
      {"wsc", 4050, "kpsrv.core"},
      {"wsc", 4051, "kpsrv.azn-svc"},
      {"wsc", 4052, "kpsrv.admin"},
      {"wsd", 311, "XKJSD0311E   A command line option was not of the correct format."},
      {"wsd", 312, "XKJSD0312E   The specified file could not be opened."},
      {"wsd", 4050, "kpweb.srv.deploy"},
      {"wsd", 4055, "kpweb.srv.srvshlib"},
      {"wsi", 4050, "kpsrv.keys"},
      {"wsi", 4051, "kpsrv.interface"},
  };
  std::map<std::string, std::map<int, std::string>> texts;
  for (const Fixed& f : kFixed) {
    if (texts.count(f.file) == 0)
      for (const Message& m : parseSource(messagesDir() + f.file + ".msg").messages)
        texts[f.file][m.number] = m.text;
    EXPECT_EQ(f.text, texts[f.file][f.number]) << f.file << " " << f.number;
  }
}

// Component names are three letters of this alphabet, read in base 40.
const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz_0123456789-+@";

int componentCode(const std::string& name) {
  int code = 0;
  for (char c : name) code = code * 40 + static_cast<int>(strchr(kAlphabet, c) - kAlphabet);
  return code;
}

// Component name of a status code: three base-40 letters in bits 27..12.
std::string componentOf(uint32_t code) {
  uint32_t c = (code >> 12) & 0xFFFF;
  return {kAlphabet[c / 1600], kAlphabet[(c / 40) % 40], kAlphabet[c % 40]};
}

TEST(MessageSource, EveryStatusCodeOfTheLibraryHasAText) {
  std::vector<uint32_t> codes = {
      ZAR_S_SVC_NO_MEMORY, ZAR_S_SVC_BAD_ROUTE, ZAR_S_SVC_ROUTE_OPEN_FAILED,
      ZAR_S_SVC_NO_SUCH_CALLBACKS, ZAR_S_MSG_BAD_OPEN_TYPE, ZAR_S_MSG_NO_MEMORY,
      ZAR_S_MSG_NOT_IN_TABLES, ZAR_S_MSG_NOT_IN_CATALOG, ZAR_S_MSG_CAT_OPEN_FAILED,
      ZAR_S_MSG_CAT_NO_PERMISSION, ZAR_S_MSG_CAT_NOT_FOUND, ZAR_S_MSG_SUCCESS_TEXT,
      ZAR_S_SVC_BAD_MSGSAVE_ARGS, ZAR_S_SVC_DYN_ROUTE_LOCK, ZAR_S_UUID_BAD_VARIANT,
      ZAR_S_UUID_NO_ADDRESS, ZAR_S_UUID_BAD_TEXT, ZAR_S_UUID_NO_MEMORY,
      ZAR_S_UUID_ADDR_FILE_MISSING, ZAR_S_UUID_ADDR_FILE_BAD, ZAR_S_TRACE_LEVEL_TEXT,
      ZAR_S_CMDLINE_BAD_OPTION, ZAR_S_FILE_TAIL_OPEN};
  for (uint32_t c = ZAR_S_SSL_FAILURE; c <= ZAR_S_KRY_FAILURE_NO_DETAIL; ++c) codes.push_back(c);
  std::map<std::string, std::map<int, std::string>> texts;
  for (uint32_t code : codes) {
    std::string comp = componentOf(code);
    if (texts.count(comp) == 0) {
      Source src = parseSource(messagesDir() + comp + ".msg");
      EXPECT_EQ(std::to_string(code >> 28), src.meta["technology"]) << comp;
      for (const Message& m : src.messages) texts[comp][m.number] = m.text;
    }
    EXPECT_FALSE(texts[comp][code & 0xFFF].empty()) << test::hexStatus(code);
  }
  // The assertion message is printed with the argument types "%s%s%d".
  std::vector<std::string> sig;
  std::string why;
  ASSERT_TRUE(conversions(texts["bas"][ZAR_S_MSG_BAD_OPEN_TYPE & 0xFFF], &sig, &why));
  EXPECT_EQ((std::vector<std::string>{"%s", "%s", "%d"}), sig);
}

// Translations: only numbers of the English file, the same identifier, the
// same conversions in the same order, and text that the ISO-8859-1 catalogs
// can hold. Technology-1 translations are complete.
TEST(MessageSource, GermanTranslationsMatchTheirOriginals) {
  for (const FileRow& row : kFiles) {
    std::string path = messagesDir() + "de/" + row.name + ".msg";
    if (!test::fileExists(path)) {
      EXPECT_TRUE(row.table != nullptr) << "technology-1 text without translation: " << path;
      continue;
    }
    Source de = parseSource(path);
    Source en = parseSource(messagesDir() + row.name + ".msg");
    for (const std::string& e : de.errors) ADD_FAILURE() << e;
    EXPECT_EQ(en.meta, de.meta) << path;
    std::map<int, std::string> english;
    for (const Message& m : en.messages) english[m.number] = m.text;
    if (row.table == nullptr) {
      EXPECT_EQ(en.messages.size(), de.messages.size()) << path;
    }
    for (const Message& m : de.messages) {
      SCOPED_TRACE(path + " " + std::to_string(m.number));
      ASSERT_EQ(1u, english.count(m.number)) << "number not in the English file";
      const std::string& en_text = english[m.number];
      if (en_text.compare(0, 3, "XKJ") == 0) {
        EXPECT_EQ(en_text.substr(0, 13), m.text.substr(0, 13));
      }
      std::vector<std::string> enSig, deSig;
      std::string why;
      EXPECT_TRUE(conversions(m.text, &deSig, &why)) << why;
      conversions(en_text, &enSig, &why);
      EXPECT_EQ(enSig, deSig);
      for (size_t i = 0; i < m.text.size(); ++i) {
        unsigned char c = m.text[i];
        if (c < 0x80) continue;
        // Two-byte UTF-8 sequences C2 xx and C3 xx are exactly U+0080..U+00FF.
        bool latin1 = (c == 0xC2 || c == 0xC3) && i + 1 < m.text.size() &&
                      (static_cast<unsigned char>(m.text[i + 1]) & 0xC0) == 0x80;
        EXPECT_TRUE(latin1) << "not UTF-8 of a Latin-1 character at byte " << i;
        ++i;
      }
    }
  }
}

// The UTF-8 text in ISO-8859-1 (the translations hold Latin-1 characters only).
std::string toLatin1(const std::string& utf8) {
  std::string out;
  for (size_t i = 0; i < utf8.size(); ++i) {
    unsigned char c = utf8[i];
    if (c < 0x80 || i + 1 == utf8.size()) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(((c & 0x03) << 6) | (utf8[++i] & 0x3F));
    }
  }
  return out;
}

// What the build made from the sources: every technology-3 text is in the
// compiled tables, and every text is in the catalogs of each locale, the
// German ones in that locale's code set (translated texts over English ones).
TEST(MessageSource, BuildsIntoTheCompiledTablesAndTheCatalogs) {
  const struct {
    const char* locale;
    const char* translation;  // null: English only
    bool latin1;
  } kLocales[] = {{"C", nullptr, false},
                  {"de_DE.UTF-8", "de", false},
                  {"de_DE.ISO-8859-1", "de", true}};
  for (const FileRow& row : kFiles) {
    Source en = parseSource(messagesDir() + row.name + ".msg");
    uint32_t base = (static_cast<uint32_t>(std::stoul(row.technology)) << 28) |
                    (static_cast<uint32_t>(componentCode(row.name)) << 12);
    if (row.table != nullptr) {
      for (const Message& m : en.messages) {
        unsigned long st = 0;
        const char* text = zar_msg_get_default_msg(base | m.number, &st);
        EXPECT_STREQ(m.text.c_str(), text) << row.name << " " << m.number;
      }
    }
    for (const auto& loc : kLocales) {
      std::map<int, std::string> want;
      for (const Message& m : en.messages) want[m.number] = m.text;
      std::string de =
          loc.translation ? messagesDir() + loc.translation + "/" + row.name + ".msg" : "";
      if (!de.empty() && test::fileExists(de)) {
        for (const Message& m : parseSource(de).messages)
          want[m.number] = loc.latin1 ? toLatin1(m.text) : m.text;
      }
      std::string cat = test::buildDir() + "/nls/msg/" + loc.locale + "/" +
                        (row.table ? "kp" : "kpb") + row.name + ".cat";
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
