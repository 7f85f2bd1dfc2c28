// JsonToFile and SetJsonAttrByPath: what is written, with which mode, and what a failure leaves.
#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <limits>

#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/sync_calls.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace std::string_literals;
using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

using RenameHook = PlatformHook<int(const char*, const char*)>;
using ChownHook = PlatformHook<int(const char*, uid_t, gid_t)>;
using ChmodHook = PlatformHook<int(const char*, mode_t)>;

constexpr uid_t kOwner = 4711;
constexpr gid_t kGroup = 4712;

// `levels` arrays around a number.
Json::Value Nested(int levels) {
  Json::Value value = 1;
  for (int i = 0; i < levels; ++i) {
    Json::Value outer(Json::arrayValue);
    outer.append(Json::Value());
    outer[0u].swap(value);
    value.swap(outer);
  }
  return value;
}

// From here on this process cannot open a file with O_TRUNC, which mkstemp does not ask for
// (seccomp(2), SECCOMP_SET_MODE_FILTER).
bool RefuseTruncatingOpens() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_TRUNC, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EMFILE),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {std::size(filter), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

class UtilsJsonToFile : public UtilsTest {
 protected:
  // The only file there, with this content.
  void ExpectOnly(const std::string& name, const std::string& content) {
    EXPECT_EQ(std::vector<std::string>{name}, Entries());
    EXPECT_EQ(content, ReadFile(At(name)));
  }

  const std::string path = At("record");
};

class UtilsSetJsonAttrByPath : public UtilsJsonToFile {};

// The map, as an example of a file that outlives a power cut; there already.
class UtilsPersistentJson : public UtilsJsonToFile {
 protected:
  void SetUp() override {
    UtilsJsonToFile::SetUp();
    WriteFile(map, "{}");
  }

  const std::string directory = "/usr/local/zorvbtrfssnapusage";
  const std::string map = directory + "/share_snap_cal_map";
  const std::string temporary = map + ".XXXXXX";
};

}  // namespace

TEST_F(UtilsJsonToFile, WritesCompactOneLineText) {
  Json::Value object;
  object["b"] = 1;
  object["a"] = "x";
  Json::Value list;
  list.append("one");
  list.append(2);
  Json::Value all = object;
  all["list"] = list;
  all["none"] = Json::Value();
  const struct {
    const char* name;
    Json::Value value;
    std::string text;
  } kCases[] = {
      {"object, members in the order of their names", object, R"({"a":"x","b":1})"},
      {"array", list, R"(["one",2])"},
      {"nested", all, R"({"a":"x","b":1,"list":["one",2],"none":null})"},
      {"empty object", Json::Value(Json::objectValue), "{}"},
      {"empty array", Json::Value(Json::arrayValue), "[]"},
      {"null", Json::Value(), "null"},
      {"true", true, "true"},
      {"negative", -7, "-7"},
      {"largest unsigned", Json::UInt64(UINT64_MAX), "18446744073709551615"},
      {"quotes, backslash, line end", "a\"b\\c\n", R"("a\"b\\c\n")"},
      {"control character", "\x01", R"("\u0001")"},
      {"UTF-8 stays as it is", "f\xC3\xBCr \xF0\x9F\x93\xB7", "\"f\xC3\xBCr \xF0\x9F\x93\xB7\""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(Utils::JsonToFile(c.value, path));
    ExpectOnly("record", c.text);
  }
}

TEST_F(UtilsJsonToFile, CommentsAreNotWritten) {
  Json::Value value = 1;
  value.setComment("// about it"s, Json::commentBefore);
  EXPECT_TRUE(Utils::JsonToFile(value, path));
  EXPECT_EQ("1", ReadFile(path));
}

TEST_F(UtilsJsonToFile, EmptyPathFailsInSilence) {
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(kWorkDir);
  EXPECT_FALSE(Utils::JsonToFile(1, ""));
  std::filesystem::current_path(before);
  EXPECT_TRUE(Entries().empty());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsJsonToFile, MissingDirectoryFailsAndLeavesNothing) {
  EXPECT_FALSE(Utils::JsonToFile(1, At("missing/record")));
  EXPECT_TRUE(Entries().empty());
}

TEST_F(UtilsJsonToFile, NewFileIs0600WhateverTheUmask) {
  for (const mode_t mask : {0, 022, 077, 0777}) {
    SCOPED_TRACE(mask);
    (void)unlink(path.c_str());
    umask(mask);
    EXPECT_TRUE(Utils::JsonToFile(1, path));
    umask(022);
    EXPECT_EQ(0600, ModeOf(path));
  }
}

TEST_F(UtilsJsonToFile, UmaskIsRestored) {
  umask(027);
  EXPECT_TRUE(Utils::JsonToFile(1, path));
  EXPECT_EQ(027u, umask(022));
  umask(031);
  EXPECT_FALSE(Utils::JsonToFile(1, At("missing/record")));
  EXPECT_EQ(031u, umask(022));
}

TEST_F(UtilsJsonToFile, TemporaryFileLiesBesideTheTargetAndIs0600) {
  RenameHook hook("rename");
  std::string from;
  int mode = -1;
  hook.Replace([&](const char* temp, const char* target) {
    from = temp;
    mode = ModeOf(temp);
    return hook.Real(temp, target);
  });
  umask(0);
  EXPECT_TRUE(Utils::JsonToFile(1, path));
  EXPECT_EQ(1, hook.Calls());
  EXPECT_EQ(path + ".", from.substr(0, path.size() + 1));
  EXPECT_EQ(path.size() + 7, from.size());
  EXPECT_NE(path + ".XXXXXX", from);
  EXPECT_EQ(0600, mode);
}

TEST_F(UtilsJsonToFile, NewFileIsNotGivenOwnerOrMode) {
  ChownHook owner("chown");
  ChmodHook mode("chmod");
  EXPECT_TRUE(Utils::JsonToFile(1, path));
  EXPECT_EQ(0, owner.Calls());
  EXPECT_EQ(0, mode.Calls());
}

TEST_F(UtilsJsonToFile, ReplacedFileKeepsItsOwnerAndBecomes0644) {
  WriteFile(path, "{}");
  ASSERT_EQ(0, chmod(path.c_str(), 0640));
  ASSERT_EQ(0, chown(path.c_str(), kOwner, kGroup));
  EXPECT_TRUE(Utils::JsonToFile(2, path));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 07777);
  EXPECT_EQ(kOwner, st.st_uid);
  EXPECT_EQ(kGroup, st.st_gid);
  ExpectOnly("record", "2");
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsJsonToFile, OwnerThatCannotBeGivenIsADebugLine) {
  WriteFile(path, "{}");
  ASSERT_EQ(0, chown(path.c_str(), kOwner, kGroup));
  std::string temp;
  ChownHook hook("chown");
  hook.Replace([&](const char* name, uid_t, gid_t) {
    temp = name;
    errno = EPERM;
    return -1;
  });
  EXPECT_TRUE(Utils::JsonToFile(2, path));
  EXPECT_EQ(1, Logged(LOG_DEBUG,
                      "Failed to chown, path(" + temp + "), owner(4711), group(4712), errno(1)"))
      << log.Dump();
  EXPECT_EQ(0644, ModeOf(path));
  ExpectOnly("record", "2");
}

