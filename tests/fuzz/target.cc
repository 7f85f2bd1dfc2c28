#include "tests/fuzz/target.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_fd.h"

namespace ZorvTest {

std::map<std::string, FuzzFunction>& FuzzTargets() {
  static std::map<std::string, FuzzFunction> targets;
  return targets;
}

void FuzzFailure(const char* file, int line, const char* law) {
  fprintf(stderr, "%s:%d: a law is broken: %s\n", strrchr(file, '/') + 1, line, law);
  abort();
}

uint64_t FuzzInput::Number(size_t size) {
  const std::string_view bytes = Bytes(size);
  uint64_t number = 0;
  for (size_t i = 0; i < bytes.size(); ++i)
    number |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
  return number;
}

std::string_view FuzzInput::Bytes(size_t size) {
  const std::string_view taken = rest_.substr(0, size);
  rest_.remove_prefix(taken.size());
  return taken;
}

std::string_view FuzzInput::Line() {
  const std::string_view line = rest_.substr(0, rest_.find('\n'));
  rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
  return line;
}

void PutFile(const std::string& path, std::string_view content) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.Valid() ||
      write(fd.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    perror(path.c_str());
    abort();
  }
}

std::string FileContent(const std::string& path) {
  std::string content;
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char buffer[65536];
  ssize_t got;
  while (fd.Valid() && (got = read(fd.Get(), buffer, sizeof buffer)) > 0)
    content.append(buffer, static_cast<size_t>(got));
  return content;
}

}  // namespace ZorvTest
