// hostile_btrfs: stands at /sbin/btrfs and prints what no engine would.
//
//   btrfs subvolume size -vpm MODE [NUMBER [SECONDS]]
//
// NUMBER is how many bytes or lines; SECONDS after how many it is enough. How many there were
// stands in /tmp/printed in the end.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

namespace {

using Number = unsigned long long;

double Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void Note(Number printed) {
  FILE* const note = fopen("/tmp/printed", "w");
  fprintf(note, "%llu\n", printed);
  fclose(note);
}

// The whole of a piece; false when nobody reads any more.
bool Print(const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = write(STDOUT_FILENO, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}
bool Print(const std::string& text) { return Print(text.data(), text.size()); }

// Prints pieces of `make(count so far)` until there are so many bytes or lines, or it is enough.
void PrintMany(Number most, double seconds, size_t counted,
               const std::function<std::string(Number)>& make) {
  const double end = Now() + seconds;
  Number printed = 0;
  while (printed < most && Now() < end) {
    const std::string piece = make(printed);
    if (!Print(piece)) break;
    printed += counted == 0 ? piece.size() : counted;
  }
  Note(printed);
}

constexpr size_t kPiece = 1 << 16;
constexpr Number kLinesInPiece = 1000;

// Any bytes, but none of the words: lines that begin with them mean something.
std::string Garbage(Number at) {
  static uint64_t state = 0x9E3779B97F4A7C15ULL;
  std::string piece(kPiece, '\0');
  for (size_t i = 0; i + 8 <= piece.size(); i += 8) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    memcpy(&piece[i], &state, 8);
  }
  for (char& c : piece)
    if (c == 's' || c == 'e' || c == 'p') c = '\n';
  (void)at;
  return piece;
}

std::string Lines(Number at, const char* format) {
  std::string piece;
  char line[64];
  for (Number i = 0; i < kLinesInPiece; ++i) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    snprintf(line, sizeof line, format, at + i + 1, at + i + 1);
#pragma GCC diagnostic pop
    piece += line;
  }
  return piece;
}

// Waits until somebody writes to /tmp/hold.
void WaitForLeave() {
  Note(0);
  const int hold = open("/tmp/hold", O_RDONLY);
  char byte;
  while (hold >= 0 && read(hold, &byte, 1) < 0 && errno == EINTR) continue;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  signal(SIGPIPE, SIG_IGN);  // to tell how much was read
  const Number number = argc > 5 ? strtoull(argv[5], nullptr, 10) : 0;
  const double seconds = argc > 6 ? strtod(argv[6], nullptr) : 1e9;
  const std::map<std::string, std::function<void()>> modes = {
      {"garbage", [&] { PrintMany(number, seconds, 0, Garbage); }},
      {"line",
       [&] {
         PrintMany(number, seconds, 0, [](Number) { return std::string(kPiece, 'x'); });
         Print("\nsubvol(257) 5 bytes\n");
       }},
      {"nuls",
       [&] {
         PrintMany(number, seconds, 0, [](Number) { return std::string(kPiece, '\0'); });
         Print("\nsubvol(257) 5 bytes\n");
       }},
      {"progress",
       [&] {
         PrintMany(number, seconds, kLinesInPiece,
                   [](Number at) { return Lines(at, "processed %llu bytes\n"); });
       }},
      {"ids",
       [&] {
         PrintMany(number, seconds, kLinesInPiece,
                   [](Number at) { return Lines(at, "subvol(%llu) %llu bytes\n"); });
       }},
      {"hang",
       [] {
         Print("processed 1 bytes\n");
         WaitForLeave();
         Print("processed 2 bytes\nsubvol(257) 5 bytes\n");
       }},
      {"deaf",  // closes its output, hangs, and is a moment behind when it may go
       [] {
         Print("subvol(257) 5 bytes\n");
         close(STDOUT_FILENO);
         WaitForLeave();
         usleep(200'000);
         Note(1);
       }},
      {"child",  // ends, and leaves a process that holds the pipe
       [] {
         Print("processed 1 bytes\n");
         if (fork() != 0) _exit(0);
         WaitForLeave();
         Print("subvol(257) 5 bytes\n");
       }},
      {"dies", [] { _exit(3); }},
      {"killed", [] { kill(getpid(), SIGKILL); }},
      {"cut",
       [] {
         Print("processed 5 bytes\nsubvol(257) 12");
         kill(getpid(), SIGKILL);
       }},
      {"text", [&] { Print(std::string(argv[5]) + "\n"); }},
  };
  const auto mode = modes.find(argv[4]);
  if (mode == modes.end()) return 2;
  mode->second();
  return 0;
}
