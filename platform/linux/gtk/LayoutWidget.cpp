#include <platform/linux/gtk/LayoutWidget.h>

namespace {

using kva::gtk::LayoutClient;

struct KvaLayoutWidget {
  GtkWidget parent;
  LayoutClient* client;
};
struct KvaLayoutWidgetClass {
  GtkWidgetClass parent;
};
G_DEFINE_FINAL_TYPE(KvaLayoutWidget, kva_layout_widget, GTK_TYPE_WIDGET)

LayoutClient* clientOf(gpointer widget) { return static_cast<KvaLayoutWidget*>(widget)->client; }

void measure(GtkWidget*, GtkOrientation, int, int* minimum, int* natural, int* minimumBaseline,
             int* naturalBaseline) {
  *minimum = *natural = 0;
  *minimumBaseline = *naturalBaseline = -1;
}

void sizeAllocate(GtkWidget* widget, int width, int height, int) {
  for (auto* child = gtk_widget_get_first_child(widget); child;
       child = gtk_widget_get_next_sibling(child)) {
    int minimum = 0;
    gtk_widget_measure(child, GTK_ORIENTATION_HORIZONTAL, -1, &minimum, nullptr, nullptr, nullptr);
    gtk_widget_measure(child, GTK_ORIENTATION_VERTICAL, -1, &minimum, nullptr, nullptr, nullptr);
  }
  if (auto* client = clientOf(widget))
    client->allocate({static_cast<double>(width), static_cast<double>(height)});
}

void snapshot(GtkWidget* widget, GtkSnapshot* snapshot) {
  if (auto* client = clientOf(widget)) client->snapshot(snapshot);
}

gboolean contains(GtkWidget* widget, double x, double y) {
  auto* client = clientOf(widget);
  return client && client->takesPresses() &&
         GTK_WIDGET_CLASS(kva_layout_widget_parent_class)->contains(widget, x, y);
}

gboolean focus(GtkWidget* widget, GtkDirectionType direction) {
  auto* client = clientOf(widget);
  if (client && client->keepsFocus()) return TRUE;
  return GTK_WIDGET_CLASS(kva_layout_widget_parent_class)->focus(widget, direction);
}

void kva_layout_widget_init(KvaLayoutWidget*) {}
void kva_layout_widget_class_init(KvaLayoutWidgetClass* klass) {
  auto* widgets = GTK_WIDGET_CLASS(klass);
  widgets->measure = measure;
  widgets->size_allocate = sizeAllocate;
  widgets->snapshot = snapshot;
  widgets->contains = contains;
  widgets->focus = focus;
}

struct KvaWindowLayout {
  GtkLayoutManager parent;
  std::function<void(int, int)>* placed;
};
struct KvaWindowLayoutClass {
  GtkLayoutManagerClass parent;
};
G_DEFINE_FINAL_TYPE(KvaWindowLayout, kva_window_layout, GTK_TYPE_LAYOUT_MANAGER)

GtkSizeRequestMode windowRequestMode(GtkLayoutManager*, GtkWidget* window) {
  return GTK_WIDGET_GET_CLASS(window)->get_request_mode(window);
}

void windowMeasure(GtkLayoutManager*, GtkWidget* window, GtkOrientation orientation, int forSize,
                   int* minimum, int* natural, int* minimumBaseline, int* naturalBaseline) {
  GTK_WIDGET_GET_CLASS(window)->measure(window, orientation, forSize, minimum, natural,
                                        minimumBaseline, naturalBaseline);
}

void windowAllocate(GtkLayoutManager* self, GtkWidget* window, int width, int height,
                    int baseline) {
  GTK_WIDGET_GET_CLASS(window)->size_allocate(window, width, height, baseline);
  (*reinterpret_cast<KvaWindowLayout*>(self)->placed)(width, height);
}

void windowLayoutFinalize(GObject* object) {
  delete reinterpret_cast<KvaWindowLayout*>(object)->placed;
  G_OBJECT_CLASS(kva_window_layout_parent_class)->finalize(object);
}

void kva_window_layout_init(KvaWindowLayout*) {}
void kva_window_layout_class_init(KvaWindowLayoutClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = windowLayoutFinalize;
  auto* layouts = GTK_LAYOUT_MANAGER_CLASS(klass);
  layouts->get_request_mode = windowRequestMode;
  layouts->measure = windowMeasure;
  layouts->allocate = windowAllocate;
}

}  // namespace

namespace kva::gtk {

GtkWidget* layoutWidgetNew(LayoutClient* client) {
  auto* widget = static_cast<KvaLayoutWidget*>(g_object_new(kva_layout_widget_get_type(), nullptr));
  widget->client = client;
  return GTK_WIDGET(widget);
}

void layoutWidgetDropClient(GtkWidget* widget) {
  reinterpret_cast<KvaLayoutWidget*>(widget)->client = nullptr;
}

GtkLayoutManager* windowLayoutNew(std::function<void(int, int)> placed) {
  auto* layout = static_cast<KvaWindowLayout*>(g_object_new(kva_window_layout_get_type(), nullptr));
  layout->placed = new std::function<void(int, int)>(std::move(placed));
  return GTK_LAYOUT_MANAGER(layout);
}

}  // namespace kva::gtk
