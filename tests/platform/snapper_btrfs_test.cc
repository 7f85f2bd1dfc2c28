// Shares that snapper has configured, by the real snapper on a real volume.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "base/unique_fd.h"
#include "tests/platform/sources_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class Snapper : public Sources {
 protected:
  // A subvolume that snapper has a configuration for.
  void Configure(const std::string& name) const {
    volume.Subvolume(name);
    MustRun({"/usr/bin/snapper", "--no-dbus", "-c", name, "create-config", volume.Path(name)});
  }

  static std::string Take(const std::string& name, const std::vector<std::string>& options = {}) {
    std::vector<std::string> words = {"/usr/bin/snapper", "--no-dbus",     "-c", name,
                                      "create",           "--print-number"};
    words.insert(words.end(), options.begin(), options.end());
    std::string number = MustRun(words);
    number.pop_back();
    return number;
  }

  std::string InfoFile(const std::string& name, const std::string& number) const {
    return volume.Path(name + "/.snapshots/" + number + "/info.xml");
  }

  // Sets the time of a snapshot, in UTC.
  void Date(const std::string& name, const std::string& number, const std::string& date) const {
    std::string xml = ReadFile(InfoFile(name, number));
    const size_t at = xml.find("<date>") + 6;
    xml.replace(at, xml.find("</date>") - at, date);
    WriteFile(InfoFile(name, number), xml);
  }
};

TEST_F(Snapper, ThreeSnapshotsWithinOneSecond) {
  Configure("home");
  for (int i = 0; i < 3; ++i) Take("home");
  for (const char* number : {"1", "2", "3"}) Date("home", number, "2024-03-05 09:04:09");
  const Names names = {"GMT-2024.03.05-09.04.09-1", "GMT-2024.03.05-09.04.09-2",
                       "GMT-2024.03.05-09.04.09-3"};
  EXPECT_EQ(names, List("home"));
  EXPECT_EQ(names, List("home", "=GMT-2024.03.05-09.04.09"));
  EXPECT_EQ(Names{}, List("home", ">GMT-2024.03.05-09.04.09-1")) << "the number is no time";
  time_t time = 0;
  EXPECT_EQ(0, ZORVShareSnapTimeGet(names[2].c_str(), &time));
  EXPECT_EQ(1709629449, time);
}

TEST_F(Snapper, IsOneShareWithTheVolumesOfItsName) {
  Configure("home");
  EXPECT_EQ(Names{"home"}, Shares());
  const SharePtr share = Find("home");
  ASSERT_NE(nullptr, share) << Problem();
  const ZORVSHAREINFO info = InfoOf(share);
  EXPECT_EQ(ZORV_SHARE_SOURCE_SNAPPER, info.source);
  EXPECT_STREQ("/etc/snapper/configs/home", info.place);
  EXPECT_STREQ("/volume1/home", info.path);
  EXPECT_STREQ("/volume1", info.volumePath);
  EXPECT_STREQ("/volume1/home/.snapshots", info.snapDir);
}

// As where the root file system is a volume, by a link.
TEST_F(Snapper, TheTopOfAVolume) {
  MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "root", "create-config", "/volume1"});
  fs::create_symlink("/volume1", "/volume2");
  Take("root");
  EXPECT_EQ(Names{"root"}, Shares());
  const SharePtr share = Find("root");
  ASSERT_NE(nullptr, share) << Problem();
  EXPECT_STREQ("/volume1", InfoOf(share).path);
  EXPECT_STREQ("/volume1", InfoOf(share).volumePath);
  EXPECT_STREQ("/volume1/.snapshots", InfoOf(share).snapDir);
  EXPECT_EQ(1u, List("root").size());
  fs::remove("/volume2");
}

TEST_F(Snapper, TypesAndDescriptionsAreTold) {
  Configure("home");
  const std::string text = "one <&> \"quoted\" \xC3\xA9 ]]>";
  Take("home", {"--type", "pre", "--description", text});
  Take("home", {"--type", "single", "--userdata", "key=value"});
  const Names names = List("home");
  ASSERT_EQ(2u, names.size());
  const SnapInfoPtr pre = SnapInfo("home", names[0]);
  ASSERT_NE(nullptr, pre);
  EXPECT_STREQ("1", pre->sourceName);
  EXPECT_EQ(1u, pre->number);
  EXPECT_STREQ("pre", pre->type);
  EXPECT_EQ(text, pre->description);
  EXPECT_STREQ("", pre->problem);
  const SnapInfoPtr single = SnapInfo("home", names[1]);
  ASSERT_NE(nullptr, single);
  EXPECT_EQ(2u, single->number);
  EXPECT_STREQ("single", single->type);
  EXPECT_STREQ("", single->description);
}

