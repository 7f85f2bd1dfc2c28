#include "tests/cli/cli_world.h"

#include <errno.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace ZorvTest {
namespace {

constexpr char kFifo[] = "/tmp/engine.fifo";
constexpr char kWaiting[] = "/tmp/engine.waits";

int NewFile() { return open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); }

std::string WholeFile(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
    text.append(buffer, static_cast<size_t>(n));
  return text;
}

[[noreturn]] void Exec(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

}  // namespace

Background::Background(const std::vector<std::string>& argv) : out_(NewFile()), err_(NewFile()) {
  pid_ = fork();
  if (pid_ != 0) return;
  dup2(out_.Get(), STDOUT_FILENO);
  dup2(err_.Get(), STDERR_FILENO);
  Exec(argv);
}

Background::Background(const std::vector<std::string>& argv, Terminal terminal) : terminal_(true) {
  winsize size = {24, terminal.columns, 0, 0};
  int master = -1;
  pid_ = forkpty(&master, nullptr, nullptr, &size);
  if (pid_ < 0) throw std::runtime_error("no terminal to be had");
  if (pid_ == 0) Exec(argv);
  out_.Reset(master);
  fcntl(master, F_SETFL, O_NONBLOCK);
}

Background::~Background() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  (void)WaitForExit(pid_);
}

std::string Background::Out() {
  if (!terminal_) return WholeFile(out_.Get());
  char buffer[4096];
  for (ssize_t n; (n = read(out_.Get(), buffer, sizeof buffer)) > 0;)
    screen_.append(buffer, static_cast<size_t>(n));
  return screen_;
}

std::string Background::Err() { return terminal_ ? "" : WholeFile(err_.Get()); }

bool Background::HasSaid(const std::string& text) {
  return WaitUntil([&] { return (terminal_ ? Out() : Err()).find(text) != std::string::npos; });
}

void Background::Resize(unsigned short columns) {
  const winsize size = {24, columns, 0, 0};
  if (ioctl(out_.Get(), TIOCSWINSZ, &size) != 0) throw std::runtime_error("cannot resize");
}

void Background::Type(char character) {
  if (write(out_.Get(), &character, 1) != 1) throw std::runtime_error("cannot type");
}

CommandResult Background::Wait() {
  int status = 0;
  const bool ended = WaitUntil(
      [&] {
        Out();  // a terminal that nobody reads stops its writer
        return waitpid(pid_, &status, WNOHANG) == pid_;
      },
      60);
  if (!ended) throw std::runtime_error("still running; it said: " + Out() + Err());
  pid_ = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), Out(), Err()};
}

CliWorld::CliWorld() : volume_(std::make_unique<BtrfsVolume>("/volume1")) {
  for (const char* left :
       {"/run/zorvbtrfssnapusage", "/run/lock/zorvbtrfssnapusage", "/usr/local/zorvbtrfssnapusage",
        "/var/cache/zorv-snapusage", "/sbin/btrfs", kFifo, kWaiting})
    std::filesystem::remove_all(left);
  if (mkfifo(kFifo, 0600) != 0) throw std::runtime_error("no fifo");
  volume_->Subvolume("photos");
  for (const char* snapshot : {kFirst, kSecond, kNoTime})
    volume_->Snapshot("photos", std::string("photos/.snapshots/") + snapshot);
  estimate_ = check_ = "false";
  table_ = kTable;
  FakeEngine(kAnswer);
}

CliWorld::~CliWorld() {
  // A calculation that a test left waiting must not meet the next one's volume; one that was killed
  // may have left its engine.
  if (CalculatorPid() != -1 || std::filesystem::exists(kWaiting)) Release();
  (void)Settled();
}

std::vector<std::string> CliWorld::Argv(const std::vector<std::string>& words) {
  std::vector<std::string> argv = {ZORV_CLI_PATH};
  argv.insert(argv.end(), words.begin(), words.end());
  return argv;
}

CommandResult CliWorld::Tool(const std::vector<std::string>& words) {
  return ZorvTest::Run(Argv(words));
}

std::string CliWorld::estimate_ = "false";
std::string CliWorld::check_ = "false";
std::string CliWorld::table_;

void CliWorld::FakeEngine(const std::string& body) {
  WriteScript("/sbin/btrfs",
              "case \"$3\" in\n"
              "--version) echo 'zorv btrfs engine 0.0.0'; exit 0;;\n"
              "--estimate) " +
                  estimate_ +
                  "; exit;;\n"
                  "--check) " +
                  check_ + "; exit;;\n" +
                  (table_.empty() ? "" : "--table) " + table_ + "; exit;;\n") +
                  "esac\n"
                  "shift 5\n" +
                  body);
}

void CliWorld::WaitingEngine(const std::string& before) {
  FakeEngine(before + "\ntouch " + kWaiting + "\nread line < " + kFifo + "\n" + kAnswer);
}

bool CliWorld::EngineWaits() {
  return WaitUntil([] { return std::filesystem::exists(kWaiting); });
}

bool CliWorld::StopArrives(const std::string& share) {
  const std::string status = "/proc/" + std::to_string(CalculatorPid(share)) + "/status";
  return WaitUntil([&] {
    const std::string text = ReadFile(status);
    const size_t at = text.find("ShdPnd:");
    return (strtoull(text.c_str() + at + sizeof "ShdPnd:", nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
  });
}

void CliWorld::Release() {
  // It opens the fifo just after it has said that it waits; the open here succeeds once it has.
  if (!EngineWaits()) return;
  int fd = -1;
  (void)WaitUntil([&] { return (fd = open(kFifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; });
  if (fd >= 0) (void)close(fd);
  std::filesystem::remove(kWaiting);
}

void CliWorld::RealEngine() {
  std::filesystem::remove_all("/sbin/btrfs");
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs");
}

unsigned long long CliWorld::ID(const std::string& snapshot) const {
  return SubvolumeID(volume_->Path("photos/.snapshots/" + snapshot));
}

Json::Value CliWorld::Shown(const std::string& share) {
  return ParseJson(Tool({"show", share, "--format", "json"}).out);
}

pid_t CliWorld::CalculatorPid(const std::string& share) {
  const std::string text = Tool({"status", share}).out;
  const size_t at = text.find("process:   ");
  const int pid = at == std::string::npos ? 0 : atoi(text.c_str() + at + sizeof "process:" - 1);
  return pid > 0 ? pid : -1;  // words stand there where it is gone
}

bool CliWorld::Settled(const std::string& share) {
  return WaitUntil([&] {
    const std::string text = Tool({"status", share}).out;
    return text.find("gone without a result") != std::string::npos ||
           (text.find("state:           ready\n") == std::string::npos &&
            text.find("state:           process\n") == std::string::npos);
  });
}

HeldLock::HeldLock(const std::string& path)
    : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  if (fcntl(fd_.Get(), F_SETLK, &whole) != 0) throw std::runtime_error("cannot lock " + path);
}

void EditJson(const std::string& path, const std::vector<std::string>& members,
              const Json::Value& value) {
  Json::Value document = ParseJson(ReadFile(path));
  Json::Value* place = &document;
  for (const std::string& member : members) place = &(*place)[member];
  *place = value;
  WriteFile(path, Json::writeString(Json::StreamWriterBuilder(), document));
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  stream >> value;
  return value;
}

}  // namespace ZorvTest
