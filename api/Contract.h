#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

/// The contract between the SDK and an ad server, from api/openapi.yaml.
namespace kva::contract {

/// One way in which a request or a reply breaks the contract.
struct Breach {
  std::string field;     ///< "data.plans[0].ecpm"; empty for the value as a whole
  std::string problem;   ///< "expected an integer from 0, got \"7\""
  std::string sentence;  ///< the contract's description of the field

  std::string text() const { return (field.empty() ? "body" : field) + ": " + problem; }
};

struct Endpoint {
  std::string path, method;  ///< "/bid/init", "POST"
};

/// The contract, parsed once. Immutable, so any thread may use it.
class Contract {
 public:
  static const Contract& current();
  ~Contract();

  /// The whole OpenAPI document, as JSON.
  const std::string& documentText() const { return documentText_; }
  /// In the document's order.
  const std::vector<Endpoint>& endpoints() const { return endpoints_; }
  const Endpoint* find(std::string_view path) const;

  /// The schema of a request's fields (of a GET, its query), with references resolved.
  const nlohmann::json& requestSchema(std::string_view path) const;
  std::vector<Breach> checkRequest(std::string_view path, const nlohmann::json& fields) const;
  /// Checks the whole envelope.
  std::vector<Breach> checkReply(std::string_view path, const nlohmann::json& envelope) const;

  /// The sentence of an endpoint's rule; with an empty path, of a rule for all endpoints. An
  /// unknown rule is fatal.
  std::string rule(std::string_view path, std::string_view name) const;

 private:
  Contract();
  struct Shape;
  struct Call;
  const Call& call(std::string_view path) const;

  std::string documentText_;
  nlohmann::json document_;
  std::vector<Endpoint> endpoints_;
  std::vector<std::unique_ptr<Call>> calls_;  ///< of the endpoints, in their order
};

}  // namespace kva::contract
