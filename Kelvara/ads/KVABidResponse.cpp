#include <atomic>
#include <utility>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/base/StringExtensions.h>

namespace kva {

struct KVABidResponse::State {
  const std::string planId, bidId;
  std::atomic<double> price;
};

KVABidResponse::KVABidResponse(std::string planId, std::string bidId, double price)
    : state_(new State{std::move(planId), std::move(bidId), price}) {}

KVABidResponse::~KVABidResponse() = default;

double KVABidResponse::price() const { return state_->price; }

void KVABidResponse::setPrice(double price) { state_->price = price; }

const std::string& KVABidResponse::planId() const { return state_->planId; }

const std::string& KVABidResponse::bidId() const { return state_->bidId; }

bool KVABidResponse::isValid() const {
  return isValidUUID(state_->planId) && isValidUUID(state_->bidId);
}

}  // namespace kva
