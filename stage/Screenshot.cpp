#include <stage/Screenshot.h>

#include <platform/linux/gtk/GObject.h>

namespace kva::stage {

using gtk::PendingCall;

void drawFrame(GtkWindow* window) {
  bool drawn = false, waited = false;
  auto painted = connect<void()>(gtk_widget_get_frame_clock(GTK_WIDGET(window)), "after-paint",
                                 [&] { drawn = true; });
  auto limit = PendingCall::after(1000, [&] { waited = true; });
  gtk_widget_queue_draw(GTK_WIDGET(window));
  while (!drawn && !waited) g_main_context_iteration(nullptr, TRUE);
}

namespace {

/// The content of `window`, or of the part in `viewport` if given, after one more frame.
GObjectPtr<GdkTexture> render(GtkWindow* window, const graphene_rect_t* viewport) {
  auto* widget = GTK_WIDGET(window);
  if (!gtk_widget_get_mapped(widget)) return {};
  drawFrame(window);

  auto paintable = GObjectPtr<GdkPaintable>(gtk_widget_paintable_new(widget));
  auto* snapshot = gtk_snapshot_new();
  gdk_paintable_snapshot(paintable.get(), snapshot, gtk_widget_get_width(widget),
                         gtk_widget_get_height(widget));
  auto* node = gtk_snapshot_free_to_node(snapshot);
  if (!node) return {};
  auto texture = GObjectPtr<GdkTexture>(
      gsk_renderer_render_texture(gtk_native_get_renderer(GTK_NATIVE(window)), node, viewport));
  gsk_render_node_unref(node);
  return texture;
}

}  // namespace

bool saveScreenshot(GtkWindow* window, const std::filesystem::path& file) {
  const auto texture = render(window, nullptr);
  return texture && gdk_texture_save_to_png(texture.get(), file.c_str());
}

std::uint32_t colourInTheMiddle(GtkWindow* window) {
  auto* widget = GTK_WIDGET(window);
  const graphene_rect_t middle{{static_cast<float>(gtk_widget_get_width(widget) / 2),
                                static_cast<float>(gtk_widget_get_height(widget) / 2)},
                               {1, 1}};
  std::uint32_t colour = 0;
  if (const auto pixel = render(window, &middle))
    gdk_texture_download(pixel.get(), reinterpret_cast<guchar*>(&colour), sizeof colour);
  return colour;
}

}  // namespace kva::stage
