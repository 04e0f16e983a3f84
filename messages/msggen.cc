// msggen: turns the message sources (messages/*.msg, a subset of the gencat
// source format, UTF-8) into the library's compiled message tables and into
// XPG catalogs in a per-locale directory layout.
//
// usage: msggen --cc OUT.cc --catalogs DIR [--locpath DIR] [--gencat PROGRAM]
//               [--table NAME:COUNT:LOWEST:HIGHEST]... [--translation LANG FILE]...
//               FILE...
//
// Each FILE starts with the line
//   $ zar-message-source technology=T component=XYZ [table=NAME]
// followed by comments ("$ " lines), "$quote \"", "$set 1" and message lines
// (NUMBER "TEXT", escapes \" \\ \n \t), numbers strictly ascending. The status
// code of message N is (T << 28) | (component code << 12) | N, the component
// code being the three letters in base 40.
//
// Outputs:
// - OUT.cc: for every --table, the exported array of that name (entries of
//   the technology-3 source that names it, sorted by status code) and
//   zar_msg_g_compiled_table with the tables in --table order. A table whose
//   source is absent is generated empty; a present one whose count, lowest
//   or highest code differs from --table fails the build.
// - DIR/C/<catalog>: the English catalogs; for each translated language LANG
//   DIR/LANG, DIR/LANG_TERRITORY.UTF-8 and, for languages with a legacy code
//   set, DIR/LANG_TERRITORY.<code set>, each holding every catalog with the
//   translated texts over the English ones. Every catalog carries its code
//   set as message 1 of set 255 ("charset=NAME"). Catalog names: "kp" + comp
//   + ".cat" for technology 3, "kpb" + comp + ".cat" for technology 1.
#include <errno.h>
#include <iconv.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Message {
  int num;
  std::string text;  // decoded
};

struct Source {
  std::string path;
  int technology = 0;
  std::string component;
  std::string table;
  std::vector<Message> msgs;
};

struct TableSpec {
  std::string name;
  long count, lowest, highest;
};

[[noreturn]] void die(const std::string& what) {
  fprintf(stderr, "msggen: %s\n", what.c_str());
  exit(1);
}

int componentCode(const std::string& comp, const std::string& where) {
  static const std::string alphabet = "abcdefghijklmnopqrstuvwxyz_0123456789-+@";
  if (comp.size() != 3) die(where + ": component must be three characters");
  int code = 0;
  for (char c : comp) {
    size_t i = alphabet.find(c);
    if (i == std::string::npos) die(where + ": bad component character");
    code = code * 40 + static_cast<int>(i);
  }
  return code;
}

std::string decode(const std::string& raw, const std::string& where) {
  std::string out;
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] != '\\') {
      if (raw[i] == '"') die(where + ": unescaped quote inside a text");
      out += raw[i];
      continue;
    }
    if (++i == raw.size()) die(where + ": backslash at the end of a text");
    switch (raw[i]) {
      case '"': out += '"'; break;
      case '\\': out += '\\'; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      default: die(where + ": unknown escape \\" + std::string(1, raw[i]));
    }
  }
  return out;
}

