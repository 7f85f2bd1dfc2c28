// A whole file system some of whose blocks say what the input says, with right checksums: each is
// the number of a block, an offset in it (2 bytes), a length (1 byte) and that many bytes. Both
// ways of counting give a number or a reason, and end.
#include <map>

#include "tests/engine/graph_run.h"
#include "tests/fuzz/target.h"

using namespace ZorvTest;
using namespace ZorvEngine;

namespace {

// The file system, made once, and the sound content of its blocks.
struct World {
  RandomGraph graph{3, 4, 12};
  std::vector<uint64_t> places = graph.filesystem.Device().Places();
};

// Puts the input's bytes into blocks, and the sound blocks back when it goes.
class Damage {
 public:
  Damage(World* world, FuzzInput changes) : device_(world->graph.filesystem.Device()) {
    while (!changes.AtEnd()) {
      const uint64_t place = world->places[changes.Number(1) % world->places.size()];
      const size_t offset = kChecksumSize + changes.Number(2) % (kNodeSize - kChecksumSize);
      const size_t size = changes.Number(1) % 64;
      const std::string_view bytes = changes.Bytes(std::min(size, kNodeSize - offset));
      Bytes block = device_.Get(place);
      sound_.emplace(place, block);
      std::copy(bytes.begin(), bytes.end(), block.begin() + static_cast<long>(offset));
      Seal(&block);
      device_.Put(place, block);
    }
  }
  ~Damage() {
    for (const auto& [place, block] : sound_) device_.Put(place, block);
  }
  bool IsNone() const { return sound_.empty(); }

 private:
  SparseDevice& device_;
  std::map<uint64_t, Bytes> sound_;
};

void Count(World* world, ExclusiveSizeMethod& method, bool sound) {
  SizeResult result;
  SizeRequest request = Ask(world->graph.ids, kAllSets, 16 << 20);
  request.mostSettling = std::chrono::milliseconds(0);
  const Status done = RunOn(world->graph.filesystem, method, request, &result);
  FUZZ_LAW(done.Ok() == done.Text().empty());
  FUZZ_LAW(done.Ok() || result.table.ids.empty());
  FUZZ_LAW(!sound || (done.Ok() && PlainRows(result.table) == world->graph.Expected()));
}

}  // namespace

FUZZ_TARGET(damaged_blocks) {
  static World* const world = new World;
  const Damage damage(world, FuzzInput(input));
  ExtentTreeScan scan;
  Count(world, scan, damage.IsNone());
  TopDownWalk walk;
  Count(world, walk, damage.IsNone());
}
