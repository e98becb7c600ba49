#pragma once

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>

namespace kva::test {

inline bool ip(const std::string& arguments) {
  return std::system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
}

/// True in a network namespace that has only its loopback. Elsewhere, runs the calling test again
/// in a new process in such a namespace, and returns false.
inline bool isInNamespaceOfItsOwn() {
  if (std::getenv("KELVARA_TEST_NAMESPACE")) return true;
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) _exit(77);
    setenv("KELVARA_TEST_NAMESPACE", "1", 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    execl("/proc/self/exe", "platform_tests", "--gtest_brief=1", filter.c_str(), nullptr);
    _exit(78);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    [] { GTEST_SKIP() << "network namespaces are refused here"; }();
  } else {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "it failed in the namespace";
  }
  return false;
}

}  // namespace kva::test
