// zorv-snapusage names.
#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

class CmdNames : public CliWorld {};

TEST_F(CmdNames, OfSharesInTheOrderOfTheirBytes) {
  volume_->Subvolume("mail");
  volume_->Subvolume("a b");
  EXPECT_EQ("a b\nmail\nphotos\n", MustRun(Argv({"names"})));
}

TEST_F(CmdNames, OfSnapshotsInTheOrderOfTheirTimes) {
  EXPECT_EQ(std::string(kFirst) + "\n" + kSecond + "\n" + kNoTime + "\n",
            MustRun(Argv({"names", "photos"})));
}

TEST_F(CmdNames, AreEscapedOrAsTheyAre) {
  volume_->Snapshot("photos", "photos/.snapshots/x\ny");
  EXPECT_THAT(MustRun(Argv({"names", "photos"})), HasSubstr("\nx\\ny\n"));
  const std::string zero = MustRun(Argv({"names", "photos", "--null"}));
  EXPECT_THAT(zero, HasSubstr(std::string("\0x\ny\0", 5)));
  EXPECT_EQ(4, std::count(zero.begin(), zero.end(), '\0'));
}

TEST_F(CmdNames, OfAShareThatThereIsNot) {
  const CommandResult result = Tool({"names", "nonesuch"});
  EXPECT_EQ(5, result.status);
  EXPECT_EQ("", result.out);
  EXPECT_THAT(result.err, HasSubstr("there is no share 'nonesuch'"));
}

TEST_F(CmdNames, SharesOfAVolumeThatIsNotThereAreSaidToBeMissing) {
  std::filesystem::create_symlink("/nowhere", "/volume7");
  const CommandResult result = Tool({"names"});
  std::filesystem::remove("/volume7");
  EXPECT_EQ(15, result.status);
  EXPECT_EQ("photos\n", result.out);
  EXPECT_EQ(
      "zorv-snapusage: note: shares may be missing, /volume7 is not there: No such file or "
      "directory\n",
      result.err);
}

}  // namespace