TEST_F(UtilsJsonToFile, AUserWhoMayNotGiveFilesAwayStillWrites) {
  WriteFile(path, "{}");
  ASSERT_EQ(0, chown(path.c_str(), kOwner, kGroup));
  EXPECT_EQ(0, InChild([&] {
              return setgid(1000) == 0 && setuid(1000) == 0 && Utils::JsonToFile(2, path) ? 0 : 1;
            }));
  EXPECT_EQ(1, log.Count("Failed to chown, path(" + path + ".")) << log.Dump();
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(1000u, st.st_uid);
  EXPECT_EQ(0644u, st.st_mode & 07777);
  ExpectOnly("record", "2");
}

TEST_F(UtilsJsonToFile, ModeThatCannotBeGivenIsADebugLine) {
  WriteFile(path, "{}");
  std::string temp;
  ChmodHook hook("chmod");
  hook.Replace([&](const char* name, mode_t) {
    temp = name;
    errno = EPERM;
    return -1;
  });
  EXPECT_TRUE(Utils::JsonToFile(2, path));
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to chmod, path(" + temp + "), errno(1)")) << log.Dump();
  EXPECT_EQ(0600, ModeOf(path));
  ExpectOnly("record", "2");
}

TEST_F(UtilsJsonToFile, FailedRenameLeavesTheTargetAndNothingBesideIt) {
  WriteFile(path, "old");
  RenameHook hook("rename");
  hook.AlwaysFails(0, EIO);
  EXPECT_FALSE(Utils::JsonToFile(2, path));
  ExpectOnly("record", "old");
}

TEST_F(UtilsJsonToFile, ADirectoryIsNotReplaced) {
  std::filesystem::create_directory(path);
  EXPECT_FALSE(Utils::JsonToFile(2, path));
  EXPECT_TRUE(std::filesystem::is_directory(path));
  EXPECT_EQ(std::vector<std::string>{"record"}, Entries());
}

TEST_F(UtilsJsonToFile, TemporaryFileThatCannotBeMadeFails) {
  WriteFile(path, "old");
  EXPECT_EQ(0, InChild([&] {
              const rlimit none = {0, 0};
              return setrlimit(RLIMIT_NOFILE, &none) == 0 && !Utils::JsonToFile(2, path) ? 0 : 1;
            }));
  ExpectOnly("record", "old");
}