TEST_F(Snapper, TheViewLeadsToTheSnapshots) {
  Configure("home");
  Take("home");
  const Names names = List("home");
  ASSERT_EQ(1u, names.size());
  const std::map<std::string, std::string> links = {
      {names[0], "/volume1/home/.snapshots/1/snapshot"}};
  EXPECT_EQ(links, View("home"));
  const SharePtr share = Find("home");
  char dir[4096];
  ASSERT_EQ(1, ZORVShareSnapGetOrCreateSnapDir(share.get(), dir, sizeof dir, 0));
  EXPECT_STREQ("/run/zorvplatform/snapdirs/home", dir);
  for (const std::string path :
       {"/run/zorvplatform", "/run/zorvplatform/snapdirs", "/run/zorvplatform/snapdirs/home"}) {
    struct stat st;
    ASSERT_EQ(0, lstat(path.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777u) << path;
    EXPECT_EQ(0u, st.st_uid) << path;
  }
}

TEST_F(Snapper, TheViewIsRenewed) {
  Configure("home");
  for (int i = 0; i < 3; ++i) Take("home");
  Names names = List("home");
  ASSERT_EQ(3u, names.size());
  const std::string view = "/run/zorvplatform/snapdirs/home/";
  struct stat before, after;
  ASSERT_EQ(0, lstat((view + names[2]).c_str(), &before));
  // What somebody left there, a link that leads elsewhere, a link to what is gone.
  WriteFile(view + "left over", "");
  fs::remove(view + names[0]);
  fs::create_symlink("/etc", view + names[0]);
  MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "home", "delete", "2"});
  const std::string gone = names[1];
  names.erase(names.begin() + 1);
  EXPECT_EQ(names, List("home"));
  const std::map<std::string, std::string> links = {
      {names[0], "/volume1/home/.snapshots/1/snapshot"},
      {names[1], "/volume1/home/.snapshots/3/snapshot"}};
  EXPECT_EQ(links, View("home"));
  ASSERT_EQ(0, lstat((view + names[1]).c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino) << "what is right stays as it is";
}

TEST_F(Snapper, AllAreInTheViewAlsoThoseThatASelectorLeavesOut) {
  Configure("home");
  Take("home");
  EXPECT_EQ(Names{}, List("home", "<GMT-2000.01.01-00.00.00"));
  EXPECT_EQ(1u, View("home").size());
}

TEST_F(Snapper, ASnapshotWithoutItsInformationIsOneWithoutATime) {
  Configure("home");
  for (int i = 0; i < 4; ++i) Take("home");
  Date("home", "1", "2024-03-05 09:04:09");
  fs::remove(InfoFile("home", "2"));
  WriteFile(InfoFile("home", "3"), "<snapshot><num>1</num>");
  fs::copy_file(InfoFile("home", "1"), InfoFile("home", "4"), fs::copy_options::overwrite_existing);
  EXPECT_EQ((Names{"GMT-2024.03.05-09.04.09-1", "2", "3", "4"}), List("home"));
  const struct {
    const char* name;
    const char* problem;
  } kCases[] = {{"2", "info.xml cannot be read: No such file or directory"},
                {"3", "info.xml: no element found (line 1)"},
                {"4", "info.xml is that of number 1"}};
  for (const auto& c : kCases) {
    const SnapInfoPtr info = SnapInfo("home", c.name);
    ASSERT_NE(nullptr, info);
    EXPECT_STREQ(c.name, info->sourceName);
    EXPECT_STREQ("", info->type);
    EXPECT_STREQ(c.problem, info->problem);
  }
}

TEST_F(Snapper, WhatIsNoInformationFileIsNotWaitedFor) {
  Configure("home");
  for (int i = 0; i < 2; ++i) Take("home");
  fs::remove(InfoFile("home", "1"));
  ASSERT_EQ(0, mkfifo(InfoFile("home", "1").c_str(), 0600));
  WriteFile("/tmp/secret", ReadFile(InfoFile("home", "2")));
  fs::remove(InfoFile("home", "2"));
  fs::create_symlink("/tmp/secret", InfoFile("home", "2"));
  EXPECT_EQ((Names{"1", "2"}), List("home"));
  EXPECT_STREQ("info.xml cannot be read: Invalid argument", SnapInfo("home", "1")->problem);
  EXPECT_STREQ("info.xml cannot be read: Too many levels of symbolic links",
               SnapInfo("home", "2")->problem);
}

