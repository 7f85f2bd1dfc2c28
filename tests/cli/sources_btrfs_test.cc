// The program on shares of Samba and snapper: the numbers are the kernel's, and what is wrong with
// their configuration is said.
#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

constexpr char kSmbConf[] = "/etc/samba/smb.conf";
constexpr char kSharesFile[] = "/etc/zorv-snapusage.conf";

class CmdRunSources : public CliWorld {
 protected:
  CmdRunSources() {
    Forget();
    RealEngine();
  }
  ~CmdRunSources() override { Forget(); }

  static void Forget() {
    for (const char* path : {"/etc/snapper/configs", "/run/zorvplatform", kSmbConf, kSharesFile})
      fs::remove_all(path);
    fs::create_directories("/etc/snapper/configs");
    fs::create_directories("/etc/samba");
    WriteFile("/etc/default/snapper", "SNAPPER_CONFIGS=\"\"\n");
  }

  // Files that differ from one snapshot to the next.
  void Change(const std::string& share, unsigned step) const {
    WriteRandom(volume_->Path(share + "/growing"), 200000, step, step * 100000);
    WriteRandom(volume_->Path(share + "/replaced"), 300000, step);
  }

  // Calculates the share and holds each number against the kernel's; gives the names.
  std::vector<std::string> ExpectKernelsNumbers(const std::string& share) {
    MustRun({"sync", "-f", "/volume1"});
    const CommandResult run = Tool({"run", share});
    EXPECT_EQ(0, run.status) << run.err;
    const Json::Value shown = Shown(share);
    EXPECT_TRUE(shown["complete"].asBool());
    const auto kernel = volume_->KernelExclusive();
    unsigned long long largest = 0;
    std::vector<std::string> names;
    for (const Json::Value& row : shown["snapshots"]) {
      EXPECT_EQ(kernel.at(row["subvolume_id"].asUInt64()), row["exclusive"].asUInt64());
      EXPECT_TRUE(row["present"].asBool());
      largest = std::max<unsigned long long>(largest, row["exclusive"].asUInt64());
      names.push_back(row["name"].asString());
    }
    EXPECT_GT(largest, 300000u) << "the snapshots hold something";
    return names;
  }
};

TEST_F(CmdRunSources, SnappersNumbersEqualTheKernels) {
  volume_->Subvolume("home");
  MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "home", "create-config", "/volume1/home"});
  for (unsigned step = 1; step < 5; ++step) {
    Change("home", step);
    MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "home", "create", "-d", "a step"});
  }
  const std::vector<std::string> names = ExpectKernelsNumbers("home");
  ASSERT_EQ(4u, names.size());
  for (size_t i = 0; i < names.size(); ++i)
    EXPECT_THAT(names[i], ContainsRegex("^GMT-[0-9.]*-[0-9.]*-" + std::to_string(i + 1) + "$"));
  EXPECT_EQ(0, Tool({"run", "home", "--snapshot", names[2]}).status);
  EXPECT_EQ(names[2], Shown("home")["snapshots"][0]["name"].asString());
}

TEST_F(CmdRunSources, SambasNumbersEqualTheKernels) {
  volume_->Subvolume("projects");
  fs::create_directory("/volume1/snaps");
  for (unsigned step = 1; step < 5; ++step) {
    Change("projects", step);
    volume_->Snapshot("projects", "snaps/projects-2024030" + std::to_string(step) + "-0904");
  }
  WriteFile(kSmbConf,
            "[global]\nvfs objects = shadow_copy2\n[our projects]\npath = /volume1/projects\n"
            "shadow:snapdir = /volume1/snaps\nshadow:format = projects-%Y%m%d-%H%M\n");
  const std::vector<std::string> names = ExpectKernelsNumbers("our projects");
  ASSERT_EQ(4u, names.size());
  for (size_t i = 0; i < names.size(); ++i)
    EXPECT_THAT(names[i], HasSubstr("GMT-2024.03.0" + std::to_string(i + 1) + "-09.04.00-"));
}

TEST_F(CmdRunSources, ASnapshotThatIsDeletedIsSaidToBe) {
  volume_->Subvolume("home");
  MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "home", "create-config", "/volume1/home"});
  for (int i = 0; i < 2; ++i) MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "home", "create"});
  ASSERT_EQ(0, Tool({"run", "home"}).status);
  MustRun({"/usr/bin/snapper", "--no-dbus", "-c", "home", "delete", "1"});
  const Json::Value shown = Shown("home");
  ASSERT_EQ(2u, shown["snapshots"].size());
  EXPECT_FALSE(shown["snapshots"][0]["present"].asBool());
  EXPECT_TRUE(shown["snapshots"][1]["present"].asBool());
}

