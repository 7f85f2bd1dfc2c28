// What is printed as JSON is what docs/schema says.
#include <fcntl.h>

#include "tests/cli/cli_world.h"
#include "tests/support/btrfs_ioctls.h"

using namespace ZorvTest;

namespace {

class Schema : public CliWorld {
 protected:
  // A document that is to be held to a schema, with a word on how it came about.
  struct Document {
    std::string schema;
    std::string text;
    std::string note;
  };

  // What the program prints for these words now.
  void Print(const std::string& schema, std::vector<std::string> words,
             const std::string& note = "") {
    const std::string command = testing::PrintToString(words);
    words.insert(words.end(), {"--format", "json"});
    documents_.push_back({schema, Tool(words).out, command + " " + note});
  }

  // The validator's complaint about each document; empty: it is valid, and the schema tells of each
  // of its members. One process for all, which takes its time to start.
  std::vector<std::string> Complaints() const {
    Json::Value list(Json::arrayValue);
    for (const Document& document : documents_) {
      Json::Value pair(Json::arrayValue);
      pair.append(ZORV_SOURCE_DIR "/docs/schema/" + document.schema + ".json");
      pair.append(document.text);
      list.append(pair);
    }
    WriteFile("/tmp/documents.json", Json::writeString(Json::StreamWriterBuilder(), list));
    const Json::Value said = ParseJson(
        MustRun({"python3", "-c",
                 "import json, jsonschema\n"
                 "def close(part):\n"
                 "    if isinstance(part, dict) and isinstance(part.get('properties'), dict):\n"
                 "        part['additionalProperties'] = False\n"
                 "    for value in part.values() if isinstance(part, dict) else part:\n"
                 "        if isinstance(value, (dict, list)): close(value)\n"
                 "def complaint(path, text):\n"
                 "    schema = json.load(open(path))\n"
                 "    jsonschema.Draft202012Validator.check_schema(schema)\n"
                 "    close(schema)\n"
                 "    try: jsonschema.Draft202012Validator(schema).validate(json.loads(text))\n"
                 "    except (jsonschema.ValidationError, ValueError) as error: return str(error)\n"
                 "    return ''\n"
                 "documents = json.load(open('/tmp/documents.json'))\n"
                 "print(json.dumps([complaint(*document) for document in documents]))\n"}));
    std::vector<std::string> complaints;
    for (const Json::Value& complaint : said) complaints.push_back(complaint.asString());
    return complaints;
  }

  void ExpectValid() const {
    const std::vector<std::string> complaints = Complaints();
    ASSERT_EQ(documents_.size(), complaints.size());
    for (size_t i = 0; i < documents_.size(); ++i)
      EXPECT_EQ("", complaints[i]) << documents_[i].note << "\n" << documents_[i].text;
  }

  void ExpectNotValid() const {
    const std::vector<std::string> complaints = Complaints();
    ASSERT_EQ(documents_.size(), complaints.size());
    for (size_t i = 0; i < documents_.size(); ++i)
      EXPECT_NE("", complaints[i]) << documents_[i].note << " by " << documents_[i].schema;
  }

