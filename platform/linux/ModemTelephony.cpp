#include "platform/linux/ModemTelephony.h"

#include <utility>

#include <Kelvara/core/Guarded.h>

namespace kva {
namespace {

using Technology = Telephony::RadioAccessTechnology;

struct Service {
  std::optional<Technology> technology;
  std::optional<std::string> carrier;
};

/// The bits of ModemManager's AccessTechnologies, the best first; a modem may report several.
std::optional<Technology> technologyOf(std::uint32_t bits) {
  constexpr std::pair<std::uint32_t, Technology> kinds[] = {
      {1u << 15, Technology::other},                      // 5G
      {1u << 14 | 1u << 16 | 1u << 17, Technology::lte},  // LTE, its forms for machines
      {1u << 13, Technology::cdmaEVDORevB},               //
      {1u << 7 | 1u << 8 | 1u << 9, Technology::hsupa},   // HSUPA, HSPA, HSPA+
      {1u << 6, Technology::hsdpa},                       //
      {1u << 5, Technology::wcdma},                       // UMTS
      {1u << 12, Technology::cdmaEVDORevA},               //
      {1u << 11, Technology::cdmaEVDORev0},               //
      {1u << 10, Technology::cdma1x},                     //
      {1u << 4, Technology::edge},                        //
      {1u << 1 | 1u << 2 | 1u << 3, Technology::gprs},    // GSM and GPRS
  };
  for (const auto& [mask, technology] : kinds)
    if (bits & mask) return technology;
  return std::nullopt;
}

GVariantPtr property(GDBusObject* object, const char* interface, const char* name) {
  const GObjectPtr<GDBusInterface> found(g_dbus_object_get_interface(object, interface));
  if (!found) return nullptr;
  return GVariantPtr(g_dbus_proxy_get_cached_property(G_DBUS_PROXY(found.get()), name));
}

/// The service that this modem gives; nothing when it is not registered with a network.
std::optional<Service> serviceOf(GDBusObject* modem) {
  constexpr const char* kModem = "org.freedesktop.ModemManager1.Modem";
  constexpr const char* kNetwork = "org.freedesktop.ModemManager1.Modem.Modem3gpp";
  constexpr gint32 kRegistered = 8;
  const auto state = property(modem, kModem, "State");
  if (!state || !g_variant_is_of_type(state.get(), G_VARIANT_TYPE_INT32) ||
      g_variant_get_int32(state.get()) < kRegistered)
    return std::nullopt;
  Service service;
  const auto technologies = property(modem, kModem, "AccessTechnologies");
  if (technologies && g_variant_is_of_type(technologies.get(), G_VARIANT_TYPE_UINT32))
    service.technology = technologyOf(g_variant_get_uint32(technologies.get()));
  const auto carrier = property(modem, kNetwork, "OperatorName");
  if (carrier && g_variant_is_of_type(carrier.get(), G_VARIANT_TYPE_STRING))
    if (std::string name = g_variant_get_string(carrier.get(), nullptr); !name.empty())
      service.carrier = std::move(name);
  return service;
}

}  // namespace

struct ModemTelephony::State {
  Guarded<Service> service;
  GObjectPtr<GDBusObjectManager> modems;
  std::vector<SignalConnection> signals;

  void follow(GObjectPtr<GDBusObjectManager> made) {
    modems = std::move(made);
    for (const char* signal : {"object-added", "object-removed"})
      signals.emplace_back(modems.get(), signal,
                           G_CALLBACK(+[](GDBusObjectManager*, GDBusObject*, gpointer self) {
                             static_cast<State*>(self)->update();
                           }),
                           this);
    for (const char* signal : {"interface-added", "interface-removed"})
      signals.emplace_back(modems.get(), signal,
                           G_CALLBACK(+[](GDBusObjectManager*, GDBusObject*, GDBusInterface*,
                                          gpointer self) { static_cast<State*>(self)->update(); }),
                           this);
    signals.emplace_back(
        modems.get(), "interface-proxy-properties-changed",
        G_CALLBACK(+[](GDBusObjectManagerClient*, GDBusObjectProxy*, GDBusProxy*, GVariant*, char**,
                       gpointer self) { static_cast<State*>(self)->update(); }),
        this);
    update();
  }

  void update() {
    std::optional<Service> found;
    GList* all = g_dbus_object_manager_get_objects(modems.get());
    for (GList* one = all; one && !found; one = one->next)
      found = serviceOf(G_DBUS_OBJECT(one->data));
    g_list_free_full(all, g_object_unref);
    service.set(found.value_or(Service{}));
  }
};

ModemTelephony::ModemTelephony(SystemBus& bus) : state_(std::make_shared<State>()) {
  bus.whenConnected([weak = std::weak_ptr(state_)](GDBusConnection* connection) {
    g_dbus_object_manager_client_new(
        connection, G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_DO_NOT_AUTO_START,
        "org.freedesktop.ModemManager1", "/org/freedesktop/ModemManager1", nullptr, nullptr,
        nullptr, nullptr, runAsync, asyncData([weak](GObject*, GAsyncResult* result) {
          GObjectPtr<GDBusObjectManager> modems(
              g_dbus_object_manager_client_new_finish(result, nullptr));
          const auto state = weak.lock();
          if (state && modems) state->follow(std::move(modems));
        }));
  });
}

ModemTelephony::~ModemTelephony() = default;

std::optional<Technology> ModemTelephony::currentRadioAccessTechnology() const {
  return state_->service.get().technology;
}

std::optional<std::string> ModemTelephony::carrierName() const {
  return state_->service.get().carrier;
}

}  // namespace kva
