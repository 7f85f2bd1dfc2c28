#include "cli/engine_files.h"

#include "cli/document_head.h"
#include "cli/engine_document.h"
#include "cli/name_bytes.h"

namespace ZorvSnapUsage {
namespace {

// A file has a path of 4095 bytes as a rule, each of which may take five.
constexpr size_t kMostOutputPerFile = 64 << 10;
constexpr size_t kMostOutput = 1 << 20;

class Document {
 public:
  Document(std::string_view text, unsigned long long id) : json_(text), id_(id) {}

  Explanation Read() {
    Explanation found;
    JsonReader::Readers members = DocumentHead(json_, {id_}, found.generation);
    members["exclusive"] = [&] {
      json_.Array([&] {
        json_.Members({{"data", [&] { found.data = json_.Number(); }},
                       {"metadata", [&] { found.metadata = json_.Number(); }}});
      });
    };
    members["files"] = [&] {
      json_.Members(
          {{"all", [&] { found.all = Sum(); }},
           {"unlinked", [&] { found.unlinked = Sum(); }},
           {"largest", [&] { json_.Array([&] { found.files.push_back(File()); }); }},
           {"folders", [&] { json_.Array([&] { found.folders.push_back(Folder()); }); }}});
    };
    json_.Members(members);
    json_.End();
    if (found.all.data != found.data) json_.Wrong("files that do not add up");
    return found;
  }

 private:
  FileSum Sum() {
    FileSum sum;
    json_.Members({{"files", [&] { sum.files = json_.Number(); }},
                   {"data", [&] { sum.data = json_.Number(); }}});
    return sum;
  }

  ExplainedFile File() {
    ExplainedFile file;
    json_.Members({{"inode", [&] { file.inode = json_.Number(); }},
                   {"data", [&] { file.data = json_.Number(); }},
                   {"shared_data", [&] { file.sharedData = json_.Number(); }},
                   {"names", [&] { file.names = json_.Number(); }}},
                  {{"path", [&] { file.path = NameBytes(json_.Text()); }}});
    return file;
  }

  ExplainedFolder Folder() {
    ExplainedFolder folder;
    json_.Members({{"files", [&] { folder.sum.files = json_.Number(); }},
                   {"data", [&] { folder.sum.data = json_.Number(); }},
                   {"path", [&] { folder.path = NameBytes(json_.Text()); }}});
    return folder;
  }

  JsonReader json_;
  const unsigned long long id_;
};

}  // namespace

Explanation ReadFilesDocument(std::string_view text, unsigned long long subvolumeID) {
  return Document(text, subvolumeID).Read();
}

Explanation AskForFiles(const std::string& directory, unsigned long long subvolumeID,
                        const ExplanationSize& size) {
  const std::string document =
      AskEngine({{"--files", std::to_string(size.most), "--depth", std::to_string(size.depth)},
                 directory,
                 {subvolumeID},
                 kMostOutput + 2 * size_t{size.most} * kMostOutputPerFile});
  return Understood([&] { return ReadFilesDocument(document, subvolumeID); });
}

}  // namespace ZorvSnapUsage
