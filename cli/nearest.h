// What somebody may have meant by a name that there is not.
#ifndef CLI_NEAREST_H_
#define CLI_NEAREST_H_

#include <stddef.h>

#include <optional>
#include <string>
#include <vector>

namespace ZorvSnapUsage {

// How many characters have to be added, taken away, replaced, or exchanged with their neighbour to
// make one text of the other. Small and capital letters of ASCII count as the same.
size_t EditDistance(const std::string& one, const std::string& other);

// The candidate that is nearest to `word`, of several the first; nothing when each is so far from
// it that nobody can have meant it: more than a third of the word, and more than one character.
std::optional<std::string> Nearest(const std::string& word,
                                   const std::vector<std::string>& candidates);

// The next step after a word that is not known: "did you mean 'photos'?", or `otherwise`.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates,
                       const std::string& otherwise);

}  // namespace ZorvSnapUsage

#endif  // CLI_NEAREST_H_
