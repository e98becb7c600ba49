#include <stage/Screenshot.h>

#include <platform/linux/gtk/GObject.h>

namespace kva::stage {

using gtk::connect;
using gtk::PendingCall;

void drawFrame(GtkWindow* window) {
  bool drawn = false, waited = false;
  auto painted = connect<void()>(gtk_widget_get_frame_clock(GTK_WIDGET(window)), "after-paint",
                                 [&] { drawn = true; });
  auto limit = PendingCall::after(1000, [&] { waited = true; });
  gtk_widget_queue_draw(GTK_WIDGET(window));
  while (!drawn && !waited) g_main_context_iteration(nullptr, TRUE);
}

bool saveScreenshot(GtkWindow* window, const std::filesystem::path& file) {
  auto* widget = GTK_WIDGET(window);
  if (!gtk_widget_get_mapped(widget)) return false;
  drawFrame(window);

  auto paintable = GObjectPtr<GdkPaintable>(gtk_widget_paintable_new(widget));
  auto* snapshot = gtk_snapshot_new();
  gdk_paintable_snapshot(paintable.get(), snapshot, gtk_widget_get_width(widget),
                         gtk_widget_get_height(widget));
  auto* node = gtk_snapshot_free_to_node(snapshot);
  if (!node) return false;
  auto texture = GObjectPtr<GdkTexture>(
      gsk_renderer_render_texture(gtk_native_get_renderer(GTK_NATIVE(window)), node, nullptr));
  gsk_render_node_unref(node);
  return gdk_texture_save_to_png(texture.get(), file.c_str());
}

}  // namespace kva::stage