TEST_F(UtilsJsonToFile, TemporaryFileThatCannotBeOpenedAgainIsRemoved) {
  WriteFile(path, "old");
  EXPECT_EQ(
      0, InChild([&] { return RefuseTruncatingOpens() && !Utils::JsonToFile(2, path) ? 0 : 1; }));
  ExpectOnly("record", "old");
}

TEST_F(UtilsJsonToFile, FullDiskLeavesTheTargetAndNothingBesideIt) {
  const ScopedTmpfs small(kWorkDir, "size=64k");
  ASSERT_TRUE(Utils::JsonToFile("old", path));
  EXPECT_FALSE(Utils::JsonToFile(std::string(256 << 10, 'x'), path));
  ExpectOnly("record", "\"old\"");
  // The last page only: all of the text is in the stream's buffer until the flush.
  WriteFile(At("filler"), std::string(60 << 10, 'f'));
  EXPECT_FALSE(Utils::JsonToFile("new", path));
  EXPECT_EQ("\"old\"", ReadFile(path));
  EXPECT_EQ(2u, Entries().size());
}

TEST_F(UtilsJsonToFile, TextThatIsNotUtf8IsRefused) {
  Json::Value key;
  key["f\xFCr"] = 1;
  Json::Value deep;
  deep["list"].append("ok");
  deep["list"].append("\xED\xA0\x80");
  const struct {
    const char* name;
    Json::Value value;
  } kCases[] = {
      {"Latin-1 in a string", "f\xFCr"}, {"in a key", key},
      {"surrogate, deep inside", deep},  {"cut at the end of a string", "a\xE2\x82"},
      {"overlong", "\xC0\x80"},
  };
  WriteFile(path, "old");
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_FALSE(Utils::JsonToFile(c.value, path));
    ExpectOnly("record", "old");
  }
}

TEST_F(UtilsJsonToFile, EveryByteOfAShareNameSurvivesOrIsRefused) {
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') continue;
    SCOPED_TRACE(byte);
    const std::string name = "a" + std::string(1, static_cast<char>(byte)) + "z";
    Json::Value map;
    map[name]["task_id"] = name;
    EXPECT_EQ(byte < 0x80, Utils::JsonToFile(map, path));
    if (byte >= 0x80) continue;
    Json::Value back;
    EXPECT_TRUE(Utils::JsonFromFile(back, path));
    EXPECT_EQ(map, back);
  }
}

TEST_F(UtilsJsonToFile, OddShareNamesSurvive) {
  for (const std::string& name :
       {"two words"s, "line\nend"s, "quo\"te"s, "back\\slash"s, "tab\there"s, " "s, "."s,
        "f\xC3\xBC"
        "r"s,
        "\xE5\x86\x99\xE7\x9C\x9F"s, "\xF0\x9F\x93\xB7"s, "\x7F"s, "// x"s, "\\u0041"s,
        std::string(255, 'n')}) {
    SCOPED_TRACE(name);
    Json::Value map;
    map[name] = name;
    ASSERT_TRUE(Utils::JsonToFile(map, path));
    Json::Value back;
    ASSERT_TRUE(Utils::JsonFromFile(back, path));
    EXPECT_EQ(map, back);
    EXPECT_EQ(1u, back.size());
  }
}

TEST_F(UtilsJsonToFile, WhatTheReaderWouldNotTakeBackIsRefused) {
  int deepest = 0;
  for (int levels = 990; levels < 1010; ++levels) {
    SCOPED_TRACE(levels);
    const bool written = Utils::JsonToFile(Nested(levels), path);
    Json::Value back;
    WriteFile(At("direct"), std::string(levels, '[') + "1" + std::string(levels, ']'));
    EXPECT_EQ(Utils::JsonFromFile(back, At("direct")), written);
    if (written) deepest = levels;
  }
  EXPECT_EQ(999, deepest);
  EXPECT_FALSE(Utils::JsonToFile(Nested(2000), path));
  EXPECT_FALSE(Utils::JsonToFile(std::numeric_limits<double>::infinity(), path));
  EXPECT_FALSE(Utils::JsonToFile(std::nan(""), path));
  EXPECT_EQ(2u, Entries().size());
}

TEST_F(UtilsJsonToFile, FiftyMegabytesSurvive) {
  Json::Value big;
  for (int i = 0; i < 50; ++i) big["member" + std::to_string(i)] = std::string(1 << 20, 'x');
  ASSERT_TRUE(Utils::JsonToFile(big, path));
  EXPECT_GT(std::filesystem::file_size(path), 50u << 20);
  Json::Value back;
  ASSERT_TRUE(Utils::JsonFromFile(back, path));
  EXPECT_EQ(big, back);
}

