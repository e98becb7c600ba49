#pragma once

#include <utility>
#include <version>

#include <Kelvara/Error.h>

// Clang 14 cannot compile libstdc++ 12's std::expected. Its tools use a replacement.
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

/// A value, or the error of the operation that should have produced it.
template <class T>
using Result = expected_impl::expected<T, Error>;

/// Makes a failed `Result`: `return failure(error);`.
inline auto failure(Error error) { return expected_impl::unexpected<Error>(std::move(error)); }

}  // namespace kva
