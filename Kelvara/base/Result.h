#pragma once

#include <utility>
#include <version>

#include <Kelvara/Error.h>

// Clang 14 does not see libstdc++ 12's std::expected; for its tools alone there is a stand-in.
#if defined(__cpp_lib_expected)
#include <expected>
#else
#include <tl/expected.hpp>
#endif

namespace kva {

#if defined(__cpp_lib_expected)
namespace expected_impl = std;
#else
namespace expected_impl = tl;
#endif

/// A value, or the error that kept it from being made.
template <class T>
using Result = expected_impl::expected<T, Error>;

/// `return failure(error);` from a function that returns a `Result`.
inline auto failure(Error error) { return expected_impl::unexpected<Error>(std::move(error)); }

}  // namespace kva
