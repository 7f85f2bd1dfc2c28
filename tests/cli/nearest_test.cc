// What somebody may have meant by a name that there is not.
#include "cli/nearest.h"

#include <gtest/gtest.h>

using namespace ZorvSnapUsage;

namespace {

TEST(EditDistance, CountsWhatHasToBeChanged) {
  const struct {
    const char* one;
    const char* other;
    size_t distance;
  } cases[] = {
      {"", "", 0},
      {"", "abc", 3},
      {"photos", "photos", 0},
      {"photos", "photo", 1},
      {"photos", "phoptos", 1},
      {"photos", "phonos", 1},
      {"photos", "pohtos", 1},
      {"photos", "Photos", 0},
      {"photos", "mail", 6},
      {"abcd", "badc", 2},
      {"kitten", "sitting", 3},
      {"\xC3\xBC", "u", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.one) + ", " + c.other);
    EXPECT_EQ(c.distance, EditDistance(c.one, c.other));
    EXPECT_EQ(c.distance, EditDistance(c.other, c.one));
  }
}

TEST(Nearest, OneThatCanHaveBeenMeant) {
  const std::vector<std::string> shares = {"mail", "photos", "photos2", "projects"};
  const struct {
    const char* word;
    const char* nearest;
  } cases[] = {
      {"fotos", nullptr},  // two of five
      {"hotos", "photos"}, {"phtos2", "photos2"},   {"PHOTOS", "photos"}, {"mial", "mail"},
      {"nail", "mail"},    {"project", "projects"}, {"music", nullptr},   {"x", nullptr},
      {"", nullptr},       {"photos1", "photos"},  // the first of two at one distance
      {"mmaill", "mail"},                          // two of six
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    EXPECT_EQ(c.nearest == nullptr ? "" : c.nearest, Nearest(c.word, shares).value_or(""));
  }
  EXPECT_FALSE(Nearest("photos", {}));
  EXPECT_EQ("tv", Nearest("tw", {"tv"})) << "one of two";
}

TEST(DidYouMean, NamesItOrSaysTheOtherThing) {
  EXPECT_EQ("did you mean 'a\\nb'?", DidYouMean("a\nc", {"a\nb"}, "look"));
  EXPECT_EQ("look", DidYouMean("photos", {"mail"}, "look"));
}

}  // namespace