TEST_F(CmdRunSources, WhatIsWrongWithTheConfigurationIsSaid) {
  volume_->Subvolume("other");
  const std::string samba = "[global]\nvfs objects = shadow_copy2\n";
  const struct {
    const char* name;
    const char* file;
    std::string text;
    int status;
    const char* said;
  } kCases[] = {
      {"a line", kSharesFile, "[photos]\npth = /volume1/photos\n", 18,
       "zorv-snapusage: /etc/zorv-snapusage.conf:2: has the key pth, which is none of a share\n"},
      {"two places", kSmbConf, samba + "[photos]\npath = /volume1/other\n", 18,
       "zorv-snapusage: the name photos is given to /volume1/other (/etc/samba/smb.conf) and to "
       "/volume1/photos (/volume1); give one of them another name, or say in "
       "/etc/zorv-snapusage.conf which one it is\n"},
      {"no volume", kSharesFile, "[photos]\npath = /mnt/elsewhere\n", 18,
       "zorv-snapusage: /etc/zorv-snapusage.conf:1: /mnt/elsewhere, the path of share photos, lies "
       "on a file system that is no volume; make it one: ln -s /mnt/elsewhere /volume2\n"},
      {"passed by", kSmbConf, samba + "[gone]\npath = /volume1/%U\n", 5,
       "zorv-snapusage: there is no share 'gone'; share gone of /etc/samba/smb.conf is passed by: "
       "its path depends on who asks\n"},
      {"not mounted", kSharesFile, "[photos]\npath = /mnt/disk/photos\n", 15,
       "zorv-snapusage: waiting for the volume of share 'photos' to be mounted\n"
       "zorv-snapusage: share 'photos' cannot be reached for the moment: "
       "/etc/zorv-snapusage.conf:1: /mnt/disk/photos, the path of share photos, is not mounted; "
       "mount its volume, or try again\n"},
      {"another file system", kSharesFile,
       "[photos]\npath = /volume1/photos\nsnapshots = /mnt/elsewhere\n", 18,
       "zorv-snapusage: the snapshots of share 'photos' cannot be listed; /mnt/elsewhere, the "
       "snapshots of share photos, is on another file system than /volume1/photos; mount what "
       "belongs there\n"}};
  const BtrfsVolume elsewhere("/mnt/elsewhere");
  WriteFile("/etc/fstab", "/dev/none /mnt/disk btrfs defaults 0 0\n");
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Forget();
    WriteFile(c.file, c.text);
    const std::string share = std::string(c.name) == "passed by" ? "gone" : "photos";
    const CommandResult run = Tool({"run", share});
    EXPECT_EQ(c.status, run.status);
    EXPECT_EQ(c.said, run.err);
  }
  WriteFile("/etc/fstab", "");
  WriteFile(kSharesFile, "samba = of\n");
  const CommandResult names = Tool({"names"});
  EXPECT_EQ(18, names.status);
  EXPECT_EQ(
      "zorv-snapusage: the shares cannot be listed; /etc/zorv-snapusage.conf:1: samba is to be on or "
      "off\n",
      names.err);
}

// Names as other programs write them were refused, and the error led to the folder that has them.
TEST_F(CmdRunSources, SnapshotsAreKnownByTheNamesOfTheirFolders) {
  fs::create_directory("/volume1/kept");
  for (const char* day : {"1", "2"}) {
    WriteRandom(volume_->Path("photos/file"), 300000, 1);
    volume_->Snapshot("photos", std::string("kept/photos.2026110") + day + "T0300");
  }
  WriteFile(kSharesFile,
            "[photos]\npath = /volume1/photos\nsnapshots = /volume1/kept\n"
            "format = photos.%Y%m%dT%H%M\ntime = utc\n");
  const CommandResult plan = Tool({"plan", "photos", "--delete", "photos.20261101T0300"});
  EXPECT_EQ(0, plan.status) << plan.err;
  EXPECT_THAT(plan.out, ContainsRegex("  GMT-2026.11.01-03.00.00-[0-9]* .photos.20261101T0300.\n"));
  const Json::Value document = ParseJson(
      MustRun(Argv({"plan", "photos", "--delete", "photos.20261102T0300", "--format", "json"})));
  EXPECT_EQ("/volume1/kept/photos.20261102T0300", document["steps"][0]["path"].asString());
  EXPECT_EQ(0, Tool({"explain", "photos", "photos.20261101T0300"}).status);
  EXPECT_EQ(0, Tool({"run", "photos", "--snapshot", "photos.20261101T0300"}).status);
  const CommandResult none = Tool({"explain", "photos", "photos.20261103T0300"});
  EXPECT_EQ(8, none.status);
  EXPECT_THAT(none.err, HasSubstr("did you mean 'photos.20261101T0300'?"));
}