TEST_F(Snapper, WhatIsNoSnapshot) {
  Configure("home");
  Take("home");
  const std::string dir = volume.Path("home/.snapshots/");
  for (const char* name : {"2", "03", "x", "99999999999999999999"})
    fs::create_directory(dir + name);
  volume.Subvolume("home/.snapshots/03/snapshot");
  fs::create_symlink("1", dir + "4");
  fs::create_directory(dir + "5");
  fs::create_symlink("../1/snapshot", dir + "5/snapshot");
  fs::create_directories(dir + "6/snapshot");
  WriteFile(dir + "7", "");
  EXPECT_EQ(1u, List("home").size());
}

TEST_F(Snapper, NamesThatNoSnapshotHasTellNothing) {
  Configure("home");
  Take("home");
  const SharePtr share = Find("home");
  ZORVSHARESNAPINFO* info = nullptr;
  for (const char* name : {"", "x", "../1", "GMT-2024.03.05-09.04.09", "0"}) {
    ClearError();
    EXPECT_GT(0, ZORVShareSnapInfoGet(share.get(), name, &info)) << name;
    EXPECT_TRUE(FailedWith(0x0D00)) << name;
  }
  ClearError();
  EXPECT_GT(0, ZORVShareSnapInfoGet(share.get(), "7", &info));
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_EQ(nullptr, info);
}

TEST_F(Snapper, ASnapshotDirectoryThatIsNotRootsIsRefused) {
  Configure("home");
  Take("home");
  for (const bool owner : {true, false}) {
    ASSERT_EQ(0, chown("/volume1/home/.snapshots", owner ? 4711 : 0, 0));
    ASSERT_EQ(0, chmod("/volume1/home/.snapshots", owner ? 0755 : 0757));
    EXPECT_EQ(Names{"failed"}, List("home"));
    EXPECT_TRUE(FailedWith(0x2B00));
    EXPECT_EQ(
        "/volume1/home/.snapshots, the snapshots of share home, can be changed by others "
        "than root",
        Problem());
  }
}

TEST_F(Snapper, LinksOfOthersAreNotFollowed) {
  Configure("home");
  Take("home");
  fs::create_directory("/volume1/of a user");
  fs::create_symlink("/volume1/home", "/volume1/of a user/link");
  WriteFile("/etc/snapper/configs/home",
            "SUBVOLUME=\"/volume1/of a user/link\"\nFSTYPE=\"btrfs\"\n");
  EXPECT_NE(nullptr, Find("home")) << "root's link: " << Problem();
  ASSERT_EQ(0, lchown("/volume1/of a user/link", 4711, 4711));
  EXPECT_EQ(nullptr, Find("home"));
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ(
      "/etc/snapper/configs/home: /volume1/of a user/link, the path of share home, leads "
      "through a link that is not root's",
      Problem());
  // The same where the snapshots are looked for.
  WriteFile("/etc/snapper/configs/home", "SUBVOLUME=/volume1/home\nFSTYPE=btrfs\n");
  fs::rename("/volume1/home/.snapshots", "/volume1/elsewhere");
  fs::create_symlink("/volume1/elsewhere", "/volume1/home/.snapshots");
  ASSERT_EQ(0, lchown("/volume1/home/.snapshots", 4711, 4711));
  EXPECT_EQ(Names{"failed"}, List("home"));
  EXPECT_TRUE(FailedWith(0x2A00));
}

TEST_F(Snapper, AViewThatOthersCanChangeIsRefused) {
  Configure("home");
  Take("home");
  const struct {
    const char* name;
    const char* path;
    uid_t owner;
    mode_t mode;
  } kCases[] = {{"the root, of a user", "/run/zorvplatform", 4711, 0700},
                {"the root, open to all", "/run/zorvplatform", 0, 0755},
                {"the views, of a user", "/run/zorvplatform/snapdirs", 4711, 0700},
                {"the share's, open to all", "/run/zorvplatform/snapdirs/home", 0, 0777}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    fs::remove_all("/run/zorvplatform");
    fs::create_directories("/run/zorvplatform/snapdirs/home");
    for (const char* path :
         {"/run/zorvplatform", "/run/zorvplatform/snapdirs", "/run/zorvplatform/snapdirs/home"})
      ASSERT_EQ(0, chmod(path, 0700));
    EXPECT_EQ(1u, List("home").size());
    ASSERT_EQ(0, chown(c.path, c.owner, 0));
    ASSERT_EQ(0, chmod(c.path, c.mode));
    EXPECT_EQ(Names{"failed"}, List("home"));
    EXPECT_TRUE(FailedWith(0x2A00));
    EXPECT_EQ(0u, Problem().find(c.path)) << Problem();
  }
  fs::remove_all("/run/zorvplatform");
  fs::create_symlink("/tmp", "/run/zorvplatform");
  EXPECT_EQ(Names{"failed"}, List("home"));
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_FALSE(fs::exists("/tmp/snapdirs"));
}

