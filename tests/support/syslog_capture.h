// What this process and its children send to syslog.
#ifndef TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <sys/types.h>
#include <syslog.h>

#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace ZorvTest {

struct SyslogLine {
  int priority;      // LOG_ERR, LOG_WARNING, LOG_DEBUG, ...
  std::string text;  // without time and program: "utils/task_status:123 ..."
};

// Stands at /dev/log of the private world and collects. One at a time.
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  // All lines sent before the call, in order.
  std::vector<SyslogLine> Lines();

  // Forgets what came so far.
  void Clear();

  // How many lines contain `part`.
  int Count(std::string_view part);

  // How many lines are exactly "<unit>:<line> <message>" at `priority`.
  int CountExact(int priority, const std::string& unit, const std::string& message);

  // The same for a task's message: "(<function>)[<pid>][<taskID>]: <message>", or without the ID
  // part when `taskID` is empty. A pid of 0 stands for any.
  int CountTask(int priority, const std::string& unit, const std::string& function, pid_t pid,
                const std::string& taskID, const std::string& message);

  // All lines as one text, for the message of a failed expectation.
  std::string Dump();

 private:
  void Collect();

  UniqueFd socket_;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<SyslogLine> lines_;
  int marks_ = 0;  // marks seen; a mark shows that all sent before it has been collected
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SYSLOG_CAPTURE_H_
