#include "engine/io/read_queue.h"

#include <new>

namespace ZorvEngine {

void ReadPlainly(QueuedRead* read, size_t there) {
  read->status = Status();
  if (there == read->size) return;
  try {
    read->status =
        read->source->ReadAt(read->offset + there, read->buffer + there, read->size - there);
  } catch (const std::bad_alloc&) {  // there was no memory for the words of a failure
    read->status = Status::Failed("out of memory");
  }
}

}  // namespace ZorvEngine
