#include <utility>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/base/StringExtensions.h>

namespace kva {

KVABidResponse::KVABidResponse(std::string planId, std::string bidId, double price)
    : planId_(std::move(planId)), bidId_(std::move(bidId)), price_(price) {}

bool KVABidResponse::isValid() const { return isValidUUID(planId_) && isValidUUID(bidId_); }

}  // namespace kva