// Several that list one share at once, while snapshots come: what a listing has named is in the
// view from then on, although others have begun to read before that snapshot was there.
TEST_F(Snapper, ManyReadersAtOnce) {
  Configure("home");
  Take("home");
  const std::string info = ReadFile(InfoFile("home", "1"));
  std::vector<std::thread> readers;
  std::atomic<int> missing = 0, failed = 0, listed = 0;
  std::atomic<bool> stop = false;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        const Names names = List("home");
        if (names == Names{"failed"}) ++failed;
        ++listed;
        for (const std::string& name : names)
          missing += fs::exists("/run/zorvplatform/snapdirs/home/" + name) ? 0 : 1;
      }
    });
  }
  for (int number = 2; number < 40; ++number) {
    const std::string text = std::to_string(number);
    fs::create_directory(volume.Path("home/.snapshots/" + text));
    std::string own = info;
    WriteFile(InfoFile("home", text), own.replace(own.find("<num>1"), 6, "<num>" + text));
    volume.Snapshot("home", "home/.snapshots/" + text + "/snapshot");
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(0, missing);
  EXPECT_EQ(0, failed);
  EXPECT_GT(listed, 10);
  EXPECT_EQ(39u, List("home").size());
  EXPECT_EQ(39u, View("home").size());
}

