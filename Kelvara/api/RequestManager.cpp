#include <Kelvara/api/RequestManager.h>

#include <cmath>
#include <utility>

#include <Kelvara/api/Request.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/RequestLogger.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <nlohmann/json.hpp>

namespace kva {
namespace {

template <class T>
std::optional<Response<T>> decodeEnvelope(const std::optional<Bytes>& data) {
  if (!data) return {};
  const auto json = parseJson(asText(*data));
  if (!json) return {};
  auto response = Response<T>::decode(*json);
  if (!response) return {};
  return *std::move(response);
}

constexpr const char* kRegisterPath = "/register";

/// The facts of a call that the handling of its reply depends on.
struct Call {
  RequestMethod method;
  std::string path;
};

template <class T>
void complete(const Call& call, Response<T>& response,
              Completion<Result<std::optional<T>>>& completion) {
  if (response.isSuccess) return completion(std::move(response.data));
  if (!response.error)
    return completion(
        failure(SDKHelper::Error::error(KVAErrorCodes::unknown, "Unknown parse error.")));
  const Error error = response.error->error();
  // A registration has no user id. To log out after it would register in an endless loop.
  if (error.code() == SDKHelper::GenericErrorCodes::userNotFound && call.path != kRegisterPath)
    Runtime::current().get<RequestHooks>().userNotFound();
  completion(failure(error));
}

template <class T>
void handle(const Call& call, const URLSession::Outcome& outcome,
            Completion<Result<std::optional<T>>> completion) {
  auto response = decodeEnvelope<T>(outcome.data);
  if (!response)
    return completion(failure(
        outcome.error ? *outcome.error
                      : SDKHelper::Error::error(KVAErrorCodes::unknown, "Unknown network error.")));
  complete(call, *response, completion);
  if (call.method == RequestMethod::post && response->time > 0) {
    Log::d("Server time: " + std::to_string(response->time));
    Runtime::current().get<RequestHooks>().serverTime(response->time);
  }
}

template <class T>
void send(Request request, Completion<Result<std::optional<T>>> completion) {
  RequestLogger::log(request);
  request.headers["Accept"] = "application/json";
  request.headers["Content-Type"] = "application/json";
  Runtime::current().platform().urlSession->send(
      request.urlRequest(),
      [call = Call{request.method, request.path},
       completion = std::move(completion)](URLSession::Outcome outcome) mutable {
        handle<T>(call, outcome, std::move(completion));
      });
}

/// Sends a request whose reply must carry a payload.
template <class T>
void sendForPayload(Request request, const char* messageWithoutPayload,
                    Completion<Result<T>> completion) {
  send<T>(std::move(request), [messageWithoutPayload, completion = std::move(completion)](
                                  Result<std::optional<T>> result) mutable {
    if (!result) return completion(failure(result.error()));
    if (!*result)
      return completion(
          failure(SDKHelper::Error::error(KVAErrorCodes::unknown, messageWithoutPayload)));
    completion(**std::move(result));
  });
}

/// Sends a request whose reply may have no payload. If there is one, it must be a T.
template <class T>
void sendForSuccess(Request request, Completion<Result<bool>> completion) {
  send<T>(std::move(request),
          [completion = std::move(completion)](Result<std::optional<T>> result) mutable {
            if (!result) return completion(failure(result.error()));
            completion(true);
          });
}

Request post(std::string path, Json body) {
  Request request(std::move(path), RequestMethod::post);
  request.body = std::move(body);
  return request;
}

Request get(std::string path, std::map<std::string, std::optional<std::string>> parameters) {
  // The values come from the host and the server, and `Request` does not encode them.
  for (auto& [key, value] : parameters)
    if (value) value = addingPercentEncoding(*value);
  Request request(std::move(path), RequestMethod::get);
  request.parameters = std::move(parameters);
  return request;
}

/// Thousandths of the price, truncated.
std::int64_t priceInteger(double price) {
  const double thousandths = std::trunc(price * 1000);
  if (!(std::abs(thousandths) < 0x1p63))
    fatal("a price must be finite and fit 64 bits of thousandths");
  return static_cast<std::int64_t>(thousandths);
}

}  // namespace

std::string RequestManager::baseURL() {
  const APIBases& bases = Runtime::current().platform().apiBases;
  return Runtime::current().get<RequestHooks>().isSandbox() ? bases.sandbox : bases.production;
}

void RequestManager::startSDK(std::map<std::string, std::optional<std::string>> parameters,
                              Completion<Result<Application>> completion) {
  sendForPayload(get("/init", std::move(parameters)), "No application.", std::move(completion));
}

void RequestManager::register_(const User& user, Completion<Result<RegisterResponse>> completion) {
  sendForPayload(post(kRegisterPath, user.dictionaryValue()), "Unknown register error.",
                 std::move(completion));
}

void RequestManager::update(const User& user, const std::string& userId,
                            Completion<Result<RegisterResponse>> completion) {
  Json body = user.dictionaryValue();
  body["uid"] = userId;
  sendForPayload(post("/update", std::move(body)), "Unknown update error.", std::move(completion));
}

void RequestManager::loadBid(Json body, Completion<Result<BidLoadResponse>> completion) {
  // Hosts know this message, which names the call by its path.
  sendForPayload(post("/bid/init", std::move(body)), "Unknown init error.", std::move(completion));
}

void RequestManager::sendLost(const std::string& bidId, double clearingPrice,
                              Completion<Result<bool>> completion) {
  const std::int64_t price = priceInteger(clearingPrice);
  Log::d("Send lost with recpm: " + std::to_string(price));
  sendForSuccess<bool>(post("/bid/lost", {{"bid", bidId}, {"lecpm", price}}),
                       std::move(completion));
}

void RequestManager::loadAd(const std::string& appId, const KVABidResponse& bidResponse,
                            double clearingPrice, Completion<Result<Ad>> completion) {
  const std::int64_t price = priceInteger(clearingPrice);
  Log::d("Load ad with recpm: " + std::to_string(price));
  sendForPayload(post("/bid/load", {{"aid", appId},
                                    {"bid", bidResponse.bidId()},
                                    {"plan", bidResponse.planId()},
                                    {"recpm", price}}),
                 "Unknown bid load error.", std::move(completion));
}

void RequestManager::getTemplate(const std::string& appId, const std::string& templateId,
                                 std::optional<std::int64_t> templateVersion,
                                 Completion<Result<Template>> completion) {
  std::optional<std::string> version;
  if (templateVersion) version = std::to_string(*templateVersion);
  sendForPayload(get("/template", {{"aid", appId}, {"tmpl", templateId}, {"tver", version}}),
                 "Unknown template error.", std::move(completion));
}

void RequestManager::uploadReports(Json body, Completion<Result<bool>> completion) {
  sendForSuccess<std::string>(post("/bid/stats", std::move(body)), std::move(completion));
}

void RequestManager::trackCampaign(Json body,
                                   Completion<Result<TrackCampaignResponse>> completion) {
  sendForPayload(post("/track", std::move(body)), "Unknown campaign track error.",
                 std::move(completion));
}

}  // namespace kva
