#include "LogKind.h"

std::string LogKindOf(const std::string& inFileName) {
  const std::string::size_type underscore = inFileName.find('_');
  return underscore == std::string::npos ? std::string() : inFileName.substr(0, underscore);
}
