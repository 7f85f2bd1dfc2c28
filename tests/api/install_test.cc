// The installed library serves a stranger: by pkg-config, by CMake, and as the README shows it; its
// manual is found.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

const char kCaller[] =
    "#include <zorvbtrfssnapusage/share_snap_usage_cal.h>\n"
    "#include <cstdio>\n"
    "int main() {\n"
    "  std::string task;\n"
    "  puts(ZorvBtrfsUsage::ShareSnapUsageCal::CheckAvail(\"none\", task) ? \"free\" : \"busy\");\n"
    "}\n";

// Installs the build into /opt/zorv of the private world, once.
class Install : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    MustRun({ZORV_CMAKE, "--install", ZORV_BINARY_DIR, "--prefix", "/opt/zorv"});
    MustRun({"sh", "-c",
             "echo $(dirname $(find /opt/zorv -name 'libzorvbtrfssnapusage.so.0')) >"
             "/etc/ld.so.conf.d/zorv.conf; ldconfig"});
    WriteFile("/opt/caller/caller.cc", kCaller);
  }

  static std::string PkgConfigPath() {
    for (const auto& entry : fs::recursive_directory_iterator("/opt/zorv"))
      if (entry.path().extension() == ".pc") return entry.path().parent_path();
    return "";
  }
};

// A sanitized library needs its runtime in the program too.
std::string Sanitizers() { return ZORV_SANITIZE[0] ? "-fsanitize=" ZORV_SANITIZE : ""; }

}  // namespace

TEST_F(Install, PkgConfigCallerBuildsAndRuns) {
  MustRun({"sh", "-c",
           "PKG_CONFIG_PATH=" + PkgConfigPath() +
               " && export PKG_CONFIG_PATH && " ZORV_CXX " -std=c++17 " + Sanitizers() +
               " -Wall -Wextra -Wpedantic -Werror /opt/caller/caller.cc -o /opt/caller/by_pkg "
               "$(pkg-config --cflags --libs zorvbtrfssnapusage)"});
  EXPECT_EQ("free\n", MustRun({"/opt/caller/by_pkg"}));
}

TEST_F(Install, CMakePackageCallerBuildsAndRuns) {
  WriteFile("/opt/caller/CMakeLists.txt",
            "cmake_minimum_required(VERSION 3.23)\n"
            "project(caller CXX)\n"
            "find_package(zorvbtrfssnapusage 1.0 REQUIRED)\n"
            "add_executable(by_cmake caller.cc)\n"
            "target_compile_options(by_cmake PRIVATE " +
                Sanitizers() +
                ")\n"
                "target_link_options(by_cmake PRIVATE " +
                Sanitizers() +
                ")\n"
                "target_link_libraries(by_cmake zorvbtrfssnapusage::zorvbtrfssnapusage)\n");
  MustRun({ZORV_CMAKE, "-S", "/opt/caller", "-B", "/opt/caller/build",
           "-DCMAKE_PREFIX_PATH=/opt/zorv"});
  MustRun({ZORV_CMAKE, "--build", "/opt/caller/build"});
  EXPECT_EQ("free\n", MustRun({"/opt/caller/build/by_cmake"}));
}

TEST_F(Install, ReadmeCallerCompiles) {
  const std::string readme = ReadFile(ZORV_SOURCE_DIR "/README.md");
  const size_t begin = readme.find("```cpp\n");
  ASSERT_NE(std::string::npos, begin);
  const size_t end = readme.find("```", begin + 7);
  ASSERT_NE(std::string::npos, end);
  EXPECT_EQ(ReadFile(ZORV_SOURCE_DIR "/examples/caller.cc"),
            readme.substr(begin + 7, end - begin - 7));
  MustRun({"sh", "-c",
           "PKG_CONFIG_PATH=" + PkgConfigPath() +
               " && export PKG_CONFIG_PATH && " ZORV_CXX " -std=c++17 " + Sanitizers() +
               " -Wall -Wextra -Werror " ZORV_SOURCE_DIR
               "/examples/caller.cc -o /opt/caller/readme "
               "$(pkg-config --cflags --libs zorvbtrfssnapusage)"});
  EXPECT_TRUE(fs::exists("/opt/caller/readme"));
}

TEST_F(Install, PutsEveryPartInItsPlace) {
  for (const char* file : {"/opt/zorv/bin/zorv-snapusage", "/opt/zorv/sbin/btrfs",
                           "/opt/zorv/libexec/zorv-snapusage/btrfs",
                           "/opt/zorv/lib/systemd/system/zorv-snapusage@.service",
                           "/opt/zorv/lib/systemd/system/zorv-snapusage@.timer",
                           "/opt/zorv/include/zorvbtrfssnapusage/share_snap_usage_cal.h",
                           "/opt/zorv/include/zorvplatform/platc.h",
                           "/opt/zorv/lib/tmpfiles.d/zorvbtrfssnapusage.conf",
                           "/opt/zorv/lib/systemd/system/run-lock-zorvbtrfssnapusage.mount"})
    EXPECT_TRUE(fs::exists(file)) << file;
}

TEST_F(Install, ManualPagesAreFoundByName) {
  const std::pair<const char*, const char*> pages[] = {{"8", "zorv-snapusage"},
                                                       {"8", "btrfs-subvolume-size"},
                                                       {"5", "zorvbtrfssnapusage"},
                                                       {"3", "zorvbtrfssnapusage"},
                                                       {"3", "ZorvBtrfsUsage::Utils"}};
  for (const auto& [section, name] : pages)
    EXPECT_EQ(std::string("/opt/zorv/share/man/man") + section + "/" + name + "." + section + "\n",
              MustRun({"man", "-M", "/opt/zorv/share/man", "-w", section, name}));
}
