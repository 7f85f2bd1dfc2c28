// What is mounted among the snapshots of a share is none of them: IDs of another file system mean
// others here, and a subvolume that is there twice is one.
#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

class MountedSnapshots : public CliWorld {
 protected:
  MountedSnapshots() { RealEngine(); }

  // A directory among the snapshots that something is mounted on.
  std::string Mounted(const std::string& from,
                      const std::string& name = "GMT-2024.03.09-09.04.09") const {
    const std::string place = volume_->Path("photos/.snapshots/" + name);
    MustRun({"mkdir", place});
    MustRun({"mount", "--bind", from, place});
    return place;
  }

  // The names that a calculation from the second snapshot on has measured.
  static std::vector<std::string> MeasuredSinceTheSecond() {
    const CommandResult result =
        Tool({"run", "photos", "--quiet", "--since", "2024-03-02", "--format", "json"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_THAT(result.err, Not(HasSubstr("more than once")));
    std::vector<std::string> names;
    if (result.status != 0) return names;
    const Json::Value measured = ParseJson(result.out);
    for (const Json::Value& row : measured["snapshots"]) names.push_back(row["name"].asString());
    return names;
  }

  static void ExpectLeftOut(const std::string& why) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"plan", "photos", "--keep-last", "1"},
          {"run", "photos", "--quiet"},
          {"show", "photos"}}) {
      SCOPED_TRACE(words[0]);
      const CommandResult result = Tool(words);
      EXPECT_EQ(0, result.status) << result.err;
      const std::string note =
          "zorv-snapusage: note: snapshot 'GMT-2024.03.09-09.04.09' is left out, it is " + why +
          "\n";
      EXPECT_THAT(result.err, HasSubstr(note));
      EXPECT_EQ(result.err.find(note), result.err.rfind(note)) << "once";
      EXPECT_THAT(result.out, Not(HasSubstr("GMT-2024.03.09-09.04.09")));
    }
    EXPECT_EQ(8, Tool({"explain", "photos", "GMT-2024.03.09-09.04.09"}).status);
  }
};

TEST_F(MountedSnapshots, OfAnotherFileSystemAreLeftOut) {
  const BtrfsVolume other("/volume2");
  other.Subvolume("elsewhere");
  const std::string place = Mounted("/volume2/elsewhere");
  ExpectLeftOut("on another file system than its share");
  MustRun({"umount", place});
}

TEST_F(MountedSnapshots, ThatAreThereTwiceAreLeftOut) {
  const std::string place = Mounted(volume_->Path(std::string("photos/.snapshots/") + kSecond));
  ExpectLeftOut("the same as '" + std::string(kSecond) + "'");
  MustRun({"umount", place});
}

// The one in its place was left out, and the mount was to be deleted.
TEST_F(MountedSnapshots, ThatAreThereTwiceStayInTheirPlace) {
  const std::string place = Mounted(volume_->Path(std::string("photos/.snapshots/") + kSecond),
                                    "GMT-2024.02.01-09.04.09");
  EXPECT_THAT(MustRun(Argv({"names", "photos"})),
              testing::StartsWith(std::string(kFirst) + "\n" + kSecond + "\n"));
  MustRun({"umount", place});
}

// Its bytes were shown under the name of a snapshot.
TEST_F(MountedSnapshots, OfNoShareAreLeftOut) {
  volume_->Subvolume("other");
  const std::string place = Mounted(volume_->Path("other"));
  ExpectLeftOut("only mounted there");
  MustRun({"umount", place});
}

// The library lists the snapshots of a range once more, and took what had been left out.
TEST_F(MountedSnapshots, OfAnotherFileSystemAreLeftOutOfARange) {
  const BtrfsVolume other("/volume2");
  for (const char* name : {"one", "two", "three", "four"}) other.Subvolume(name);
  const std::string place = Mounted("/volume2/four");
  EXPECT_EQ(std::vector<std::string>{kSecond}, MeasuredSinceTheSecond());
  MustRun({"umount", place});
}

TEST_F(MountedSnapshots, ThatAreThereTwiceAreLeftOutOfARange) {
  for (const char* original : {kFirst, kSecond}) {
    SCOPED_TRACE(original);
    const std::string place = Mounted(volume_->Path(std::string("photos/.snapshots/") + original));
    EXPECT_EQ(std::vector<std::string>{kSecond}, MeasuredSinceTheSecond());
    MustRun({"umount", place});
    MustRun({"rmdir", place});
  }
}

}  // namespace
