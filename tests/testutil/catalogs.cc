#include "tests/testutil/catalogs.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "tests/testutil/testutil.h"

namespace zar::test {

void makeDirs(const std::string& path) {
  for (size_t i = 1; i <= path.size(); ++i)
    if (i == path.size() || path[i] == '/') ::mkdir(path.substr(0, i).c_str(), 0755);
}

bool makeCatalog(const std::string& path, const std::vector<CatMsg>& msgs,
                 const std::string& charset, const std::string& gencatLocale) {
  std::map<int, std::vector<const CatMsg*>> bySet;
  for (const CatMsg& m : msgs) bySet[m.set].push_back(&m);
  std::string src = "$quote \"\n";
  for (auto& [set, list] : bySet) {
    src += "$set " + std::to_string(set) + "\n";
    for (const CatMsg* m : list) {
      src += std::to_string(m->num) + " \"";
      for (char c : m->text) {
        if (c == '"' || c == '\\') src += '\\';
        if (c == '\n') {
          src += "\\n";
          continue;
        }
        src += c;
      }
      src += "\"\n";
    }
  }
  if (!charset.empty()) src += "$set 255\n1 \"charset=" + charset + "\"\n";
  std::string srcPath = path + ".msg";
  writeFile(srcPath, src);
  pid_t pid = fork();
  if (pid == 0) {
    setenv("LC_ALL", gencatLocale.c_str(), 1);
    execlp("gencat", "gencat", path.c_str(), srcPath.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  unlink(srcPath.c_str());
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 && fileExists(path);
}

}  // namespace zar::test