Source readSource(const std::string& path) {
  std::ifstream in(path);
  if (!in) die(path + ": cannot be read");
  Source s;
  s.path = path;
  std::string line;
  int lineNo = 0;
  bool sawQuote = false, sawSet = false;
  while (std::getline(in, line)) {
    ++lineNo;
    std::string where = path + ":" + std::to_string(lineNo);
    if (lineNo == 1) {
      const std::string head = "$ zar-message-source ";
      if (line.compare(0, head.size(), head) != 0) die(where + ": missing zar-message-source line");
      std::istringstream words(line.substr(head.size()));
      std::string w;
      while (words >> w) {
        size_t eq = w.find('=');
        if (eq == std::string::npos) die(where + ": bad metadata " + w);
        std::string key = w.substr(0, eq), value = w.substr(eq + 1);
        if (key == "technology") s.technology = atoi(value.c_str());
        else if (key == "component") s.component = value;
        else if (key == "table") s.table = value;
        else die(where + ": unknown metadata " + key);
      }
      if (s.technology != 1 && s.technology != 3) die(where + ": technology must be 1 or 3");
      componentCode(s.component, where);
      continue;
    }
    if (line.empty() || line.compare(0, 2, "$ ") == 0 || line == "$") continue;
    if (line == "$quote \"") {
      sawQuote = true;
      continue;
    }
    if (line == "$set 1") {
      sawSet = true;
      continue;
    }
    if (line[0] == '$') die(where + ": unsupported directive " + line);
    size_t sp = line.find(' ');
    if (sp == std::string::npos || !sawQuote || !sawSet) die(where + ": malformed line");
    std::string numText = line.substr(0, sp);
    if (numText.find_first_not_of("0123456789") != std::string::npos || numText.size() > 4)
      die(where + ": bad message number");
    int num = atoi(numText.c_str());
    if (num < 1 || num > 4095) die(where + ": message number out of range");
    if (!s.msgs.empty() && num <= s.msgs.back().num) die(where + ": numbers must ascend");
    std::string rest = line.substr(sp + 1);
    if (rest.size() < 2 || rest.front() != '"' || rest.back() != '"')
      die(where + ": text must be in double quotes");
    s.msgs.push_back({num, decode(rest.substr(1, rest.size() - 2), where)});
  }
  return s;
}

uint32_t statusCode(const Source& s, int num) {
  return (static_cast<uint32_t>(s.technology) << 28) |
         (static_cast<uint32_t>(componentCode(s.component, s.path)) << 12) |
         static_cast<uint32_t>(num);
}

std::string cLiteral(const std::string& text) {
  std::string out = "\"";
  char buf[8];
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7F && c != '?') {
      out += static_cast<char>(c);
    } else {
      snprintf(buf, sizeof buf, "\\%03o", c);
      out += buf;
    }
  }
  return out + "\"";
}

void writeTables(const std::string& outPath, const std::vector<Source>& sources,
                 const std::vector<TableSpec>& specs) {
  std::ostringstream o;
  o << "// Generated by messages/msggen.cc from messages/*.msg. Do not edit.\n"
       "#include \"core/svcutl/msgint.h\"\n\n";
  std::vector<std::string> records;
  for (const TableSpec& spec : specs) {
    const Source* src = nullptr;
    for (const Source& s : sources)
      if (s.technology == 3 && s.table == spec.name) src = &s;
    o << "extern \"C\" ZAR_API const zar_msg_entry " << spec.name << "[" << spec.count << "] = {\n";
    uint32_t lowest = 1, highest = 0;
    long count = 0;
    if (src != nullptr) {
      count = static_cast<long>(src->msgs.size());
      lowest = statusCode(*src, src->msgs.front().num);
      highest = statusCode(*src, src->msgs.back().num);
      if (count != spec.count || lowest != static_cast<uint32_t>(spec.lowest) ||
          highest != static_cast<uint32_t>(spec.highest)) {
        char msg[256];
        snprintf(msg, sizeof msg,
                 "%s: table %s has %ld messages from 0x%08X to 0x%08X; it must have %ld from "
                 "0x%08lX to 0x%08lX",
                 src->path.c_str(), spec.name.c_str(), count, lowest, highest, spec.count,
                 static_cast<unsigned long>(spec.lowest), static_cast<unsigned long>(spec.highest));
        die(msg);
      }
      for (const Message& m : src->msgs) {
        char code[16];
        snprintf(code, sizeof code, "0x%08XU", statusCode(*src, m.num));
        o << "    {" << code << ", " << cLiteral(m.text) << "},\n";
      }
    } else {
      fprintf(stderr, "msggen: warning: no source for table %s; it is generated empty\n",
              spec.name.c_str());
    }
    o << "};\n\n";
    char rec[160];
    snprintf(rec, sizeof rec, "    {%s, %ldU, 0x%08XU, 0x%08XU},\n", spec.name.c_str(), count,
             lowest, highest);
    records.push_back(rec);
  }
  o << "zar_msg_table zar_msg_g_compiled_table[" << specs.size() << "] = {\n";
  for (const std::string& r : records) o << r;
  o << "};\n";
  // Rewrite only when the contents change, so the library is not rebuilt for nothing.
  std::ifstream old(outPath);
  std::stringstream oldText;
  oldText << old.rdbuf();
  if (old && oldText.str() == o.str()) return;
  std::ofstream out(outPath, std::ios::trunc);
  out << o.str();
  if (!out) die(outPath + ": cannot be written");
}

