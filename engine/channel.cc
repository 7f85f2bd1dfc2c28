#include "engine/channel.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace ZorvEngine {
namespace {

struct MessageHead {
  uint32_t kind;
  uint32_t size;  // of the payload, in bytes
};

template <typename T>
void Append(const T& value, std::string* bytes) {
  static_assert(std::is_trivially_copyable_v<T>, "copied as bytes");
  bytes->append(reinterpret_cast<const char*>(&value), sizeof value);
}

template <typename T>
void AppendAll(const std::vector<T>& values, std::string* bytes) {
  static_assert(std::is_trivially_copyable_v<T>, "copied as bytes");
  Append(uint64_t{values.size()}, bytes);
  bytes->append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
}

void AppendText(const std::string& text, std::string* bytes) {
  Append(uint64_t{text.size()}, bytes);
  bytes->append(text);
}

// Bytes of a result in one message.
constexpr size_t kPartBytes = 1u << 20;

// Neighbours among the members of a set: those that share something are mostly snapshots taken one
// after the other.
struct MemberRun {
  uint32_t first;
  uint32_t count;
};

std::vector<MemberRun> RunsOf(const std::vector<uint32_t>& members) {
  std::vector<MemberRun> runs;
  for (const uint32_t member : members) {
    if (!runs.empty() && runs.back().first + runs.back().count == member)
      ++runs.back().count;
    else
      runs.push_back({member, 1});
  }
  return runs;
}

// Takes values in the order in which they were appended; each function is false when there are not
// enough bytes.
class Unpacker {
 public:
  explicit Unpacker(const std::string& bytes) : bytes_(bytes) {}

  template <typename T>
  bool Take(T* value) {
    return TakeBytes(sizeof *value, value);
  }

  template <typename T>
  bool TakeAll(std::vector<T>* values) {
    uint64_t count = 0;
    if (!Take(&count) || count > Left() / sizeof(T)) return false;
    values->resize(count);
    return TakeBytes(count * sizeof(T), values->data());
  }

  bool TakeText(std::string* text) {
    std::vector<char> bytes;
    if (!TakeAll(&bytes)) return false;
    text->assign(bytes.begin(), bytes.end());
    return true;
  }

  size_t Left() const { return bytes_.size() - at_; }

 private:
  bool TakeBytes(size_t size, void* out) {
    if (Left() < size) return false;
    if (size > 0) memcpy(out, bytes_.data() + at_, size);
    at_ += size;
    return true;
  }

  const std::string& bytes_;
  size_t at_ = 0;
};

// False when a run goes beyond `subvolumes`.
bool TakeMembers(Unpacker* from, size_t subvolumes, std::vector<uint32_t>* members) {
  std::vector<MemberRun> runs;
  if (!from->TakeAll(&runs)) return false;
  for (const MemberRun& run : runs) {
    if (run.first > subvolumes || run.count > subvolumes - run.first) return false;
    for (uint32_t i = 0; i < run.count; ++i) members->push_back(run.first + i);
  }
  return true;
}

bool TakeTable(Unpacker* from, SizeTable* table) {
  uint64_t rows = 0;
  if (!from->TakeAll(&table->ids) || !from->TakeAll(&table->redundancies) ||
      !from->Take(&table->countsSeveral) || !from->Take(&rows))
    return false;
  for (uint64_t i = 0; i < rows; ++i) {
    SetRow row;
    if (!TakeMembers(from, table->ids.size(), &row.members) || !from->Take(&row.complete) ||
        !from->TakeAll(&row.bytes))
      return false;
    table->rows.push_back(std::move(row));
  }
  return true;
}

void AppendFiles(const FileReport& report, std::string* bytes) {
  Append(report.all, bytes);
  Append(report.unlinked, bytes);
  Append(uint64_t{report.largest.size()}, bytes);
  for (const FileRow& row : report.largest) {
    Append(row.numbers, bytes);
    AppendText(row.path, bytes);
  }
  Append(uint64_t{report.folders.size()}, bytes);
  for (const FolderRow& row : report.folders) {
    Append(row.sum, bytes);
    AppendText(row.path, bytes);
  }
}

bool TakeFiles(Unpacker* from, FileReport* report) {
  uint64_t rows = 0;
  if (!from->Take(&report->all) || !from->Take(&report->unlinked) || !from->Take(&rows))
    return false;
  for (; rows > 0; --rows) {
    FileRow& row = report->largest.emplace_back();
    if (!from->Take(&row.numbers) || !from->TakeText(&row.path)) return false;
  }
  if (!from->Take(&rows)) return false;
  for (; rows > 0; --rows) {
    FolderRow& row = report->folders.emplace_back();
    if (!from->Take(&row.sum) || !from->TakeText(&row.path)) return false;
  }
  return true;
}

void AppendHolders(const HolderReport& report, std::string* bytes) {
  Append(uint64_t{report.versions.size()}, bytes);
  for (const PathVersion& version : report.versions) {
    Append(version.numbers, bytes);
    AppendAll(RunsOf(version.subvolumes), bytes);
  }
  AppendAll(RunsOf(report.without), bytes);
  AppendAll(RunsOf(report.nested), bytes);
  Append(uint64_t{report.groups.size()}, bytes);
  for (const HeldGroup& group : report.groups) {
    Append(group.outside, bytes);
    Append(group.extents, bytes);
    Append(group.bytes, bytes);
    AppendAll(RunsOf(group.subvolumes), bytes);
  }
}

bool TakeHolders(Unpacker* from, size_t subvolumes, HolderReport* report) {
  uint64_t rows = 0;
  if (!from->Take(&rows)) return false;
  for (; rows > 0; --rows) {
    PathVersion& version = report->versions.emplace_back();
    if (!from->Take(&version.numbers) || !TakeMembers(from, subvolumes, &version.subvolumes))
      return false;
  }
  if (!TakeMembers(from, subvolumes, &report->without) ||
      !TakeMembers(from, subvolumes, &report->nested) || !from->Take(&rows))
    return false;
  for (; rows > 0; --rows) {
    HeldGroup& group = report->groups.emplace_back();
    if (!from->Take(&group.outside) || !from->Take(&group.extents) || !from->Take(&group.bytes) ||
        !TakeMembers(from, subvolumes, &group.subvolumes))
      return false;
  }
  return true;
}

}  // namespace

