#include "cli/nearest.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool Same(char one, char other) { return Lower(one) == Lower(other); }

}  // namespace

size_t EditDistance(const std::string& one, const std::string& other) {
  // Row i has the distances of the first i characters of `one` from all beginnings of `other`.
  std::vector<size_t> beforeLast, last(other.size() + 1), row(other.size() + 1);
  for (size_t j = 0; j <= other.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= one.size(); ++i) {
    beforeLast = std::move(last);
    last = std::move(row);
    row.assign(other.size() + 1, i);
    for (size_t j = 1; j <= other.size(); ++j) {
      const size_t replaced = last[j - 1] + (Same(one[i - 1], other[j - 1]) ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && Same(one[i - 1], other[j - 2]) && Same(one[i - 2], other[j - 1]))
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
  }
  return row[other.size()];
}

std::optional<std::string> Nearest(const std::string& word,
                                   const std::vector<std::string>& candidates) {
  std::optional<std::string> nearest;
  size_t smallest = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const size_t distance = EditDistance(word, candidate);
    if (distance >= smallest) continue;
    smallest = distance;
    nearest = candidate;
  }
  return nearest;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates,
                       const std::string& otherwise) {
  const std::optional<std::string> nearest = Nearest(word, candidates);
  return nearest ? fmt::format("did you mean {}?", Quoted(*nearest)) : otherwise;
}

}  // namespace ZorvSnapUsage
