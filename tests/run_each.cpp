// The main program of the test binaries. A test powers up a card or a whole chassis, which cannot be undone,
// so each test runs in a process of its own, forked from this one.
//
//     PROGRAM [WHICH...]    WHICH: a source file (carousel_test.cpp) or a pattern of test names
//     ('Carousel.*')
//
// Without WHICH all tests run. The program ends at the first failure with the line `FAILED name` or `TIMEOUT
// name` and exit code 1. Exit code 2: no test is of that name. In the environment, for runs with a changed
// source: MUTATE_FIRST="name name ...", tests that come first; MUTATE_LIMIT, the seconds that a test may
// take, 0 for no limit; MUTATE_ALL, to continue after a failure. With --gtest_filter or --gtest_list_tests
// everything happens in this process, as a debugger needs it.
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

std::string environment(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : otherwise;
}

std::string nameOf(const testing::TestInfo* test) {
  return std::string(test->test_suite_name()) + '.' + test->name();
}

// The wait status of the one test.
int statusOf(const std::string& name, unsigned limitSeconds) {
  std::fflush(stdout);  // otherwise the child would print it again
  const pid_t child = fork();
  if (child == 0) {
    alarm(limitSeconds);
    testing::GTEST_FLAG(filter) = name;
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
  std::vector<std::string> names;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    for (int j = 0; j < all.GetTestSuite(i)->total_test_count(); ++j) {
      const testing::TestInfo* test = all.GetTestSuite(i)->GetTestInfo(j);
      const bool named = std::any_of(arguments + 1, arguments + count, [test](const char* which) {
        return std::filesystem::path(test->file()).filename() == which ||
               fnmatch(which, nameOf(test).c_str(), 0) == 0;
      });
      if (count == 1 || named) names.push_back(nameOf(test));
    }
  }
  if (names.empty()) {
    std::printf("No test fits what was asked for. --gtest_list_tests lists them.\n");
    return 2;
  }
  std::istringstream words(environment("MUTATE_FIRST", ""));
  const std::vector<std::string> first(std::istream_iterator<std::string>(words), {});
  std::ranges::stable_sort(names, {},
                           [&](const std::string& name) { return std::ranges::find(first, name); });
  const auto limit = static_cast<unsigned>(std::stoul(environment("MUTATE_LIMIT", "0")));
  bool failed = false;
  for (const std::string& name : names) {
    const int status = statusOf(name, limit);
    if (status == 0) continue;
    const bool late = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
    std::printf("\n%s %s\n", late ? "TIMEOUT" : "FAILED", name.c_str());
    failed = true;
    if (environment("MUTATE_ALL", "").empty()) break;
  }
  return failed ? 1 : 0;
}
