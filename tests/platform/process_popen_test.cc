// Commands on pipes: starting them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

std::string ReadAll(FILE* stream) {
  std::string text;
  char buffer[65536];
  while (const size_t n = fread(buffer, 1, sizeof buffer, stream)) text.append(buffer, n);
  return text;
}

// Output of a program that ends well.
std::string Output(const std::vector<std::string>& words, const char* mode = "r") {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  FILE* stream = PLATCPopenv(argv[0], mode, argv.data());
  if (stream == nullptr) return "not started";
  const std::string text = ReadAll(stream);
  EXPECT_EQ(0, PLATCPclose(stream));
  return text;
}

int Result() { return testing::Test::HasFailure() ? 1 : 0; }

}  // namespace

TEST(PLATCPopen, ReadsWhatTheProgramPrints) {
  FILE* stream = PLATCPopen("/bin/echo one two", "r");
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ("one two\n", ReadAll(stream));
  EXPECT_EQ(0, PLATCPclose(stream));
}

TEST(PLATCPopen, SplitsAtBlanksAndTabs) {
  FILE* stream = PLATCPopen(" \t/usr/bin/printf   <%s>  a\t\tb \t", "r");
  EXPECT_EQ(nullptr, stream) << "the program's own angle brackets count as the shell's";
  stream = PLATCPopen(" \t/usr/bin/printf   %s/  a\t\tb \t", "r");
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ("a/b/", ReadAll(stream));
  EXPECT_EQ(0, PLATCPclose(stream));
}

