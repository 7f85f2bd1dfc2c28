// The one home of the log prefix: "unit:line ", with function, process and task for task objects.
//
// Each .cc declares its unit: namespace { constexpr char kLogUnit[] = "utils/task_status"; }
// The unit is interface (readers grep for it), the path of the file is not.
#ifndef BASE_LOG_H_
#define BASE_LOG_H_

#include <syslog.h>
#include <unistd.h>
#include <zorvplatform/platc.h>

#include <string>

namespace ZorvBtrfsUsage {

// Where a log line comes from; handed on when a helper logs on behalf of its caller.
struct LogSite {
  const char* unit;
  int line;
};

// Logs a failed condition in the form of all units and sets the platform error 0x0D00 there.
inline void LogInvalidArgument(LogSite site, const char* condition) {
  syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", site.unit, site.line, condition, 0);
  PLATCErrSetEx(0x0D00, site.unit, static_cast<unsigned int>(site.line));
}

}  // namespace ZorvBtrfsUsage

#define ZLOG_HERE (::ZorvBtrfsUsage::LogSite{kLogUnit, __LINE__})

#define ZLOG_AT(site, prio, fmt, ...) \
  syslog(prio, "%s:%d " fmt, (site).unit, (site).line __VA_OPT__(, ) __VA_ARGS__)

#define ZLOG(prio, fmt, ...) ZLOG_AT(ZLOG_HERE, prio, fmt __VA_OPT__(, ) __VA_ARGS__)

// Both forms of a task's message: with "[id]" when there is an ID, without when not.
#define ZLOG_TASK(prio, id, fmt, ...)                                              \
  do {                                                                             \
    const std::string& zlogID = (id);                                              \
    if (zlogID.empty())                                                            \
      ZLOG(prio, "(%s)[%d]: " fmt, __func__, getpid() __VA_OPT__(, ) __VA_ARGS__); \
    else                                                                           \
      ZLOG(prio, "(%s)[%d][%s]: " fmt, __func__, getpid(),                         \
           zlogID.c_str() __VA_OPT__(, ) __VA_ARGS__);                             \
  } while (0)

// The text is passed, not cut from the condition: "__null" and "NULL" both occur as given texts.
#define ZLOG_INVALID_ARG(condition) ::ZorvBtrfsUsage::LogInvalidArgument(ZLOG_HERE, condition)

// The three arguments of a tail "[0x%04X %s:%d]".
#define PLAT_ERR PLATCErrGet(), PLATCErrorGetFile(), static_cast<int>(PLATCErrorGetLine())

// Sets the platform error of this place.
#define PLAT_ERR_SET(code) PLATCErrSetEx(code, kLogUnit, __LINE__)

#endif  // BASE_LOG_H_
