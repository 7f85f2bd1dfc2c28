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
  bytes->append(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

std::string EncodeResult(const SizeResult& result) {
  std::string bytes;
  Append(result.generation, &bytes);
  for (const ExclusiveSize& size : result.sizes) Append(size, &bytes);
  return bytes;
}

bool DecodeResult(const std::string& payload, SizeResult* out) {
  static_assert(std::is_trivially_copyable_v<ExclusiveSize>, "copied as bytes");
  if (payload.size() < sizeof out->generation) return false;
  const size_t bytes = payload.size() - sizeof out->generation;
  if (bytes % sizeof(ExclusiveSize) != 0) return false;
  memcpy(&out->generation, payload.data(), sizeof out->generation);
  out->sizes.resize(bytes / sizeof(ExclusiveSize));
  if (bytes > 0) memcpy(out->sizes.data(), payload.data() + sizeof out->generation, bytes);
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
