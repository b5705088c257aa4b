// Sample plugin: prints the numbers of its open descriptors in ascending order, blank-separated,
// on one line (the descriptor of the directory listing itself left out).
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <set>

int main() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return 3;
  std::set<int> fds;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = std::atoi(entry->d_name);
    if (fd != dirfd(dir)) fds.insert(fd);
  }
  closedir(dir);
  const char* separator = "";
  for (const int fd : fds) {
    std::printf("%s%d", separator, fd);
    separator = " ";
  }
  std::printf("\n");
  return 0;
}
