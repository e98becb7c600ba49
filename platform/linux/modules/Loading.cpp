// libkelvara.so loads libcurl and WebKit when they are first needed. A module contains the code
// that uses one of them, and stands in a folder beside the library that is named after its version.
#include <dlfcn.h>

#include <platform/linux/HostFacts.h>
#include <platform/linux/NetworkSession.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva {
namespace {

/// The module's `function`. The module stays loaded until the process ends.
template <class Function>
Result<Function> load(const std::string& module, const char* function) {
  const auto file = libraryFile().parent_path() / ("kelvara-" KELVARA_VERSION) / (module + ".so");
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library)
    if (void* found = dlvsym(library, function, "KELVARA_" KELVARA_VERSION))
      return reinterpret_cast<Function>(found);
  std::string reason = dlerror();
  if (const auto name = file.native() + ": "; reason.starts_with(name))
    reason.erase(0, name.size());
  return failure(Error(kURLErrorDomain, static_cast<std::int64_t>(URLError::unknown),
                       "Could not load " + file.native() + ": " + reason));
}

}  // namespace

Result<NetworkSessionMaker> loadNetwork() {
  return load<NetworkSessionMaker>("network", "kelvara_network");
}

namespace gtk {
Result<WebEngineMaker> loadWebEngine() { return load<WebEngineMaker>("web", "kelvara_web"); }
}  // namespace gtk

}  // namespace kva