// ---- Catalogs ------------------------------------------------------------------

struct LangInfo {
  const char* lang;
  const char* territory;
  const char* legacyCodeset;    // null: UTF-8 only
};
const LangInfo kLangs[] = {{"de", "DE", "ISO-8859-1"}, {"fr", "FR", "ISO-8859-1"},
                           {"es", "ES", "ISO-8859-1"}, {"it", "IT", "ISO-8859-1"},
                           {"pt", "BR", "ISO-8859-1"}, {"ja", "JP", "EUC-JP"}};

// The locale gencat runs in to accept texts of a code set.
std::string gencatLocale(const std::string& codeset) {
  if (codeset == "UTF-8") return "C.UTF-8";
  if (codeset == "US-ASCII") return "C";
  if (codeset == "EUC-JP") return "ja_JP.EUC-JP";
  return "en_US." + codeset;
}

void makeDirs(const std::string& path) {
  for (size_t i = 1; i <= path.size(); ++i)
    if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
}

std::string convert(const std::string& utf8, const std::string& codeset, const std::string& where) {
  if (codeset == "UTF-8") return utf8;
  iconv_t cd = iconv_open((codeset + "//TRANSLIT").c_str(), "UTF-8");
  if (cd == reinterpret_cast<iconv_t>(-1)) die("iconv cannot convert into " + codeset);
  std::string out(utf8.size() * 4 + 16, '\0');
  char* ip = const_cast<char*>(utf8.data());
  size_t il = utf8.size();
  char* op = out.data();
  size_t ol = out.size();
  size_t r = iconv(cd, &ip, &il, &op, &ol);
  iconv_close(cd);
  if (r == static_cast<size_t>(-1)) die(where + ": text cannot be converted into " + codeset);
  out.resize(out.size() - ol);
  return out;
}

std::string gencatEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    if (c == '\t') {
      out += "\\t";
      continue;
    }
    out += c;
  }
  return out;
}

std::string catalogName(const Source& s) {
  return (s.technology == 3 ? "kp" : "kpb") + s.component + ".cat";
}

void runGencat(const std::string& gencat, const std::string& locpath, const std::string& locale,
               const std::string& cat, const std::string& src) {
  pid_t pid = fork();
  if (pid < 0) die("fork failed");
  if (pid == 0) {
    setenv("LC_ALL", locale.c_str(), 1);
    if (!locpath.empty()) setenv("LOCPATH", locpath.c_str(), 1);
    unlink(cat.c_str());  // gencat merges into an existing catalog
    execlp(gencat.c_str(), gencat.c_str(), cat.c_str(), src.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) die("gencat failed for " + src);
  struct stat st;
  if (stat(cat.c_str(), &st) != 0) die("gencat wrote no " + cat);
}

// Writes and compiles one catalog of msgs in codeset into DIR/locDir.
void makeCatalog(const std::string& dir, const std::string& locDir, const std::string& codeset,
                 const Source& base, const std::vector<Message>& msgs, const std::string& gencat,
                 const std::string& locpath) {
  std::string outDir = dir + "/" + locDir;
  std::string srcDir = dir + "/.src/" + locDir;
  makeDirs(outDir);
  makeDirs(srcDir);
  std::string name = catalogName(base);
  std::string src = "$ Generated from " + base.path + "\n$quote \"\n$set 1\n";
  for (const Message& m : msgs)
    src += std::to_string(m.num) + " \"" +
           gencatEscape(convert(m.text, codeset, base.path + " message " + std::to_string(m.num))) +
           "\"\n";
  src += "$set 255\n1 \"charset=" + codeset + "\"\n";
  std::string srcPath = srcDir + "/" + name + ".msg";
  std::ofstream(srcPath, std::ios::trunc) << src;
  runGencat(gencat, locpath, gencatLocale(codeset), outDir + "/" + name, srcPath);
}

}  // namespace

