#pragma once

#include <cstdint>

namespace kva::sandbox {

/// The periods that "/init" announces, in hundredths of a second.
struct Periods {
  std::int64_t betweenUploads = 200;   ///< of reports
  std::int64_t restAfterNoFill = 500;  ///< below zero: none
};

}  // namespace kva::sandbox
