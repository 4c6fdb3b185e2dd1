// The main program of the test binaries. A test powers up a card or a whole chassis, which cannot be undone,
// so each test runs in a process of its own, forked from this one.
//
//     PROGRAM [WHICH...]    WHICH: a source file (carousel_test.cpp) or a pattern of test names
//     ('Carousel.*')
//
// Without WHICH all tests run. The program ends at the first failure with the line `FAILED name` or `TIMEOUT
// name` and exit code 1. Exit code 2: no test is of that name. In the environment, for runs with a changed
// source: MUTATE_FIRST="name name ...", tests that come first; MUTATE_ONLY="pattern ...", those that run at
// all; MUTATE_WITHOUT, those that do not; MUTATE_LIMIT, the seconds that a test may take, 0 for no limit;
// MUTATE_ALL, to continue after a failure. With --gtest_filter or --gtest_list_tests everything happens in
// this process, as a debugger needs it.
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

struct Test {
  std::string name, file;
};

std::string environment(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : otherwise;
}

Words wordsOf(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// Where the first pattern that fits the test stands; the end when none does.
Words::const_iterator match(const Words& patterns, const Test& test) {
  return std::find_if(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
    return pattern == test.file || fnmatch(pattern.c_str(), test.name.c_str(), 0) == 0;
  });
}

std::vector<Test> allTests() {
  std::vector<Test> tests;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const testing::TestInfo& test = *suite.GetTestInfo(j);
      tests.push_back(
          {std::string(suite.name()) + '.' + test.name(), std::filesystem::path(test.file()).filename()});
    }
  }
  return tests;
}

// The wait status of the one test.
int statusOf(const Test& test, unsigned limitSeconds) {
  std::fflush(stdout);  // otherwise the child would print it again
  const pid_t child = fork();
  if (child == 0) {
    alarm(limitSeconds);
    testing::GTEST_FLAG(filter) = test.name;
    std::exit(RUN_ALL_TESTS());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  if (testing::GTEST_FLAG(list_tests) || testing::GTEST_FLAG(filter) != "*") return RUN_ALL_TESTS();
  const Words which(arguments + 1, arguments + count);
  const Words first = wordsOf(environment("MUTATE_FIRST", "")),
              only = wordsOf(environment("MUTATE_ONLY", "*"));
  const Words without = wordsOf(environment("MUTATE_WITHOUT", ""));
  const auto limit = static_cast<unsigned>(std::stoul(environment("MUTATE_LIMIT", "0")));

  std::vector<Test> tests = allTests();
  std::erase_if(tests, [&](const Test& test) {
    const bool named = which.empty() || match(which, test) != which.end();
    return !named || match(only, test) == only.end() || match(without, test) != without.end();
  });
  if (tests.empty()) {
    std::printf("No test fits what was asked for. --gtest_list_tests lists them.\n");
    return 2;
  }
  std::stable_sort(tests.begin(), tests.end(),
                   [&](const Test& a, const Test& b) { return match(first, a) < match(first, b); });
  bool failed = false;
  for (const Test& test : tests) {
    const int status = statusOf(test, limit);
    if (status == 0) continue;
    const bool late = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
    std::printf("\n%s %s\n", late ? "TIMEOUT" : "FAILED", test.name.c_str());
    failed = true;
    if (environment("MUTATE_ALL", "").empty()) break;
  }
  return failed ? 1 : 0;
}
