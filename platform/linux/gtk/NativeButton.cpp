#include <platform/linux/gtk/NativeButton.h>

#include <cmath>

namespace kva::gtk {

namespace {

constexpr const char* kStyleClass = "kelvara-control";
constexpr const char* kStyle =
    ".kelvara-control, .kelvara-control:hover, .kelvara-control:active, "
    ".kelvara-control:focus {"
    "  all: unset; }"
    ".kelvara-control:active { opacity: 0.5; }"
    ".kelvara-control:focus-visible {"
    "  border-radius: 8px; outline: 2px solid #fff; outline-offset: -4px;"
    "  box-shadow: inset 0 0 0 2px #0b57d0; }"
    ".kelvara-symbol {"
    "  color: #fff; background: rgba(0, 0, 0, 0.6); border-radius: 999px; font: bold 20px sans; }";

void addStyleOnce(GdkDisplay* display) {
  constexpr const char* kKey = "kelvara-control-style";
  if (g_object_get_data(G_OBJECT(display), kKey)) return;
  auto* provider = gtk_css_provider_new();
  gtk_css_provider_load_from_data(provider, kStyle, -1);
  gtk_style_context_add_provider_for_display(display, GTK_STYLE_PROVIDER(provider),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_set_data_full(G_OBJECT(display), kKey, provider, g_object_unref);
}

int pixels(double length) { return static_cast<int>(std::lround(length)); }

}  // namespace

NativeButton::NativeButton()
    : picture_(sink(gtk_picture_new())),
      symbol_(sink(gtk_label_new(nullptr))),
      button_(gtk_button_new()),
      view_(std::make_shared<NativeView>(Rect{}, button_)) {
  addStyleOnce(gtk_widget_get_display(button_));
  gtk_widget_add_css_class(button_, kStyleClass);
  gtk_widget_add_css_class(symbol_.get(), "kelvara-symbol");
  clicked_ = connect<void()>(button_, "clicked", [this] {
    auto self = shared_from_this();
    if (auto action = action_) action();
  });
  // A key activates the button; "clicked" follows.
  activated_ = connect<void()>(button_, "activate", [this] { view_->reportTouch(); });
  scaled_ = connect<void(GParamSpec*)>(button_, "notify::scale-factor",
                                       [this](GParamSpec*) { showImage(); });
}

bool NativeButton::setImage(Image image, EdgeInsets insets) {
  image_ = std::move(image);
  gtk_label_set_text(GTK_LABEL(symbol_.get()), image_.symbol.c_str());
  for (auto* face : {picture_.get(), symbol_.get()}) {
    gtk_widget_set_margin_top(face, pixels(insets.top));
    gtk_widget_set_margin_bottom(face, pixels(insets.bottom));
    gtk_widget_set_margin_start(face, pixels(insets.left));
    gtk_widget_set_margin_end(face, pixels(insets.right));
  }
  return showImage();
}

bool NativeButton::showImage() {
  const auto once = image_.bundle / (image_.name + ".png");
  const auto twice = image_.bundle / (image_.name + "@2x.png");
  const bool dense = gtk_widget_get_scale_factor(button_) > 1;
  for (const auto& file : {dense ? twice : once, dense ? once : twice}) {
    auto texture = GObjectPtr<GdkTexture>(gdk_texture_new_from_filename(file.c_str(), nullptr));
    if (!texture) continue;
    gtk_picture_set_paintable(GTK_PICTURE(picture_.get()), GDK_PAINTABLE(texture.get()));
    gtk_button_set_child(GTK_BUTTON(button_), picture_.get());
    return true;
  }
  gtk_button_set_child(GTK_BUTTON(button_), symbol_.get());
  return false;
}

void NativeButton::setAccessibleName(const std::string& name) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(button_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                 name.c_str(), -1);
}

}  // namespace kva::gtk
