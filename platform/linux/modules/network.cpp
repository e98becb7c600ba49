#include "platform/linux/CurlSession.h"
#include "platform/linux/modules/ModuleEntry.h"

KVA_MODULE_ENTRY kva::NetworkSession* kelvara_network(const kva::HostIdentity& host) {
  return new kva::CurlSession(host);
}

namespace kva {
Result<NetworkSessionMaker> loadNetwork() { return kelvara_network; }
}  // namespace kva
