#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <Kelvara/Export.h>

namespace kva {

/// An error as a value. Errors of the SDK have the domain "Kelvara" and a code of `KVAErrorCodes`
/// or of the ad server. Transport errors have the domain "KVAURLErrorDomain" and a code of their
/// own, for example 1009 for no internet connection.
class KVA_EXPORT Error {
 public:
  Error(std::string domain, std::int64_t code, std::string localizedDescription)
      : domain_(std::move(domain)),
        code_(code),
        localizedDescription_(std::move(localizedDescription)) {}

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  /// A short English sentence for developers; never translated.
  const std::string& localizedDescription() const { return localizedDescription_; }
  /// What to do about the error: English sentences for developers. Empty if the description says
  /// it. Valid for the life of the process. docs/errors.md lists them all.
  std::string_view hint() const;

  bool operator==(const Error&) const = default;

 private:
  std::string domain_;
  std::int64_t code_;
  std::string localizedDescription_;
};

}  // namespace kva
