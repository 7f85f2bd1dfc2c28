#include "cli/program_run.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>

#include "cli/child_program.h"
#include "cli/interrupt.h"

namespace ZorvSnapUsage {
namespace {

// How long a signal that comes just before the wait may go unnoticed.
constexpr std::chrono::milliseconds kTick{100};

// Appends what there is to be read, and closes the descriptor at its end.
void ReadSome(UniqueFd& fd, std::string& text) {
  char buffer[65536];
  const ssize_t got = read(fd.Get(), buffer, sizeof buffer);
  if (got > 0) text.append(buffer, static_cast<size_t>(got));
  if (got == 0 || (got < 0 && errno != EINTR)) fd.Reset();
}

// Takes the whole lines out of `text`; at the end what is left is one, too.
void TakeLines(std::string& text, bool atEnd, const ProgramWatch& watch, std::string& last) {
  if (atEnd && !text.empty() && text.back() != '\n') text += '\n';
  for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
    last = text.substr(0, end);
    watch.errorLine(last);
  }
}

}  // namespace

ProgramEnd RunProgram(const std::vector<std::string>& argv, const ProgramWatch& watch) {
  Pipe output = MakePipe(), errors = MakePipe();
  ChildProgram program(argv, output.write.Get(), errors.write.Get());
  output.write.Reset();
  errors.write.Reset();
  ProgramEnd end;
  std::string errorText;
  const auto look = [&watch] {
    Interrupt::RequireNone();
    watch.tick();
  };
  while (output.read.Valid() || errors.read.Valid()) {
    pollfd watched[] = {{output.read.Get(), POLLIN, 0}, {errors.read.Get(), POLLIN, 0}};
    const int ready = poll(watched, 2, static_cast<int>(kTick.count()));
    look();
    if (ready <= 0) continue;
    if (watched[0].revents != 0) ReadSome(output.read, end.output);
    if (watched[1].revents != 0) ReadSome(errors.read, errorText);
    TakeLines(errorText, /*atEnd=*/!errors.read.Valid(), watch, end.lastError);
    if (end.output.size() > watch.mostOutput) output.read.Reset();
  }
  while (!program.WaitForEnd(kTick)) look();
  end.waitStatus = program.WaitStatus();
  return end;
}

}  // namespace ZorvSnapUsage
