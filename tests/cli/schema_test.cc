// What is printed as JSON is what docs/schema says.
#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

class Schema : public CliWorld {
 protected:
  // What the validator says of the output of the program for these words; empty: it is valid.
  static std::string Complaint(const std::string& schema, const std::vector<std::string>& words) {
    std::vector<std::string> argv = words;
    argv.insert(argv.end(), {"--format", "json"});
    return ComplaintOf(schema, Tool(argv).out);
  }

  static std::string ComplaintOf(const std::string& schema, const std::string& document) {
    WriteFile("/tmp/document.json", document);
    const CommandResult result = ZorvTest::Run(
        {"python3", "-c",
         "import json, jsonschema, sys\n"
         "schema = json.load(open(sys.argv[1]))\n"
         "jsonschema.Draft202012Validator.check_schema(schema)\n"
         "jsonschema.Draft202012Validator(schema).validate(json.load(open(sys.argv[2])))\n",
         ZORV_SOURCE_DIR "/docs/schema/" + schema + ".json", "/tmp/document.json"});
    return result.status == 0 ? "" : result.err + document;
  }
};

TEST_F(Schema, OutputOfEachCommandIsValid) {
  volume_->Subvolume("empty");
  EXPECT_EQ("", Complaint("shares", {"shares"})) << "nothing calculated yet";
  EXPECT_EQ("", Complaint("status", {"status"}));
  EXPECT_EQ("", Complaint("show", {"run", "photos", "--quiet"}));
  MustRun(Argv({"clean", "photos"}));
  table_ = "false";
  FakeEngine(kAnswer);
  EXPECT_EQ("", Complaint("show", {"run", "photos", "--quiet"})) << "without a table";
  EXPECT_EQ("", Complaint("run", {"run", "photos", "empty", "--quiet"}));
  volume_->DeleteSubvolume(std::string("photos/.snapshots/") + kFirst);
  volume_->Snapshot("photos", "photos/.snapshots/new");
  for (const char* command : {"show", "status"})
    EXPECT_EQ("", Complaint(command, {command, "photos"}));
  EXPECT_EQ("", Complaint("shares", {"shares"}));
  FakeEngine("echo 'exclusive sizes unavailable: x'; exit 1\n");
  Tool({"run", "photos"});
  EXPECT_EQ("", Complaint("status", {"status"})) << "failed";
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  EXPECT_EQ("", Complaint("status", {"status"})) << "running";
  EXPECT_EQ("", Complaint("shares", {"shares"})) << "running";
}

TEST_F(Schema, AnotherDocumentIsNotValid) {
  Json::Value shown = ParseJson(MustRun(Argv({"run", "photos", "--quiet", "--format", "json"})));
  const auto complaint = [&shown] {
    return ComplaintOf("show", Json::writeString(Json::StreamWriterBuilder(), shown));
  };
  EXPECT_EQ("", complaint());
  for (const char* member : {"__header", "calculated", "complete", "snapshots", "table"}) {
    const Json::Value value = shown[member];
    shown.removeMember(member);
    EXPECT_NE("", complaint()) << member;
    shown[member] = value;
  }
  shown["table"].removeMember("generation");
  EXPECT_NE("", complaint()) << "a table of no state";
  shown["table"] = Json::Value();
  EXPECT_EQ("", complaint());
  shown["snapshots"][0]["exclusive"] = "2570";
  EXPECT_NE("", complaint()) << "a number as text";
}

}  // namespace