TEST(PLATCPopen, ShellCharactersAreRefused) {
  for (const char c : std::string("|&;<>()$`\\\"'*?[]{}#~!\n\r")) {
    SCOPED_TRACE(c);
    ClearError();
    EXPECT_EQ(nullptr, PLATCPopen((std::string("/bin/echo a") + c + "b").c_str(), "r"));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(PLATCPopen, ACommandWithoutAWordIsRefused) {
  for (const char* command : {"", " ", "\t \t"}) {
    SCOPED_TRACE(command);
    ClearError();
    EXPECT_EQ(nullptr, PLATCPopen(command, "r"));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(PLATCPopen, OtherModesAreRefused) {
  for (const char* mode : {"", "w", "rw", "rb", "re", "R", "rBB", "Br"}) {
    SCOPED_TRACE(mode);
    ClearError();
    EXPECT_EQ(nullptr, PLATCPopen("/bin/true", mode));
    EXPECT_TRUE(FailedWith(0x0D00));
    char* const argv[] = {const_cast<char*>("true"), nullptr};
    ClearError();
    EXPECT_EQ(nullptr, PLATCPopenv("/bin/true", mode, argv));
    EXPECT_TRUE(FailedWith(0x0D00));
  }
}

TEST(PLATCPopen, PathIsNotSearched) {
  ClearError();
  EXPECT_EQ(nullptr, PLATCPopen("true", "r"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(FailedWith(0x0900));
}

TEST(PLATCPopenv, ModesRAndRBAreTheSame) {
  EXPECT_EQ("x\n", Output({"/bin/echo", "x"}, "r"));
  EXPECT_EQ("x\n", Output({"/bin/echo", "x"}, "rB"));
}

TEST(PLATCPopenv, ArgumentsArriveAsTheyAre) {
  EXPECT_EQ("<><a b><$HOME ; *><\xe5\x86\x99><line\nbreak><\xff>",
            Output({"/usr/bin/printf", "<%s>", "", "a b", "$HOME ; *", "\xe5\x86\x99",
                    "line\nbreak", "\xff"}));
}

TEST(PLATCPopenv, PathAndFirstArgumentMayDiffer) {
  char* const argv[] = {const_cast<char*>("another name"), const_cast<char*>("-c"),
                        const_cast<char*>("echo \"$0\""), nullptr};
  FILE* stream = PLATCPopenv("/bin/bash", "r", argv);
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ("another name\n", ReadAll(stream));
  EXPECT_EQ(0, PLATCPclose(stream));
}

TEST(PLATCPopenv, LongOutputIsReadWhole) {
  EXPECT_EQ(std::string(10 << 20, '\0'), Output({"/usr/bin/head", "-c", "10485760", "/dev/zero"}));
}

TEST(PLATCPopenv, WhatCannotBeExecutedFailsWithTheReasonKept) {
  std::filesystem::create_directories("/tmp/popen/directory");
  WriteFile("/tmp/popen/plain", "#!/bin/sh\n");
  WriteFile("/tmp/popen/format", "no program");
  WriteFile("/tmp/popen/interpreter", "#!/no/such/shell\n");
  std::filesystem::permissions("/tmp/popen/format", std::filesystem::perms(0755));
  std::filesystem::permissions("/tmp/popen/interpreter", std::filesystem::perms(0755));
  ASSERT_EQ(0, symlink("loop", "/tmp/popen/loop"));
  const struct {
    const char* name;
    const char* path;
    std::string argument;
    int error;
  } kCases[] = {
      {"a directory", "/tmp/popen/directory", "", EACCES},
      {"no execute bit", "/tmp/popen/plain", "", EACCES},
      {"wrong format", "/tmp/popen/format", "", ENOEXEC},
      {"no such program", "/tmp/popen/missing", "", ENOENT},
      {"no such interpreter", "/tmp/popen/interpreter", "", ENOENT},
      {"a link to itself", "/tmp/popen/loop", "", ELOOP},
      {"below a file", "/tmp/popen/plain/x", "", ENOTDIR},
      {"empty path", "", "", ENOENT},
      {"too long an argument list", "/bin/true", std::string(3 << 20, 'x'), E2BIG},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::set<int> before = OpenDescriptors();
    char* const argv[] = {const_cast<char*>(c.path), const_cast<char*>(c.argument.c_str()),
                          nullptr};
    ClearError();
    EXPECT_EQ(nullptr, PLATCPopenv(c.path, "rB", argv));
    EXPECT_EQ(c.error, errno);
    EXPECT_TRUE(FailedWith(0x0900));
    EXPECT_EQ(before, OpenDescriptors());
    EXPECT_FALSE(HasChildren());
  }
  std::filesystem::remove_all("/tmp/popen");
}

TEST(PLATCPopen, WhatCannotBeExecutedFailsAsWithPopenv) {
  std::filesystem::create_directories("/tmp/popenDirectory");
  ClearError();
  EXPECT_EQ(nullptr, PLATCPopen("/tmp/popenDirectory x", "r"));
  EXPECT_EQ(EACCES, errno);
  EXPECT_TRUE(FailedWith(0x0900));
  std::filesystem::remove("/tmp/popenDirectory");
}

TEST(PLATCPopenv, WithoutFreeDescriptorsItFailsAndLeavesNone) {
  EXPECT_EQ(0, InChild([] {
              close_range(3, ~0U, 0);
              const std::set<int> before = OpenDescriptors();
              char* const argv[] = {const_cast<char*>("true"), nullptr};
              // No room for the pipe, for one end of it, for the second pipe and so on, until there
              // is enough.
              int failures = 0;
              for (unsigned long limit = 3; limit < 20; ++limit) {
                LimitDescriptors(limit);
                ClearError();
                FILE* stream = PLATCPopenv("/bin/true", "r", argv);
                if (stream != nullptr) {
                  EXPECT_EQ(0, PLATCPclose(stream));
                  break;
                }
                ++failures;
                EXPECT_EQ(EMFILE, errno);
                EXPECT_TRUE(FailedWith(0x0900));
              }
              EXPECT_LE(2, failures);
              EXPECT_GE(6, failures);
              LimitDescriptors(1024);
              EXPECT_EQ(before, OpenDescriptors());
              EXPECT_FALSE(HasChildren());
              return Result();
            }));
}

TEST(PLATCPopenv, AFailedForkIsReported) {
  EXPECT_EQ(0, InChild([] {
              LimitProcesses(1);
              const std::set<int> before = OpenDescriptors();
              char* const argv[] = {const_cast<char*>("true"), nullptr};
              ClearError();
              EXPECT_EQ(nullptr, PLATCPopenv("/bin/true", "r", argv));
              EXPECT_EQ(EAGAIN, errno);
              EXPECT_TRUE(FailedWith(0x0900));
              EXPECT_EQ(before, OpenDescriptors());
              EXPECT_EQ(std::set<int>{}, BlockedSignals());
              return Result();
            }));
}

TEST(PLATCPopenv, ProgramHasDevNullAsInputAndTheCallersStandardError) {
  const std::string links =
      Output({"/bin/bash", "-c", "readlink /proc/self/fd/0; readlink /proc/self/fd/2"});
  EXPECT_EQ("/dev/null\n" + std::filesystem::read_symlink("/proc/self/fd/2").string() + "\n",
            links);
}

TEST(PLATCPopenv, ProgramInheritsNoOtherDescriptor) {
  const UniqueFd low(open("/etc/passwd", O_RDONLY));
  const UniqueFd high(fcntl(low.Get(), F_DUPFD, 900));
  ASSERT_TRUE(high.Valid());
  FILE* other = PLATCPopen("/bin/echo x", "r");
  // ls has its own descriptor of the directory, which is number 3 when that is free.
  EXPECT_EQ("0\n1\n2\n3\n", Output({"/bin/ls", "/proc/self/fd"}));
  EXPECT_EQ("x\n", ReadAll(other));
  EXPECT_EQ(0, PLATCPclose(other));
}

TEST(PLATCPopenv, ProgramHasAnEmptyMaskAndDefaultDispositions) {
  const ScopedMask mask({SIGTERM, SIGINT, SIGCHLD, SIGUSR1, 40});
  const ScopedHandler ignored[] = {
      {SIGPIPE, SIG_IGN}, {SIGHUP, SIG_IGN}, {SIGUSR2, SIG_IGN}, {SIGRTMAX, SIG_IGN}};
  const ScopedHandler handled(SIGINT, ReapEverything);
  const std::string status = Output({"/bin/cat", "/proc/self/status"});
  EXPECT_EQ(std::set<int>{}, SignalsOf(status, "SigBlk"));
  EXPECT_EQ(std::set<int>{}, SignalsOf(status, "SigIgn"));
  EXPECT_EQ(std::set<int>{}, SignalsOf(status, "SigCgt"));
}

TEST(PLATCPopenv, CallersMaskAndHandlersStay) {
  const ScopedMask mask({SIGTERM, SIGUSR1});
  const ScopedHandler handler(SIGUSR2, ReapEverything);
  EXPECT_EQ("x\n", Output({"/bin/echo", "x"}));
  EXPECT_EQ((std::set<int>{SIGTERM, SIGUSR1}), BlockedSignals());
  struct sigaction now;
  ASSERT_EQ(0, sigaction(SIGUSR2, nullptr, &now));
  EXPECT_EQ(ReapEverything, now.sa_handler);
}

TEST(PLATCPopenv, ProgramHasTheCallersEnvironmentAndWorkingDirectory) {
  ASSERT_EQ(0, setenv("ZORV_TEST_VALUE", "a value", 1));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path("/usr");
  EXPECT_EQ("a value /usr\n", Output({"/bin/bash", "-c", "echo \"$ZORV_TEST_VALUE $PWD\""}));
  std::filesystem::current_path(before);
  unsetenv("ZORV_TEST_VALUE");
}

TEST(PLATCPopenv, WorksInACallerWithoutStandardDescriptors) {
  for (int closed = 1; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(0, InChild([closed] {
                for (int fd = 0; fd <= 2; ++fd)
                  if (closed & (1 << fd)) close(fd);
                const std::set<int> before = OpenDescriptors();
                const bool hasError = (closed & 4) == 0;
                const std::string program =
                    Output({"/bin/bash", "-c", "ls -m /proc/$$/fd; readlink /proc/$$/fd/0"});
                // 255 is the shell's own copy of its script or terminal.
                const std::string expected =
                    std::string(hasError ? "0, 1, 2" : "0, 1") + "\n/dev/null\n";
                return program == expected && before == OpenDescriptors() ? 0 : 1;
              }));
  }
}

TEST(PLATCPopenv, SeveralStreamsAreReadSideBySide) {
  FILE* first = PLATCPopen("/bin/echo first", "r");
  FILE* second = PLATCPopen("/bin/echo second", "r");
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_EQ("second\n", ReadAll(second));
  EXPECT_EQ("first\n", ReadAll(first));
  EXPECT_EQ(0, PLATCPclose(first));
  EXPECT_EQ(0, PLATCPclose(second));
}