  std::vector<Document> documents_;
};

TEST_F(Schema, OutputOfEachCommandIsValid) {
  volume_->Subvolume("empty");
  Print("shares", {"shares"}, "nothing calculated yet");
  Print("status", {"status"});
  Print("show", {"run", "photos", "--quiet"});
  MustRun(Argv({"clean", "photos"}));
  table_ = "false";
  FakeEngine(kAnswer);
  Print("show", {"run", "photos", "--quiet"}, "without a table");
  Print("run", {"run", "photos", "empty", "--quiet"});
  volume_->DeleteSubvolume(std::string("photos/.snapshots/") + kFirst);
  volume_->Snapshot("photos", "photos/.snapshots/new");
  for (const char* command : {"show", "status"}) Print(command, {command, "photos"});
  Print("shares", {"shares"});
  FakeEngine("echo 'exclusive sizes unavailable: x'; exit 1\n");
  Tool({"run", "photos"});
  Print("status", {"status"}, "failed");
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  Print("status", {"status"}, "running");
  Print("shares", {"shares"}, "running");
  ExpectValid();
}

// What only the real engine answers.
TEST_F(Schema, AnswersAboutNowAreValid) {
  RealEngine();
  MustRun({"mkdir", volume_->Path("photos/trips")});
  WriteRandom(volume_->Path("photos/trips/film"), 1 << 20, 1);
  WriteRandom(volume_->Path("photos/kept"), 1 << 20, 2);
  WriteRandom(volume_->Path("photos/open"), 100000, 3);
  const std::string name = "GMT-2024.03.03-09.04.09";
  volume_->Snapshot("photos", "photos/.snapshots/" + name);
  MustRun({"rm", "-r", volume_->Path("photos/trips"), volume_->Path("photos/open")});
  const std::string snapshot = volume_->Path("photos/.snapshots/" + name);
  SetReadOnly(snapshot, false);
  const UniqueFd unlinked = Open(snapshot + "/open", O_RDONLY);
  MustRun({"rm", snapshot + "/open"});
  MustRun({"sync", "-f", "/volume1"});

  Print("plan", {"plan", "photos", "--delete", name, "--delete", kNoTime});
  Print("plan", {"plan", "photos", "--free", "1M"});
  Print("plan", {"plan", "photos", "--free", "1M", "--fewest"});
  Print("plan", {"plan", "photos", "--free", "1T"}, "out of reach");
  Print("explain", {"explain", "photos", name});
  Print("explain", {"explain", "photos", name, "--top", "1", "--folders"});
  for (const char* path : {"trips", "kept", "."}) Print("whyheld", {"whyheld", "photos", path});
  EXPECT_THAT(documents_[4].text, HasSubstr("\"path\" : null")) << "of the file without a name";
  ExpectValid();
}

// No schema takes what another command prints.
TEST_F(Schema, EachDocumentHasItsOwn) {
  RealEngine();
  WriteRandom(volume_->Path("photos/kept"), 100000, 2);
  MustRun(Argv({"run", "photos", "--quiet"}));
  const std::vector<std::string> schemas = {"plan",   "explain", "whyheld", "shares",
                                            "status", "show",    "run"};
  for (const std::string& schema : schemas) {
    if (schema != "plan") Print(schema, {"plan", "photos", "--delete", kFirst});
    if (schema != "explain") Print(schema, {"explain", "photos", kFirst});
    if (schema != "whyheld") Print(schema, {"whyheld", "photos", "kept"});
    if (schema != "shares") Print(schema, {"shares"});
    if (schema != "status") Print(schema, {"status", "photos"});
    if (schema != "show") Print(schema, {"show", "photos"});
  }
  ExpectNotValid();
}

TEST_F(Schema, AnotherDocumentIsNotValid) {
  const Json::Value shown =
      ParseJson(MustRun(Argv({"run", "photos", "--quiet", "--format", "json"})));
  const auto hold = [&](const Json::Value& document, const std::string& note) {
    documents_.push_back({"show", Json::writeString(Json::StreamWriterBuilder(), document), note});
  };
  for (const char* member : {"__header", "calculated", "complete", "snapshots", "table"}) {
    Json::Value document = shown;
    document.removeMember(member);
    hold(document, std::string("without ") + member);
  }
  Json::Value text = shown, stateless = shown, more = shown;
  text["snapshots"][0]["exclusive"] = "2570";
  hold(text, "a number as text");
  stateless["table"].removeMember("generation");
  hold(stateless, "a table of no state");
  more["more"] = 1;
  hold(more, "a member that nobody tells of");
  ExpectNotValid();
  documents_.clear();
  hold(shown, "as it was printed");
  ExpectValid();
}

}  // namespace
