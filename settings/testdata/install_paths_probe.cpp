// Prints what the installation look-ups answer for the running executable, so
// a test can copy this program into a fake prefix under different names and
// check the answers from outside.
#include <cstdio>
#include <string>

#include "settings/Locations.h"

int main() {
  std::string executable;
  std::string config;
  std::string container;
  const int status = GetInstallPaths(executable, config, container);
  std::printf("status=%d\nexecutable=%s\nconfig=%s\ncontainer=%s\n", status, executable.c_str(), config.c_str(),
              container.c_str());
  std::string maxSize = "untouched";
  const int sizeStatus = GetMaxTotalDirSize(maxSize);
  std::printf("sizeStatus=%d\nmaxTotalDirSize=%s\n", sizeStatus, maxSize.c_str());
  return 0;
}