// Whoever has waited for the view reads the snapshots afterwards: what came meanwhile is not taken
// out of the view again.
TEST_F(Snapper, TheViewIsLockedBeforeTheSnapshotsAreRead) {
  Configure("home");
  Take("home");
  ASSERT_EQ(1u, List("home").size());
  const UniqueFd view(open("/run/zorvplatform/snapdirs/home", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(0, flock(view.Get(), LOCK_EX));
  std::atomic<bool> ended = false;
  Names names;
  std::thread reader([&] {
    names = List("home");
    ended = true;
  });
  (void)WaitUntil([&] { return ended.load(); }, 0.5);
  Take("home");
  ASSERT_EQ(0, flock(view.Get(), LOCK_UN));
  reader.join();
  EXPECT_EQ(2u, names.size());
  EXPECT_EQ(2u, View("home").size());
}

TEST_F(Snapper, ConfigurationsThatAreNone) {
  Configure("home");
  const std::string good = ReadFile("/etc/snapper/configs/home");
  for (const char* name : {"home~", ".home.swp", "#home#", "home.bak", "home.dpkg-dist"})
    WriteFile(std::string(kSnapperConfigs) + "/" + name, good);
  WriteFile("/etc/snapper/configs/other", "SUBVOLUME=\"/\"\nFSTYPE=\"ext4\"\n");
  EXPECT_EQ(Names{"home"}, Shares());
  EXPECT_EQ(nullptr, Find("other"));
  EXPECT_TRUE(FailedWith(0x1400));
  EXPECT_EQ("share other of /etc/snapper/configs/other is passed by: its FSTYPE is not btrfs",
            Problem());
  fs::remove_all(kSnapperConfigs);
  EXPECT_EQ(Names{"home"}, Shares()) << "the volume's";
  EXPECT_EQ(Names{}, List("home"));
}

TEST_F(Snapper, ConfigurationsThatMakeNoSenseAreErrors) {
  Configure("home");
  const struct {
    const char* name;
    const char* text;
    const char* problem;
  } kCases[] = {
      {"bad", "FSTYPE=btrfs\n", "/etc/snapper/configs/bad has no SUBVOLUME with an absolute path"},
      {"bad", "FSTYPE=btrfs\nSUBVOLUME=\"home\"\n",
       "/etc/snapper/configs/bad has no SUBVOLUME with an absolute path"},
      {"b\nd", "FSTYPE=btrfs\nSUBVOLUME=/x\n",
       "/etc/snapper/configs/b\nd has a name that no share can have"}};
  for (const auto& c : kCases) {
    const std::string path = std::string(kSnapperConfigs) + "/" + c.name;
    WriteFile(path, c.text);
    EXPECT_EQ(Names{"failed"}, Shares());
    EXPECT_TRUE(FailedWith(0x2B00));
    EXPECT_EQ(c.problem, Problem());
    EXPECT_EQ(nullptr, Find("home"));
    EXPECT_TRUE(FailedWith(0x2B00));
    fs::remove(path);
  }
  ASSERT_EQ(0, mkfifo("/etc/snapper/configs/pipe", 0600));
  EXPECT_EQ(Names{"failed"}, Shares());
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_EQ("/etc/snapper/configs/pipe cannot be read: Invalid argument", Problem());
}

// A share that is configured is in the list wherever its disk is: callers delete what is missing.
TEST_F(Snapper, APathThatIsGoneIsNoShorterList) {
  const std::string subvolume = "SUBVOLUME=\"/mnt/disk/home\"\n";
  WriteFile("/etc/snapper/configs/far", subvolume + "FSTYPE=\"btrfs\"\n");
  EXPECT_EQ(Names{"far"}, Shares());
  EXPECT_EQ(nullptr, Find("far"));
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ(
      "/etc/snapper/configs/far: /mnt/disk/home, the path of share far, is not a directory "
      "that is there",
      Problem());
  WriteFile("/etc/fstab", "/dev/none /mnt/disk btrfs defaults 0 0\n");
  EXPECT_EQ(Names{"far"}, Shares());
  EXPECT_EQ(nullptr, Find("far"));
  EXPECT_TRUE(FailedWith(0x0400));
  fs::create_directories("/mnt/disk/home");
  EXPECT_EQ(Names{"far"}, Shares());
  EXPECT_EQ(nullptr, Find("far"));
  EXPECT_TRUE(FailedWith(0x0400)) << "the directory below the missing mount";
  WriteFile("/etc/fstab", "");
  EXPECT_EQ(nullptr, Find("far"));
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ(
      "/etc/snapper/configs/far: /mnt/disk/home, the path of share far, is no btrfs "
      "subvolume",
      Problem());
  fs::remove_all("/mnt/disk");
}

TEST_F(Snapper, AFileSystemThatIsNoVolumeIsSaidWithTheNextStep) {
  {
    const BtrfsVolume other("/mnt/other");
    other.Subvolume("home");
    WriteFile("/etc/snapper/configs/far", "SUBVOLUME=/mnt/other/home\nFSTYPE=btrfs\n");
    EXPECT_EQ(Names{"far"}, Shares());
    EXPECT_EQ(nullptr, Find("far"));
    EXPECT_TRUE(FailedWith(0xBE00));
    EXPECT_EQ(
        "/etc/snapper/configs/far: /mnt/other/home, the path of share far, lies on a file "
        "system that is no volume; make it one: ln -s /mnt/other /volume2",
        Problem());
    fs::create_symlink("/mnt/other", "/volume2");
    const SharePtr share = Find("far");
    ASSERT_NE(nullptr, share) << Problem();
    EXPECT_STREQ("/volume2", InfoOf(share).volumePath);
  }
  EXPECT_EQ(nullptr, Find("far"));
  fs::remove("/volume2");
}

TEST_F(Snapper, ANameOfTwoSubvolumesIsListedAndRefused) {
  Configure("home");
  volume.Subvolume("other");
  WriteFile("/etc/snapper/configs/home", "SUBVOLUME=\"/volume1/other\"\nFSTYPE=\"btrfs\"\n");
  EXPECT_EQ((Names{"home", "other"}), Shares());
  EXPECT_EQ(nullptr, Find("home"));
  EXPECT_TRUE(FailedWith(0x2B00));
  EXPECT_EQ(
      "the name home is given to /volume1/other (/etc/snapper/configs/home) and to "
      "/volume1/home (/volume1); give one of them another name, or say in "
      "/etc/zorv-snapusage.conf which one it is",
      Problem());
  WriteFile(kSharesFile, "[home]\npath = /volume1/home\n");
  const SharePtr share = Find("home");
  ASSERT_NE(nullptr, share) << Problem();
  EXPECT_STREQ("/volume1/home", InfoOf(share).path);
  EXPECT_STREQ("/etc/zorv-snapusage.conf:1", InfoOf(share).place);
}

}  // namespace
