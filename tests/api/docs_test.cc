// The documents and the table of mutations still fit the sources.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

const std::string kSource = ZORV_SOURCE_DIR;

// "Suite.Case" of every test in the tree.
std::set<std::string> AllTests() {
  const std::regex test(R"(\nTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\))");
  std::set<std::string> tests;
  for (const auto& entry : fs::recursive_directory_iterator(kSource + "/tests")) {
    if (!entry.path().filename().string().ends_with("_test.cc")) continue;
    const std::string text = ReadFile(entry.path());
    for (std::sregex_iterator at(text.begin(), text.end(), test), end; at != end; ++at)
      tests.insert((*at)[1].str() + "." + (*at)[2].str());
  }
  return tests;
}

// A project of its own for the runner of mutations: a function, its test, and a table.
class Mutate : public testing::Test {
 protected:
  Mutate() {
    fs::remove_all(kProject);
    fs::create_directories(kProject + "/tests/tools");
    fs::copy(kSource + "/tests/tools/mutate.py", kProject + "/tests/tools/mutate.py");
    WriteFile(kProject + "/sum.h", "inline int Sum(int a, int b) { return a + b; }  // unseen\n");
    WriteFile(kProject + "/sum_test.cc",
              "#include <gtest/gtest.h>\n#include \"sum.h\"\n"
              "TEST(Sum, Adds) { EXPECT_EQ(3, Sum(1, 2)); }\n");
    WriteFile(kProject + "/CMakeLists.txt",
              "cmake_minimum_required(VERSION 3.23)\nproject(sum CXX)\n"
              "set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)\n"
              "find_package(GTest REQUIRED)\nadd_executable(sum_test sum_test.cc)\n"
              "target_link_libraries(sum_test GTest::gtest_main)\n");
  }

  // Runs with a table of these rows: name, old text, new text.
  static CommandResult Run(const std::string& rows, const std::string& argument = "") {
    WriteFile(kProject + "/tests/mutations.py",
              "from collections import namedtuple\n"
              "Mutation = namedtuple('Mutation', 'name file old new tests')\n"
              "MUTATIONS = [Mutation(name, 'sum.h', old, new, 'Sum.*') for name, old, new in [" +
                  rows + "]]\n");
    std::vector<std::string> argv = {"python3", kProject + "/tests/tools/mutate.py"};
    if (!argument.empty()) argv.push_back(argument);
    return ZorvTest::Run(argv);
  }

  static const std::string kProject;
};

const std::string Mutate::kProject = "/tmp/mutated";

}  // namespace

TEST(Docs, TestsOfKeptBehaviourExist) {
  const std::regex named(R"(`([A-Z]\w+\.[A-Z]\w+)`)");
  const std::set<std::string> tests = AllTests();
  int count = 0;
  for (const char* document : {"/docs/kept-behaviour.md", "/docs/security.md"}) {
    const std::string text = ReadFile(kSource + document);
    for (std::sregex_iterator at(text.begin(), text.end(), named), end; at != end; ++at, ++count)
      EXPECT_EQ(1u, tests.count((*at)[1])) << document << ": " << (*at)[1];
  }
  EXPECT_LT(40, count);
}

TEST(Docs, LinksLeadSomewhere) {
  const std::regex link(R"(\]\(([^)#:]+)\))");
  for (const char* document :
       {"README.md", "docs/file-formats.md", "docs/kept-behaviour.md", "docs/adding-a.md",
        "docs/testing.md", "docs/benchmarks.md", "docs/security.md", "docs/concepts.md",
        "docs/zorv-snapusage.md", "docs/engine.md", "docs/packaging.md", "docs/sources.md"}) {
    const fs::path path = kSource + "/" + document;
    const std::string text = ReadFile(path);
    for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at)
      EXPECT_TRUE(fs::exists(path.parent_path() / (*at)[1].str())) << document << ": " << (*at)[1];
  }
}

TEST(Docs, MutationsFitTheSources) {
  const CommandResult run =
      ZorvTest::Run({"python3", kSource + "/tests/tools/mutate.py", "--check"});
  EXPECT_EQ(0, run.status) << run.err;
}

TEST_F(Mutate, TellsCaughtFromSurvivedAndBroken) {
  const CommandResult run = Run(
      "('subtracts', 'a + b', 'a - b'), ('comment', 'unseen', 'seen'), ('breaks', 'a + b', 'a +')");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.out.find("caught    subtracts: Sum.Adds")) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find("SURVIVED  comment")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("BROKEN    breaks")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("\n3 mutations, 1 caught\n")) << run.out;
  EXPECT_EQ("inline int Sum(int a, int b) { return a + b; }  // unseen\n",
            ReadFile(kProject + "/sum.h"));

  const CommandResult one =
      Run("('subtracts', 'a + b', 'a - b'), ('comment', 'unseen', 'seen')", "sub");
  EXPECT_EQ(0, one.status) << one.out << one.err;
  EXPECT_NE(std::string::npos, one.out.find("\n1 mutations, 1 caught\n")) << one.out;
}

TEST_F(Mutate, RedWithoutAMutationEndsTheRun) {
  WriteFile(kProject + "/sum.h", "inline int Sum(int a, int b) { return a * b; }\n");
  const CommandResult run = Run("('subtracts', 'a * b', 'a - b')");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("red without any mutation")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("Sum.Adds")) << run.err;
}

TEST_F(Mutate, TableThatDoesNotFitIsRefused) {
  const struct {
    const char* name;
    std::string rows;
    const char* reason;
  } kCases[] = {
      {"old text missing", "('m', 'a * b', 'a - b')", "m: the old text occurs 0 times in sum.h"},
      {"old text twice", "('m', 'int', 'long')", "m: the old text occurs 3 times in sum.h"},
      {"same text", "('m', 'a + b', 'a + b')", "m: changes nothing"},
      {"same name", "('m', 'a + b', '0'), ('m', 'a + b', '1')", "m: the name is taken twice"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const CommandResult run = Run(c.rows, "--check");
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.err.find(c.reason)) << run.err;
  }
  EXPECT_EQ(0, Run("('m', 'a + b', '0')", "--check").status);
}
