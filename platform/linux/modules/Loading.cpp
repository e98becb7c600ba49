// libkelvara.so loads libcurl and WebKit when they are first needed. A module contains the code
// that uses one of them, and stands in a folder beside the library that is named after its version.
#include <dlfcn.h>
#include <gmodule.h>

#include <platform/linux/HostFacts.h>
#include <platform/linux/NetworkSession.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva {
namespace {

std::filesystem::path fileOf(const std::string& module) {
  return libraryFile().parent_path() / ("kelvara-" KELVARA_VERSION) / (module + ".so");
}

/// The module's `function`. The module stays loaded until the process ends.
// GModule opens it first: while the system links a module's libraries, it holds its own lock, and
// one of WebKit's (libsoup) takes GModule's lock. GTK takes them in the opposite order when it
// loads a module of its own on another thread, and each thread would wait for the other for ever.
template <class Function>
Result<Function> load(const std::string& module, const char* function) {
  const auto file = fileOf(module);
  if (auto* opened = g_module_open(file.c_str(), G_MODULE_BIND_LOCAL))
    g_module_make_resident(opened);
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