int main(int argc, char** argv) {
  std::string ccOut, catDir, locpath, gencat = "gencat";
  std::vector<TableSpec> specs;
  std::vector<std::string> files;
  std::vector<std::pair<std::string, std::string>> translations;  // lang, file
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) die("missing value after " + a);
      return argv[++i];
    };
    if (a == "--cc") ccOut = next();
    else if (a == "--catalogs") catDir = next();
    else if (a == "--locpath") locpath = next();
    else if (a == "--gencat") gencat = next();
    else if (a == "--table") {
      std::string v = next();
      TableSpec t;
      char name[128];
      if (sscanf(v.c_str(), "%127[^:]:%ld:%li:%li", name, &t.count, &t.lowest, &t.highest) != 4)
        die("bad --table " + v);
      t.name = name;
      specs.push_back(t);
    } else if (a == "--translation") {
      std::string lang = next();
      translations.emplace_back(lang, next());
    } else if (!a.empty() && a[0] == '-') {
      die("unknown option " + a);
    } else {
      files.push_back(a);
    }
  }
  if (ccOut.empty() || catDir.empty()) die("usage: msggen --cc OUT.cc --catalogs DIR ... FILE...");
  std::vector<Source> sources;
  for (const std::string& f : files) sources.push_back(readSource(f));
  std::sort(sources.begin(), sources.end(),
            [](const Source& a, const Source& b) { return statusCode(a, 0) < statusCode(b, 0); });
  for (size_t i = 1; i < sources.size(); ++i)
    if (statusCode(sources[i], 0) == statusCode(sources[i - 1], 0))
      die(sources[i].path + ": same component as " + sources[i - 1].path);
  writeTables(ccOut, sources, specs);

  // English catalogs.
  for (const Source& s : sources) makeCatalog(catDir, "C", "US-ASCII", s, s.msgs, gencat, locpath);
  // Translations, over the English texts, per language and code set.
  std::map<std::string, std::vector<Source>> byLang;
  for (const auto& [lang, file] : translations) byLang[lang].push_back(readSource(file));
  for (const auto& [lang, list] : byLang) {
    const LangInfo* info = nullptr;
    for (const LangInfo& l : kLangs)
      if (lang == l.lang) info = &l;
    std::string terr = info != nullptr ? info->territory : lang;
    std::transform(terr.begin(), terr.end(), terr.begin(), ::toupper);
    std::vector<std::pair<std::string, std::string>> dirs = {
        {lang, "UTF-8"}, {lang + "_" + terr + ".UTF-8", "UTF-8"}};
    if (info != nullptr && info->legacyCodeset != nullptr)
      dirs.emplace_back(lang + "_" + terr + "." + info->legacyCodeset, info->legacyCodeset);
    for (const Source& base : sources) {
      std::vector<Message> msgs = base.msgs;
      for (const Source& t : list) {
        if (statusCode(t, 0) != statusCode(base, 0)) continue;
        for (const Message& m : t.msgs) {
          auto it = std::find_if(msgs.begin(), msgs.end(),
                                 [&](const Message& b) { return b.num == m.num; });
          if (it == msgs.end()) die(t.path + ": message " + std::to_string(m.num) + " has no English text");
          it->text = m.text;
        }
      }
      for (const auto& [locDir, codeset] : dirs)
        makeCatalog(catDir, locDir, codeset, base, msgs, gencat, locpath);
    }
  }
  std::ofstream(catDir + "/.stamp", std::ios::trunc) << "catalogs made\n";
  return 0;
}