TEST_F(UtilsJsonToFile, NoMemoryForTheTextIsAFailure) {
  WriteFile(path, "old");
  const Json::Value big = std::string(50 << 20, 'x');
  {
    const ScarceMemory scarce(1 << 20);
    EXPECT_FALSE(Utils::JsonToFile(big, path));
  }
  ExpectOnly("record", "old");
}

TEST_F(UtilsJsonToFile, ReadersNeverSeeATornFile) {
  const Json::Value small = "s";
  const Json::Value large = std::string(300000, 'l');
  ASSERT_TRUE(Utils::JsonToFile(small, path));
  const pid_t writer = fork();
  if (writer == 0) {
    for (int i = 0; i < 200; ++i)
      if (!Utils::JsonToFile(i % 2 != 0 ? small : large, path)) _exit(1);
    _exit(0);
  }
  int sizes = 0;
  while (waitpid(writer, &sizes, WNOHANG) == 0) {
    Json::Value seen;
    ASSERT_TRUE(Utils::JsonFromFile(seen, path)) << log.Dump();
    ASSERT_TRUE(seen == small || seen == large);
  }
  EXPECT_EQ(0, sizes);
  EXPECT_EQ(std::vector<std::string>{"record"}, Entries());
}

TEST_F(UtilsJsonToFile, RacingWritersBothSucceed) {
  pid_t writers[2];
  for (int w = 0; w < 2; ++w) {
    writers[w] = fork();
    if (writers[w] != 0) continue;
    for (int i = 0; i < 100; ++i)
      if (!Utils::JsonToFile(w, path)) _exit(1);
    _exit(0);
  }
  for (const pid_t writer : writers) EXPECT_EQ(0, WaitForExit(writer));
  EXPECT_EQ(std::vector<std::string>{"record"}, Entries());
}

TEST_F(UtilsSetJsonAttrByPath, Writes) {
  EXPECT_TRUE(Utils::SetJsonAttrByPath(path.c_str(), "x"));
  ExpectOnly("record", "\"x\"");
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsSetJsonAttrByPath, FailureIsADebugLine) {
  const std::string missing = At("missing/record");
  EXPECT_FALSE(Utils::SetJsonAttrByPath(missing.c_str(), "x"));
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to write Json data to file, path: " + missing))
      << log.Dump();
}

TEST_F(UtilsSetJsonAttrByPath, EmptyPathFails) {
  EXPECT_FALSE(Utils::SetJsonAttrByPath("", "x"));
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to write Json data to file, path: ")) << log.Dump();
}

TEST_F(UtilsSetJsonAttrByPath, NullPathFails) {
  EXPECT_FALSE(Utils::SetJsonAttrByPath(nullptr, "x"));
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to write Json data to file, path: (null)")) << log.Dump();
}

TEST_F(UtilsPersistentJson, FileIsSyncedBeforeItTakesThePlaceAndItsDirectoryAfter) {
  SyncCalls calls;
  EXPECT_TRUE(Utils::JsonToFile(1, map));
  const std::vector<std::string> order = {"sync " + temporary, "rename to " + map,
                                          "sync " + directory};
  EXPECT_EQ(order, calls.Events());
  EXPECT_TRUE(Utils::SetJsonAttrByPath(map.c_str(), 2));
  EXPECT_EQ(order, calls.Events());
}

TEST_F(UtilsPersistentJson, OthersAreNotSynced) {
  SyncCalls calls;
  EXPECT_TRUE(Utils::JsonToFile(1, path));
  EXPECT_EQ(std::vector<std::string>{"rename to " + path}, calls.Events());
}

TEST_F(UtilsPersistentJson, RefusedSyncOfTheFileKeepsTheOldContent) {
  SyncCalls calls;
  calls.Fail(temporary, EIO);
  EXPECT_FALSE(Utils::JsonToFile(1, map));
  EXPECT_FALSE(Utils::SetJsonAttrByPath(map.c_str(), 1));
  EXPECT_EQ("{}", ReadFile(map));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(directory), {}));
  EXPECT_EQ(1, Logged(LOG_DEBUG, "Failed to write Json data to file, path: " + map));
  EXPECT_EQ(1u, log.Lines().size()) << log.Dump();
}

// The new content is what every reader sees by then.
TEST_F(UtilsPersistentJson, RefusedSyncOfTheDirectoryIsStillAWrite) {
  SyncCalls calls;
  calls.Fail(directory, EIO);
  EXPECT_TRUE(Utils::JsonToFile(1, map));
  EXPECT_EQ("1", ReadFile(map));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(UtilsPersistentJson, TemporaryFileThatCannotBeOpenedForItsSyncFails) {
  ChmodHook hook("chmod");
  hook.Replace([&](const char* name, mode_t) { return unlink(name); });
  EXPECT_FALSE(Utils::JsonToFile(1, map));
  EXPECT_EQ("{}", ReadFile(map));
}
