#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

namespace kva::test {

/// Runs the ip command. A failure fails the test.
inline void ip(const std::string& arguments) {
  EXPECT_EQ(std::system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
}

/// Makes a link with a default route, without IPv6.
inline void makeLink() {
  std::ofstream("/proc/sys/net/ipv6/conf/all/disable_ipv6") << "1";
  for (const char* step : {"link set lo up", "link add outside type veth peer name inside",
                           "link set inside up", "address add 192.0.2.2/24 dev outside",
                           "link set outside up", "route add default via 192.0.2.1"})
    ip(step);
}

/// True in a process with a network that has only its loopback, and with mounts of its own.
/// Elsewhere, runs the calling test again in such a process, and returns false.
inline bool isInNamespaceOfItsOwn() {
  if (std::getenv("KELVARA_TEST_NAMESPACE")) return true;
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  const pid_t child = fork();
  if (child == 0) {
    constexpr int kOwn = CLONE_NEWNET | CLONE_NEWNS;
    if ((unshare(kOwn) != 0 && unshare(CLONE_NEWUSER | kOwn) != 0) ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      _exit(77);
    setenv("KELVARA_TEST_NAMESPACE", "1", 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    execl("/proc/self/exe", "tests", "--gtest_brief=1", filter.c_str(), nullptr);
    _exit(78);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    [] { GTEST_SKIP() << "namespaces are refused here"; }();
  } else {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "it failed in the namespace";
  }
  return false;
}

}  // namespace kva::test
