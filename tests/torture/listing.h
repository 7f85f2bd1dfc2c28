// What a part of the file system looks like, to be compared with what it looked like before.
#ifndef TESTS_TORTURE_LISTING_H_
#define TESTS_TORTURE_LISTING_H_

#include <map>
#include <string>
#include <vector>

namespace ZorvTest {

// Everything below some directories, these included: path to kind, mode, owner, size, number of
// names and of the file, times of the last write and of the last change of any of these. Links are
// not followed, and what lies on another file system is listed as well.
using Listing = std::map<std::string, std::string>;

// Lists the trees, but for those `without`.
Listing List(const std::vector<std::string>& trees, const std::vector<std::string>& without = {});

// The paths that came, went or changed, one a line; empty when all is as it was.
std::string Difference(const Listing& before, const Listing& after);

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_LISTING_H_