std::string EncodeResult(const SizeResult& result) {
  std::string bytes;
  Append(result.generation, &bytes);
  AppendAll(result.table.ids, &bytes);
  AppendAll(result.table.redundancies, &bytes);
  Append(result.table.countsSeveral, &bytes);
  Append(uint64_t{result.table.rows.size()}, &bytes);
  for (const SetRow& row : result.table.rows) {
    AppendAll(RunsOf(row.members), &bytes);
    Append(row.complete, &bytes);
    AppendAll(row.bytes, &bytes);
  }
  AppendFiles(result.files, &bytes);
  AppendHolders(result.holders, &bytes);
  return bytes;
}

bool DecodeResult(const std::string& payload, SizeResult* out) {
  SizeResult result;
  Unpacker from(payload);
  if (!from.Take(&result.generation) || !TakeTable(&from, &result.table) ||
      !TakeFiles(&from, &result.files) ||
      !TakeHolders(&from, result.table.ids.size(), &result.holders) || from.Left() != 0)
    return false;
  *out = std::move(result);
  return true;
}

bool SendMessage(int fd, const Message& message) {
  std::string bytes;
  Append(MessageHead{message.kind, static_cast<uint32_t>(message.payload.size())}, &bytes);
  bytes += message.payload;
  for (size_t at = 0; at < bytes.size();) {
    const ssize_t written = write(fd, bytes.data() + at, bytes.size() - at);
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) at += static_cast<size_t>(written);
  }
  return true;
}

bool SendResult(int fd, const SizeResult& result) {
  const std::string bytes = EncodeResult(result);
  size_t at = 0;
  for (; bytes.size() - at > kPartBytes; at += kPartBytes)
    if (!SendMessage(fd, {Message::kResultPart, bytes.substr(at, kPartBytes)})) return false;
  return SendMessage(fd, {Message::kResult, bytes.substr(at)});
}

bool MessageReader::Receive(int fd) {
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    pending_.append(buffer, static_cast<size_t>(got));
    return true;
  }
}

std::optional<Message> MessageReader::Next() {
  MessageHead head;
  if (pending_.size() < sizeof head) return std::nullopt;
  memcpy(&head, pending_.data(), sizeof head);
  if (pending_.size() - sizeof head < head.size) return std::nullopt;
  Message message;
  message.kind = static_cast<Message::Kind>(head.kind);
  message.payload = pending_.substr(sizeof head, head.size);
  pending_.erase(0, sizeof head + head.size);
  return message;
}

}  // namespace ZorvEngine
