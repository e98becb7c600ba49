#include "platform/linux/SystemBus.h"

#include <utility>

namespace kva {

SystemBus::SystemBus() {
  const GStringPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  if (!address) return;
  constexpr auto flags =
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  g_dbus_connection_new_for_address(
      address.get(), flags, nullptr, nullptr, runAsync,
      asyncData([waiting = waiting_](GObject*, GAsyncResult* result) {
        const GObjectPtr<GDBusConnection> connection(
            g_dbus_connection_new_for_address_finish(result, nullptr));
        if (!connection) return;
        for (auto& use : *waiting) use(connection.get());
      }));
}

void SystemBus::whenConnected(std::function<void(GDBusConnection*)> use) {
  waiting_->push_back(std::move(use));
}

struct BusObject::State {
  std::function<void()> changed;
  GObjectPtr<GDBusProxy> proxy;
  SignalConnection ownerChanged, propertiesChanged;

  void follow(GObjectPtr<GDBusProxy> made) {
    proxy = std::move(made);
    ownerChanged = connect<void(GParamSpec*)>(proxy.get(), "notify::g-name-owner",
                                              [this](GParamSpec*) { changed(); });
    propertiesChanged = connect<void(GVariant*, char**)>(proxy.get(), "g-properties-changed",
                                                         [this](GVariant*, char**) { changed(); });
    changed();
  }
};

BusObject::BusObject(SystemBus& bus, Target target, std::function<void()> changed)
    : state_(std::make_shared<State>()) {
  state_->changed = std::move(changed);
  bus.whenConnected([weak = std::weak_ptr(state_), target](GDBusConnection* connection) {
    g_dbus_proxy_new(connection, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START, nullptr, target.service,
                     target.path, target.interface, nullptr, runAsync,
                     asyncData([weak](GObject*, GAsyncResult* result) {
                       GObjectPtr<GDBusProxy> proxy(g_dbus_proxy_new_finish(result, nullptr));
                       const auto state = weak.lock();
                       if (state && proxy) state->follow(std::move(proxy));
                     }));
  });
}

bool BusObject::isPresent() const {
  if (!state_->proxy) return false;
  return GStringPtr(g_dbus_proxy_get_name_owner(state_->proxy.get())) != nullptr;
}

GVariantPtr BusObject::property(const char* name, const GVariantType* type) const {
  if (!isPresent()) return nullptr;
  GVariantPtr value(g_dbus_proxy_get_cached_property(state_->proxy.get(), name));
  return value && g_variant_is_of_type(value.get(), type) ? std::move(value) : nullptr;
}

std::optional<std::string> BusObject::text(const char* name) const {
  const auto value = property(name, G_VARIANT_TYPE_STRING);
  if (!value) return std::nullopt;
  return g_variant_get_string(value.get(), nullptr);
}

std::optional<std::uint32_t> BusObject::number(const char* name) const {
  const auto value = property(name, G_VARIANT_TYPE_UINT32);
  if (!value) return std::nullopt;
  return g_variant_get_uint32(value.get());
}

void BusObject::call(const char* method) {
  if (!state_->proxy) return;
  g_dbus_proxy_call(state_->proxy.get(), method, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                    nullptr, nullptr, nullptr);
}

}  // namespace kva
