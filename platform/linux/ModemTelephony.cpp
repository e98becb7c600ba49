#include "platform/linux/ModemTelephony.h"

#include <utility>
#include <vector>

#include <Kelvara/base/Guarded.h>

namespace kva {
namespace {

using Technology = Telephony::RadioAccessTechnology;

struct Service {
  std::optional<Technology> technology;
  std::optional<std::string> carrier;
};

/// The best technology among the bits of ModemManager's AccessTechnologies.
std::optional<Technology> technologyOf(std::uint32_t bits) {
  constexpr std::pair<std::uint32_t, Technology> kinds[] = {
      {1u << 15, Technology::other},                      // 5G
      {1u << 14 | 1u << 16 | 1u << 17, Technology::lte},  // LTE, LTE-M, NB-IoT
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

constexpr const char* kService = "org.freedesktop.ModemManager1";
constexpr const char* kRoot = "/org/freedesktop/ModemManager1";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";

/// The service of a modem, from its interfaces and their properties; nothing if the modem is not
/// registered with a network.
std::optional<Service> serviceOf(GVariant* modem) {
  constexpr gint32 kRegistered = 8;
  const auto lookUp = [](GVariant* from, const char* key, const GVariantType* type) {
    return GVariantPtr(from ? g_variant_lookup_value(from, key, type) : nullptr);
  };
  const auto general = lookUp(modem, "org.freedesktop.ModemManager1.Modem", G_VARIANT_TYPE_VARDICT);
  const auto network =
      lookUp(modem, "org.freedesktop.ModemManager1.Modem.Modem3gpp", G_VARIANT_TYPE_VARDICT);
  const auto state = lookUp(general.get(), "State", G_VARIANT_TYPE_INT32);
  if (!state || g_variant_get_int32(state.get()) < kRegistered) return std::nullopt;
  Service service;
  if (const auto bits = lookUp(general.get(), "AccessTechnologies", G_VARIANT_TYPE_UINT32))
    service.technology = technologyOf(g_variant_get_uint32(bits.get()));
  if (const auto name = lookUp(network.get(), "OperatorName", G_VARIANT_TYPE_STRING))
    service.carrier = g_variant_get_string(name.get(), nullptr);
  if (service.carrier == "") service.carrier.reset();
  return service;
}

/// The service of the first registered modem among ModemManager's objects.
Service serviceAmong(GVariant* objects) {
  GVariantIter each;
  g_variant_iter_init(&each, objects);
  while (const auto entry = GVariantPtr(g_variant_iter_next_value(&each))) {
    const GVariantPtr interfaces(g_variant_get_child_value(entry.get(), 1));
    if (const auto service = serviceOf(interfaces.get())) return *service;
  }
  return {};
}

}  // namespace

/// Reads all objects after each change. GLib's GDBusObjectManager can miss a change while it
/// starts, and blocks the main thread when a service appears.
struct ModemTelephony::State : std::enable_shared_from_this<State> {
  Guarded<Service> service;
  GObjectPtr<GDBusConnection> connection;
  std::vector<guint> subscriptions;
  bool asking = false, askAgain = false;

  ~State() {
    for (const guint id : subscriptions) g_dbus_connection_signal_unsubscribe(connection.get(), id);
  }

  void follow(GDBusConnection* bus) {
    connection.reset(G_DBUS_CONNECTION(g_object_ref(bus)));
    subscribe("org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", kService);
    subscribe(kService, kObjectManager, nullptr, nullptr);
    subscribe(kService, "org.freedesktop.DBus.Properties", "PropertiesChanged", nullptr);
    ask();
  }

  void subscribe(const char* sender, const char* interface, const char* member,
                 const char* argument) {
    subscriptions.push_back(g_dbus_connection_signal_subscribe(
        connection.get(), sender, interface, member, nullptr, argument, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
           gpointer self) { static_cast<State*>(self)->ask(); },
        this, nullptr));
  }

  void ask() {
    if (std::exchange(asking, true)) {
      askAgain = true;
      return;
    }
    g_dbus_connection_call(
        connection.get(), kService, kRoot, kObjectManager, "GetManagedObjects", nullptr,
        G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, runAsync,
        asyncData([weak = weak_from_this()](GObject* source, GAsyncResult* result) {
          const GVariantPtr reply(
              g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr));
          if (const auto state = weak.lock()) state->answered(reply.get());
        }));
  }

  /// `reply` is null if ModemManager does not run.
  void answered(GVariant* reply) {
    const GVariantPtr objects(reply ? g_variant_get_child_value(reply, 0) : nullptr);
    service.set(objects ? serviceAmong(objects.get()) : Service{});
    asking = false;
    if (std::exchange(askAgain, false)) ask();
  }
};

ModemTelephony::ModemTelephony(SystemBus& bus) : state_(std::make_shared<State>()) {
  bus.whenConnected([weak = std::weak_ptr(state_)](GDBusConnection* connection) {
    if (const auto state = weak.lock()) state->follow(connection);
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
