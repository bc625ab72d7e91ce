// Prints what the installation look-ups answer for the running executable, one
// a line (status, executable, configuration, container, size status, size),
// so a test can copy this program into a fake prefix under different names
// and check the answers from outside.
#include <cstdio>
#include <string>

#include "Locations.h"

int main() {
  std::string executable, config, container, maxSize;
  const int status = GetInstallPaths(executable, config, container);
  const int sizeStatus = GetMaxTotalDirSize(maxSize);
  std::printf("%d\n%s\n%s\n%s\n%d\n%s\n", status, executable.c_str(), config.c_str(), container.c_str(), sizeStatus,
              maxSize.c_str());
}
