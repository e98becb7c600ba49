#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/base/Guarded.h>
#include <platform/contract/Subjects.h>

namespace kva::test {

/// The base of a port's contract. The calls of the port leave notes, on any thread.
template <class Subject>
struct Contract : testing::Test {
  void note(const std::string& what) {
    notes.with([&](auto& all) { all.push_back(what); });
  }
  bool waitForNotes(std::size_t count) {
    return subject.spinUntil([&] { return notes.get().size() >= count; });
  }
  Guarded<std::vector<std::string>> notes;
  Subject subject;
};

}  // namespace kva::test
