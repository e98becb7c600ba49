#pragma once

#include <type_traits>
#include <utility>

#include <Kelvara/base/Result.h>

namespace kva::sandbox {

using expected_impl::expected;

/// `return unexpected(error);` from a function that returns an `expected`.
template <class E>
auto unexpected(E&& error) {
  return expected_impl::unexpected<std::decay_t<E>>(std::forward<E>(error));
}

}  // namespace kva::sandbox
