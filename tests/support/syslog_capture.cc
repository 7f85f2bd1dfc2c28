#include "tests/support/syslog_capture.h"

#include <ctype.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace ZorvTest {
namespace {

constexpr char kDevLog[] = "/dev/log";
constexpr char kMark[] = "mark";
constexpr char kEnd[] = "end";

// The process that collects; 0 for none.
pid_t collector = 0;

sockaddr_un Address() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kDevLog);
  return address;
}

void Send(const char* text) {
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = Address();
  if (sendto(fd.Get(), text, strlen(text), 0, reinterpret_cast<const sockaddr*>(&address),
             sizeof address) < 0)
    throw std::runtime_error(std::string("cannot send to /dev/log: ") + strerror(errno));
}

// "<11>Nov 20 21:00:00 program: text", as the C library sends it.
SyslogLine ParseDatagram(const std::string& datagram) {
  const int code = atoi(datagram.c_str() + 1);
  size_t at = datagram.find('>') + 1 + strlen("Nov 20 21:00:00 ");
  const size_t colon = datagram.find(": ", at);
  at = colon == std::string::npos ? at : colon + 2;
  return {LOG_PRI(code), at <= datagram.size() ? datagram.substr(at) : datagram};
}

// What follows "<unit>:<digits> ", or nothing when the line is of another unit.
bool AfterUnit(const std::string& text, const std::string& unit, std::string& rest) {
  if (text.compare(0, unit.size() + 1, unit + ":") != 0) return false;
  size_t at = unit.size() + 1;
  const size_t digits = at;
  while (at < text.size() && isdigit(static_cast<unsigned char>(text[at]))) ++at;
  if (at == digits || at >= text.size() || text[at] != ' ') return false;
  rest = text.substr(at + 1);
  return true;
}

// `text` without "(<function>)[<pid>]" at its beginning.
bool AfterFunctionAndPid(const std::string& text, const std::string& function, pid_t pid,
                         std::string& rest) {
  const std::string head = "(" + function + ")[";
  if (text.compare(0, head.size(), head) != 0) return false;
  char* end = nullptr;
  const long found = strtol(text.c_str() + head.size(), &end, 10);
  if (*end != ']' || (pid != 0 && found != pid)) return false;
  rest = end + 1;
  return true;
}

}  // namespace

SyslogCapture::SyslogCapture() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  (void)unlink(kDevLog);
  const sockaddr_un address = Address();
  if (bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error(std::string("cannot bind /dev/log: ") + strerror(errno));
  (void)chmod(kDevLog, 0666);  // children may be other users
  closelog();
  collector = getpid();
  // The thread takes no signal that another waits for.
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &saved);
  thread_ = std::thread([this] { Collect(); });
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

SyslogCapture::~SyslogCapture() {
  Send(kEnd);
  thread_.join();
  collector = 0;
  (void)unlink(kDevLog);
}

void SyslogCapture::Collect() {
  std::string buffer(1 << 18, '\0');
  for (;;) {
    const ssize_t n = recv(socket_.Get(), buffer.data(), buffer.size(), 0);
    if (n < 0 && errno != EINTR) return;
    const std::string datagram = buffer.substr(0, n < 0 ? 0 : static_cast<size_t>(n));
    if (datagram == kEnd) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (datagram == kMark)
      ++marks_;
    else if (!datagram.empty())
      lines_.push_back(ParseDatagram(datagram));
  }
}

std::vector<SyslogLine> SyslogCapture::Lines() {
  int before;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    before = marks_;
  }
  Send(kMark);
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (marks_ > before) return lines_;
    }
    usleep(100);
  }
}

void SyslogCapture::Clear() {
  (void)Lines();
  const std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

int SyslogCapture::Count(std::string_view part) {
  int count = 0;
  for (const SyslogLine& line : Lines()) count += line.text.find(part) != std::string::npos;
  return count;
}

int SyslogCapture::CountExact(int priority, const std::string& unit, const std::string& message) {
  int count = 0;
  std::string rest;
  for (const SyslogLine& line : Lines())
    count += line.priority == priority && AfterUnit(line.text, unit, rest) && rest == message;
  return count;
}

int SyslogCapture::CountTask(int priority, const std::string& unit, const std::string& function,
                             pid_t pid, const std::string& taskID, const std::string& message) {
  const std::string wanted = (taskID.empty() ? "" : "[" + taskID + "]") + ": " + message;
  int count = 0;
  std::string rest;
  for (const SyslogLine& line : Lines())
    count += line.priority == priority && AfterUnit(line.text, unit, rest) &&
             AfterFunctionAndPid(std::string(rest), function, pid, rest) && rest == wanted;
  return count;
}

std::string SyslogCapture::Dump() {
  std::string text;
  for (const SyslogLine& line : Lines())
    text += "<" + std::to_string(line.priority) + "> " + line.text + "\n";
  return text;
}

}  // namespace ZorvTest

// Asked by the leak check at the end of a process. A child that was forked while somebody collects
// has the memory of the collecting thread but not the thread, and would report it as lost.
extern "C" int __lsan_is_turned_off() {
  return ZorvTest::collector != 0 && ZorvTest::collector != getpid();
}
