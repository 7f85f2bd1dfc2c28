#include "cli/held_bytes_reader.h"

#include <limits>

namespace ZorvSnapUsage {

FreedBytes HeldBytesReader::Read(JsonReader::Readers members) {
  constexpr unsigned long long kMost = std::numeric_limits<unsigned long long>::max() / 4;
  FreedBytes bytes;
  members["data"] = [&] { bytes.data = json_.Number(); };
  members["metadata"] = [&] { bytes.metadata = json_.Number(); };
  json_.Members(members);
  if (bytes.data > kMost - sum_.data || bytes.metadata > kMost - sum_.metadata)
    json_.Wrong("more bytes than there can be");
  sum_ += bytes;
  return bytes;
}

}  // namespace ZorvSnapUsage
