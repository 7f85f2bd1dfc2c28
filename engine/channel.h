// channel.h: what the worker tells the front, as messages on a pipe.
#ifndef ENGINE_CHANNEL_H_
#define ENGINE_CHANNEL_H_

#include <cstdint>
#include <optional>
#include <string>

#include "engine/size/newest_state_run.h"

namespace ZorvEngine {

// One message.  Both ends are the same program, so numbers go as they stand in memory.
struct Message {
  enum Kind : uint32_t {
    kNote,        // a sentence for standard error
    kTurn,        // a row to wait in; the front answers when the turn has come
    kResultPart,  // a piece of what EncodeResult made; more follow
    kResult,      // the last piece
    kLine,        // a line of standard output, with its end
    kYes,         // the lines have answered the question,
    kNo,          // or have refused it: exit status 1
    kFailure,     // a sentence
  };

  Kind kind = kNote;
  std::string payload;
};

std::string EncodeResult(const SizeResult& result);

// False when `payload` is no result.
bool DecodeResult(const std::string& payload, SizeResult* out);

// Writes a message whole; false when the other end has gone.
bool SendMessage(int fd, const Message& message);

// Writes a result of any size, in pieces.
bool SendResult(int fd, const SizeResult& result);

// Puts messages together from the pieces that a pipe delivers.
class MessageReader {
 public:
  // Takes what there is to read, waiting when there is nothing.  False: end of the channel.
  bool Receive(int fd);

  // The next complete message, if there is one.
  std::optional<Message> Next();

 private:
  std::string pending_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_CHANNEL_H_
