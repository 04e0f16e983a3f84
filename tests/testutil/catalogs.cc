#include "tests/testutil/catalogs.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "tests/testutil/testutil.h"

namespace zar::test {

void makeDirs(const std::string& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path, ignored);
}

bool makeCatalog(const std::string& path, const std::vector<CatMsg>& msgs,
                 const std::string& charset, const std::string& gencatLocale) {
  std::map<int, std::string> bySet;  // set number -> its message lines
  for (const CatMsg& m : msgs) {
    std::string& lines = bySet[m.set];
    lines += std::to_string(m.num) + " \"";
    for (char c : m.text) {
      if (c == '"' || c == '\\') lines += '\\';
      lines += c == '\n' ? "\\n" : std::string(1, c);
    }
    lines += "\"\n";
  }
  std::string src = "$quote \"\n";
  for (const auto& [set, lines] : bySet) src += "$set " + std::to_string(set) + "\n" + lines;
  if (!charset.empty()) src += "$set 255\n1 \"charset=" + charset + "\"\n";
  makeDirs(path.substr(0, path.rfind('/')));
  const std::string srcPath = path + ".msg";
  writeFile(srcPath, src);
  const std::string cmd = "LC_ALL='" + gencatLocale + "' gencat '" + path + "' '" + srcPath + "'";
  const int status = system(cmd.c_str());
  unlink(srcPath.c_str());
  return exitCode(status) == 0 && fileExists(path);
}

std::string withStatus(const char* text, unsigned long status) {
  std::string s = text != nullptr ? text : "<null>";
  return status == 0 ? s : s + " #" + hexStatus(status);
}

std::vector<std::string> childTexts(const std::function<std::vector<std::string>()>& fn) {
  TempDir dir;
  const std::string out = dir.file("texts");
  int status = runInChild([&] {
    std::string all;
    for (const std::string& t : fn()) all += t + '\0';
    writeFile(out, all);
    return 0;
  });
  if (exitCode(status) != 0) return {"<child wait status " + std::to_string(status) + ">"};
  std::vector<std::string> texts;
  const std::string all = readFile(out);
  for (size_t p = 0; p < all.size(); p = all.find('\0', p) + 1)
    texts.push_back(all.substr(p, all.find('\0', p) - p));
  return texts;
}

}  // namespace zar::test