TEST_F(CmdRunSources, AFormatThatFitsNothingIsSaid) {
  WriteFile(kSharesFile, "[photos]\npath = /volume1/photos\nformat = p-%Y%m%d\n");
  for (const char* command : {"run", "plan"}) {
    std::vector<std::string> words = {command, "photos"};
    if (words[0] == "plan") words.push_back("--keep-last=1");
    const CommandResult result = Tool(words);
    EXPECT_EQ(9, result.status);
    EXPECT_EQ(
        "zorv-snapusage: share 'photos' has no snapshots; 3 subvolumes in "
        "'/volume1/photos/.snapshots' do not fit its format 'p-%Y%m%d'; "
        "correct that in /etc/zorv-snapusage.conf:1\n",
        result.err);
  }
  // It printed nothing at all.
  const CommandResult names = Tool({"names", "photos"});
  EXPECT_EQ(0, names.status);
  EXPECT_EQ("", names.out);
  EXPECT_EQ(
      "zorv-snapusage: note: share 'photos' has no snapshots; 3 subvolumes in "
      "'/volume1/photos/.snapshots' do not fit its format 'p-%Y%m%d'; correct that in "
      "/etc/zorv-snapusage.conf:1\n",
      names.err);
}

// One disk that was absent kept all shares from being calculated.
TEST_F(CmdRunSources, AllSharesThatAreThere) {
  WriteFile("/etc/fstab", "/dev/sdz /volume3 btrfs nofail 0 0\n");
  const CommandResult run = Tool({"run", "--all", "--quiet"});
  const CommandResult json = Tool({"run", "--all", "--quiet", "--format", "json"});
  const CommandResult unknown = Tool({"show", "mail"});
  WriteFile("/etc/fstab", "");
  EXPECT_EQ(15, run.status);
  EXPECT_THAT(run.err, HasSubstr("note: shares may be missing, /volume3 is not there: "));
  EXPECT_THAT(run.out, HasSubstr(kFirst));
  EXPECT_FALSE(ParseJson(json.out)["complete"].asBool());
  EXPECT_EQ(15, unknown.status);
  EXPECT_THAT(unknown.err, HasSubstr("/volume3 is not there"));
}

TEST_F(CmdRunSources, AShareThatAnotherHidesIsSaid) {
  const BtrfsVolume second("/volume2");
  second.Subvolume("photos");
  const CommandResult shares = Tool({"shares"});
  EXPECT_EQ(0, shares.status);
  EXPECT_THAT(shares.err, HasSubstr("note: /volume2/photos is hidden by /volume1/photos"));
}

TEST_F(CmdRunSources, ASubvolumeOfTheSystemIsToldHowItBecomesAShare) {
  volume_->Subvolume("@home");
  const CommandResult run = Tool({"run", "@home"});
  EXPECT_EQ(5, run.status);
  EXPECT_THAT(run.err, HasSubstr("there is no share '@home'; /volume1/@home is passed by"));
  EXPECT_THAT(run.err, HasSubstr("as [home] with path = /volume1/@home"));
}

TEST_F(CmdRunSources, EachTableOfExplainHasItsOwnColumns) {
  for (const char* sort : {"--sort=-files", "--sort=+data"})
    EXPECT_EQ(0, Tool({"explain", "photos", kFirst, "--folders", sort}).status) << sort;
  for (const char* sort : {"--sort=-inode", "--sort=names"}) {
    const CommandResult result = Tool({"explain", "photos", kFirst, "--folders", sort});
    EXPECT_EQ(2, result.status) << sort;
    EXPECT_THAT(result.err, HasSubstr("there is no column '"));
  }
  EXPECT_EQ(2, Tool({"explain", "photos", kFirst, "--sort=files"}).status);
}

// Under the service testparm could not open the registry, and no share at all was measured.
TEST_F(CmdRunSources, SambasRegistryUnderTheServicesFileSystems) {
  WriteFile(kSmbConf, "[global]\ninclude = registry\n");
  ASSERT_EQ(0, Tool({"names"}).status);
  // /var as ProtectSystem=strict has it, but for what the service may write to.
  const CommandResult run = ZorvTest::Run(
      {"unshare", "--mount", "bash", "-ec",
       "mount --bind /var /var\n"
       "for path in $(sed -n 's/^ReadWritePaths=//p' \"$1\"); do\n"
       "  path=${path#-}; [[ $path != /var/* ]] || mount --bind \"$path\" \"$path\"\n"
       "done\n"
       "mount -o remount,bind,ro /var\n! touch /var/x 2>/dev/null\nexec \"$2\" names",
       "bash", ZORV_SOURCE_DIR "/packaging/systemd/zorv-snapusage@.service.in", ZORV_CLI_PATH});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("photos\n", run.out);
}

}  // namespace
