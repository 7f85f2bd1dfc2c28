// Runs a way of counting on a graph file system, and says what it should have found.
#ifndef TESTS_ENGINE_GRAPH_RUN_H_
#define TESTS_ENGINE_GRAPH_RUN_H_

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "engine/size/extent_tree_scan.h"
#include "engine/size/newest_state_run.h"
#include "engine/size/top_down_walk.h"
#include "tests/engine/graph_filesystem.h"

namespace ZorvTest {

inline constexpr size_t kAllSets = 1 << 20;

inline ZorvEngine::SizeRequest Ask(const std::vector<uint64_t>& ids, size_t mostSetBytes = kAllSets,
                                   size_t mostArrayBytes = 256 << 20) {
  ZorvEngine::SizeRequest request;
  request.ids = ids;
  request.countMetadata = true;
  request.mostSetBytes = mostSetBytes;
  request.mostArrayBytes = mostArrayBytes;
  return request;
}

// Only what each of `ids` holds alone.
inline ZorvEngine::SizeRequest AskAlone(const std::vector<uint64_t>& ids) {
  ZorvEngine::SizeRequest request = Ask(ids, 0);
  request.countSeveral = false;
  return request;
}

inline ZorvEngine::Status RunOn(ZorvEngine::StateSource& source,
                                ZorvEngine::ExclusiveSizeMethod& method,
                                const ZorvEngine::SizeRequest& request, ZorvEngine::SizeResult* out,
                                ZorvEngine::SizeProgress* progress = nullptr) {
  ZorvEngine::SizeProgress own;
  return RunOnNewestState(
      source, method, request, progress == nullptr ? own : *progress, [](const std::string&) {},
      out);
}

// Bytes by sets of positions, empty ones left out: data and metadata.
using PlainSums = std::map<std::vector<uint32_t>, std::pair<uint64_t, uint64_t>>;

// The rows of a table; those that are known in part go by their last members, with UINT32_MAX
// before them.
inline PlainSums PlainRows(const ZorvEngine::SizeTable& table) {
  PlainSums plain;
  for (const ZorvEngine::SetRow& row : table.rows) {
    const ZorvEngine::HeldBytes sum = ZorvEngine::SizeTable::Sum(row.bytes);
    if (sum.data + sum.metadata == 0) continue;
    std::vector<uint32_t> members = row.members;
    if (!row.complete) members.insert(members.begin(), UINT32_MAX);
    plain[members].first += sum.data;
    plain[members].second += sum.metadata;
  }
  return plain;
}

// Those of `rows` that `request` asks for.
inline PlainSums Asked(PlainSums rows, const ZorvEngine::SizeRequest& request) {
  if (!request.countSeveral)
    std::erase_if(rows, [](const auto& row) { return row.first.size() > 1; });
  return rows;
}

// What the sets of `ids` hold that nobody else does; relocation trees are nobody.
inline PlainSums ExpectedRows(const HolderSums& sums, const std::vector<uint64_t>& ids) {
  PlainSums plain;
  for (const auto& [holders, bytes] : sums) {
    std::vector<uint32_t> members;
    size_t nobody = 0;
    for (const uint64_t holder : holders) {
      const auto found = std::ranges::find(ids, holder);
      if (found != ids.end()) members.push_back(static_cast<uint32_t>(found - ids.begin()));
      if (holder == ZorvEngine::kRelocationTreeId) ++nobody;
    }
    if (members.empty() || members.size() + nobody != holders.size()) continue;
    std::ranges::sort(members);
    plain[members].first += bytes.data;
    plain[members].second += bytes.metadata;
  }
  return plain;
}

// A file system with a random history, and a random question about it.
struct RandomGraph {
  explicit RandomGraph(unsigned seed, size_t mostSubvolumes = 12, int mostSteps = 60)
      : random(seed), filesystem(seed, GraphShape::Random(seed)) {
    GraphTrees& trees = filesystem.Trees();
    for (size_t i = 0, count = 1 + random() % 3; i < count; ++i) trees.Create(4);
    filesystem.Change(&random, static_cast<int>(random() % static_cast<unsigned>(mostSteps)),
                      mostSubvolumes);
    filesystem.Commit();
    ids = trees.Subvolumes();
    std::shuffle(ids.begin(), ids.end(), random);
    ids.resize(1 + random() % std::min<size_t>(ids.size(), 10));
  }

  PlainSums Expected() const {
    return ExpectedRows(filesystem.HoldersAt(filesystem.LastGeneration()), ids);
  }

  std::mt19937 random;
  GraphFilesystem filesystem;
  std::vector<uint64_t> ids;  // asked for
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_GRAPH_RUN_H_
