#include <utility>

#include <platform/linux/gtk/WebViewPool.h>
#include <platform/linux/modules/ModuleEntry.h>

KVA_MODULE_ENTRY kva::gtk::WebEngine* kelvara_web(kva::gtk::WebSurroundings surroundings) {
  return new kva::gtk::WebViewPool(std::move(surroundings));
}

namespace kva::gtk {
Result<WebEngineMaker> loadWebEngine() { return kelvara_web; }
}  // namespace kva::gtk
