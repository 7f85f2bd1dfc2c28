// Amounts of bytes in a JSON document about a file system.
#ifndef CLI_HELD_BYTES_READER_H_
#define CLI_HELD_BYTES_READER_H_

#include "cli/json_reader.h"
#include "cli/size_table.h"

namespace ZorvSnapUsage {

// Reads objects with "data" and "metadata", as many as a document has; more bytes than any file
// system holds, alone or together, are an error, so that no sum of them passes 64 bits.
class HeldBytesReader {
 public:
  explicit HeldBytesReader(JsonReader& json) : json_(json) {}

  // `members` are required as well.
  FreedBytes Read(JsonReader::Readers members);

 private:
  JsonReader& json_;
  FreedBytes sum_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_HELD_BYTES_READER_H_
