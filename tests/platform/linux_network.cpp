// The network, the modem and the sensor, in a network namespace and on a message bus of the test's
// own: what the machine that runs the test has or lacks does not matter.
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <Kelvara/core/Guarded.h>
#include <platform/linux/CurlSession.h>
#include <platform/linux/LinuxDevice.h>
#include <platform/linux/ModemTelephony.h>
#include <platform/linux/NetworkReachability.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

constexpr auto kReachable = static_cast<std::uint32_t>(ReachabilityFlag::reachable);
constexpr auto kWWAN = static_cast<std::uint32_t>(ReachabilityFlag::isWWAN);

bool ip(const std::string& arguments) {
  return std::system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
}

/// For tests that only make sense in a network namespace with nothing but its loopback: true there.
/// Elsewhere it runs the test that calls it again, in a process of its own in such a namespace.
bool isInNamespaceOfItsOwn() {
  if (std::getenv("KELVARA_TEST_NAMESPACE")) return true;
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) _exit(77);
    setenv("KELVARA_TEST_NAMESPACE", "1", 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    execl("/proc/self/exe", "platform_tests", "--gtest_brief=1", filter.c_str(), nullptr);
    _exit(78);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    [] { GTEST_SKIP() << "network namespaces are refused here"; }();
  } else {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "it failed in the namespace";
  }
  return false;
}

/// A link with a default route behind it.
struct Link {
  bool make() {
    return ip("link set lo up") && ip("link add kva0 type veth peer name kva1") &&
           ip("addr add 192.0.2.2/24 dev kva0") && ip("link set kva1 up");
  }
  bool up() { return ip("link set kva0 up") && ip("route add default via 192.0.2.1 dev kva0"); }
  bool down() { return ip("link set kva0 down"); }
};

TEST(LinuxReachability, FollowsALink) {
  if (!isInNamespaceOfItsOwn()) return;
  Link link;
  ASSERT_TRUE(link.make());
  SystemBus bus;
  NetworkReachability service(ReachabilityPolicy::followSystem, bus);
  auto internet = service.createWithAddress(0);
  auto queue = service.makeSerialQueue("queue");
  Guarded<std::vector<std::uint32_t>> heard;
  internet->setCallback(
      [&](std::uint32_t flags) { heard.with([&](auto& all) { all.push_back(flags); }); });
  internet->setDispatchQueue(queue);
  const auto becomes = [&](std::uint32_t flags) {
    return spinMainLoopUntil([&] { return internet->flags() == flags; });
  };

  EXPECT_EQ(internet->flags(), 0u);
  ASSERT_TRUE(link.up());
  EXPECT_TRUE(becomes(kReachable));
  ASSERT_TRUE(link.down());
  EXPECT_TRUE(becomes(0));
  queue->sync([] {});
  const std::vector<std::uint32_t> changes{kReachable, 0};
  EXPECT_EQ(heard.get(), changes) << "one call for each change";

  internet->setCallback(nullptr);
  ASSERT_TRUE(link.up());
  EXPECT_TRUE(becomes(kReachable));
  queue->sync([] {});
  EXPECT_EQ(heard.get(), changes) << "silenced";
  ASSERT_TRUE(link.down());
  EXPECT_TRUE(becomes(0));

  EXPECT_TRUE(*service.createWithName("localhost")->flags() & kReachable);
  EXPECT_TRUE(*service.createWithAddress(htonl(INADDR_LOOPBACK))->flags() & kReachable);
  EXPECT_EQ(service.createWithName("host.example")->flags(), 0u);
  EXPECT_FALSE(service.createWithName(""));
  EXPECT_EQ(service.lastError(), EINVAL);
}

TEST(LinuxReachability, AMachineWithoutNetworkSaysSoInItsErrors) {
  if (!isInNamespaceOfItsOwn()) return;
  CurlSession session;
  const auto codeOf = [&](const char* url) {
    Guarded<std::optional<std::int64_t>> code;
    session.send({.url = *URL::parse(url), .headers = {}, .body = {}},
                 [&](auto outcome) { code.set(outcome.error ? outcome.error->code() : 0); });
    EXPECT_TRUE(spinMainLoopUntil([&] { return code.get().has_value(); }));
    return code.get();
  };
  EXPECT_EQ(codeOf("http://192.0.2.77/"), 1009) << "no route";
  EXPECT_EQ(codeOf("http://[2001:db8::1]/"), 1009) << "no route";
  EXPECT_EQ(codeOf("http://host.example/"), 1009) << "nobody to ask for the name";
  ASSERT_TRUE(ip("link set lo up"));
  EXPECT_EQ(codeOf("http://127.0.0.1:9/"), 1004) << "this machine is there";
}

TEST(LinuxReachability, ASilentNameServerHoldsUpNobodyElse) {
  if (!isInNamespaceOfItsOwn()) return;
  TemporaryFolder folder;
  const auto servers = folder.path / "resolv.conf";
  std::ofstream(servers) << "nameserver 127.0.0.1\n";
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount(servers.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
    GTEST_SKIP() << "the list of name servers cannot be replaced";
  ASSERT_TRUE(ip("link set lo up"));
  const int silent = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(53);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(silent, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

  LoopbackServer server;
  CurlSession session;
  Guarded<std::vector<std::string>> order;
  const auto send = [&](const std::string& what, URL url, double timeout) {
    session.send({.url = std::move(url), .headers = {}, .body = {}, .timeout = timeout},
                 [&order, what](auto outcome) {
                   const auto code = outcome.error ? std::to_string(outcome.error->code()) : "ok";
                   order.with([&](auto& all) { all.push_back(what + " " + code); });
                 });
  };
  const auto begun = std::chrono::steady_clock::now();
  const URL unknown = *URL::parse("http://host.example/");
  send("short", unknown, 0.3);
  send("long", unknown, 60);
  send("other", server.url("/ok"), 60);
  EXPECT_TRUE(spinMainLoopUntil([&] { return order.get().size() == 2; }));
  session.invalidate();
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
  EXPECT_EQ(order.get(), (std::vector<std::string>{"other ok", "short 1001", "long 999"}));
  EXPECT_LT(taken.count(), 4) << "the name server's silence lasts longer";
  close(silent);
}

TEST(LinuxReachability, AssumesItWhereTheHostSaysSo) {
  SystemBus bus;
  NetworkReachability service(ReachabilityPolicy::assumeReachable, bus);
  EXPECT_EQ(service.createWithAddress(0)->flags(), kReachable);
}

/// A message bus with services on it that say what a test tells them to.
class TestBus {
 public:
  TestBus() {
    const auto command =
        "exec dbus-daemon --session --nofork --nopidfile --address=unix:path=" + socket() +
        " 2>/dev/null";
    daemon_ = fork();
    if (daemon_ == 0) {
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    for (int i = 0; i < 1000 && !connection_; ++i) {
      connection_ = connect();
      if (!connection_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) before_ = address;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
  }
  ~TestBus() {
    before_ ? setenv("DBUS_SYSTEM_BUS_ADDRESS", before_->c_str(), 1)
            : unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    connection_.reset();
    kill(daemon_, SIGTERM);
    waitpid(daemon_, nullptr, 0);
  }
  TestBus(const TestBus&) = delete;
  TestBus& operator=(const TestBus&) = delete;

  bool isUp() const { return connection_ != nullptr; }
  GObjectPtr<GDBusConnection> connect() const {
    return GObjectPtr<GDBusConnection>(g_dbus_connection_new_for_address_sync(
        address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
  }

 private:
  std::string socket() const { return (folder_.path / "bus").native(); }
  std::string address() const { return "unix:path=" + socket(); }

  TemporaryFolder folder_;
  pid_t daemon_ = -1;
  GObjectPtr<GDBusConnection> connection_;
  std::optional<std::string> before_;
};

/// A service with objects that have properties, on a connection of its own; gone with this value.
class TestService {
 public:
  using Properties = std::map<std::string, GVariant*>;

  TestService(const TestBus& bus, const char* name) : connection_(bus.connect()), name_(name) {}

  /// `xml` describes one interface.
  void add(const char* path, const char* xml, Properties properties) {
    auto object = std::make_unique<Object>();
    object->owner = this;
    object->path = path;
    object->node = g_dbus_node_info_new_for_xml(xml, nullptr);
    object->interface = object->node->interfaces[0]->name;
    for (auto& [name, value] : properties)
      object->properties[name].reset(g_variant_ref_sink(value));
    static const GDBusInterfaceVTable table{called, property, nullptr, {}};
    g_dbus_connection_register_object(connection_.get(), path, object->node->interfaces[0], &table,
                                      object.get(), nullptr, nullptr);
    objects_.push_back(std::move(object));
  }
  /// Once its objects are there.
  void begin() {
    const GVariantPtr reply(g_dbus_connection_call_sync(
        connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", name_, 0), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, nullptr));
    EXPECT_TRUE(reply);
  }
  void set(std::size_t object, const char* name, GVariant* value) {
    Object& target = *objects_[object];
    target.properties[name].reset(g_variant_ref_sink(value));
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", name, value);
    g_dbus_connection_emit_signal(connection_.get(), nullptr, target.path,
                                  "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                  g_variant_new("(sa{sv}as)", target.interface, &changed, nullptr),
                                  nullptr);
  }
  int calls(const std::string& method) const {
    return calls_.contains(method) ? calls_.at(method) : 0;
  }

 private:
  struct Object {
    ~Object() { g_dbus_node_info_unref(node); }
    TestService* owner = nullptr;
    const char* path = nullptr;
    const char* interface = nullptr;
    GDBusNodeInfo* node = nullptr;
    std::map<std::string, GVariantPtr> properties;
  };

  static GVariant* property(GDBusConnection*, const char*, const char*, const char*,
                            const char* name, GError**, gpointer data) {
    auto& all = static_cast<Object*>(data)->properties;
    return all.contains(name) ? g_variant_ref(all.at(name).get()) : g_variant_new_string("");
  }
  static void called(GDBusConnection*, const char*, const char*, const char*, const char* method,
                     GVariant*, GDBusMethodInvocation* invocation, gpointer data) {
    auto& owner = *static_cast<Object*>(data)->owner;
    ++owner.calls_[method];
    const bool lists = std::string_view(method) == "GetManagedObjects";
    g_dbus_method_invocation_return_value(invocation,
                                          lists ? owner.managedObjects() : g_variant_new("()"));
  }
  GVariant* managedObjects() const {
    GVariantBuilder all;
    g_variant_builder_init(&all, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    std::map<std::string, std::vector<const Object*>> byPath;
    for (const auto& object : objects_)
      if (!object->properties.empty()) byPath[object->path].push_back(object.get());
    for (const auto& [path, interfaces] : byPath) {
      g_variant_builder_open(&all, G_VARIANT_TYPE("{oa{sa{sv}}}"));
      g_variant_builder_add(&all, "o", path.c_str());
      g_variant_builder_open(&all, G_VARIANT_TYPE("a{sa{sv}}"));
      for (const Object* one : interfaces) {
        g_variant_builder_open(&all, G_VARIANT_TYPE("{sa{sv}}"));
        g_variant_builder_add(&all, "s", one->interface);
        g_variant_builder_open(&all, G_VARIANT_TYPE("a{sv}"));
        for (const auto& [name, value] : one->properties)
          g_variant_builder_add(&all, "{sv}", name.c_str(), value.get());
        g_variant_builder_close(&all);
        g_variant_builder_close(&all);
      }
      g_variant_builder_close(&all);
      g_variant_builder_close(&all);
    }
    return g_variant_new("(a{oa{sa{sv}}})", &all);
  }

  GObjectPtr<GDBusConnection> connection_;
  const char* name_;
  std::vector<std::unique_ptr<Object>> objects_;
  std::map<std::string, int> calls_;
};

struct LinuxServices : testing::Test {
  void SetUp() override {
    if (!bus.isUp()) GTEST_SKIP() << "no dbus-daemon to make a message bus with";
  }
  TestBus bus;
};

TEST_F(LinuxServices, TheSensorDecidesOnTheOrientationAndTheWindowWithoutIt) {
  constexpr const char* kSensor =
      "<node><interface name='net.hadess.SensorProxy'><method name='ClaimAccelerometer'/>"
      "<property name='AccelerometerOrientation' type='s' access='read'/></interface></node>";
  auto center = std::make_shared<NotificationCenter>();
  int changes = 0;
  const auto observation =
      center->addObserver(kOrientationDidChangeNotification, nullptr, [&] { ++changes; });
  SystemBus system;
  LinuxDevice device(center, system);
  const auto becomes = [&](DeviceOrientation wanted) {
    return spinMainLoopUntil([&] { return device.orientation() == wanted; });
  };
  EXPECT_EQ(device.orientation(), DeviceOrientation::unknown);
  device.setWindowOrientation(DeviceOrientation::landscapeLeft);
  device.setWindowOrientation(DeviceOrientation::landscapeLeft);
  EXPECT_EQ(device.orientation(), DeviceOrientation::landscapeLeft);
  EXPECT_EQ(changes, 1);

  std::optional<TestService> sensor;
  for (int life = 0; life < 2; ++life) {
    sensor.emplace(bus, "net.hadess.SensorProxy");
    sensor->add("/net/hadess/SensorProxy", kSensor,
                {{"AccelerometerOrientation", g_variant_new_string("normal")}});
    sensor->begin();
    EXPECT_TRUE(becomes(DeviceOrientation::portrait));
    EXPECT_TRUE(spinMainLoopUntil([&] { return sensor->calls("ClaimAccelerometer") == 1; }));
    for (const auto& [edge, orientation] : {std::pair{"left-up", DeviceOrientation::landscapeRight},
                                            {"bottom-up", DeviceOrientation::portraitUpsideDown},
                                            {"right-up", DeviceOrientation::landscapeLeft},
                                            {"normal", DeviceOrientation::portrait},
                                            {"undefined", DeviceOrientation::landscapeLeft}}) {
      sensor->set(0, "AccelerometerOrientation", g_variant_new_string(edge));
      EXPECT_TRUE(becomes(orientation)) << edge;
    }
    sensor->set(0, "AccelerometerOrientation", g_variant_new_string("normal"));
    EXPECT_TRUE(becomes(DeviceOrientation::portrait));
    sensor.reset();
    EXPECT_TRUE(becomes(DeviceOrientation::landscapeLeft)) << "the service went away";
  }
  EXPECT_EQ(changes, 1 + 2 * 8);
}

TEST_F(LinuxServices, TelephonyIsTheFirstRegisteredModems) {
  constexpr const char* kManager =
      "<node><interface name='org.freedesktop.DBus.ObjectManager'>"
      "<method name='GetManagedObjects'><arg type='a{oa{sa{sv}}}' direction='out'/></method>"
      "</interface></node>";
  constexpr const char* kModem =
      "<node><interface name='org.freedesktop.ModemManager1.Modem'>"
      "<property name='State' type='i' access='read'/>"
      "<property name='AccessTechnologies' type='u' access='read'/></interface></node>";
  constexpr const char* kNetwork =
      "<node><interface name='org.freedesktop.ModemManager1.Modem.Modem3gpp'>"
      "<property name='OperatorName' type='s' access='read'/></interface></node>";
  constexpr const char* kPath = "/org/freedesktop/ModemManager1/Modem/0";
  using Technology = Telephony::RadioAccessTechnology;
  SystemBus system;
  ModemTelephony telephony(system);
  EXPECT_FALSE(telephony.currentRadioAccessTechnology());
  EXPECT_FALSE(telephony.carrierName());

  std::optional<TestService> service(std::in_place, bus, "org.freedesktop.ModemManager1");
  service->add("/org/freedesktop/ModemManager1", kManager, {});
  service->add(
      kPath, kModem,
      {{"State", g_variant_new_int32(6)}, {"AccessTechnologies", g_variant_new_uint32(0)}});
  service->add(kPath, kNetwork, {{"OperatorName", g_variant_new_string("Example Mobile")}});
  service->begin();
  EXPECT_TRUE(spinMainLoopUntil([&] { return service->calls("GetManagedObjects") > 0; }));
  service->set(1, "State", g_variant_new_int32(11));
  EXPECT_TRUE(spinMainLoopUntil([&] { return telephony.carrierName().has_value(); }));
  EXPECT_EQ(telephony.carrierName(), "Example Mobile");
  EXPECT_FALSE(telephony.currentRadioAccessTechnology());
  for (const auto& [bits, technology] : {std::pair{1u << 14 | 1u << 5, Technology::lte},
                                         {1u << 15, Technology::other},
                                         {1u << 9 | 1u << 6, Technology::hsupa},
                                         {1u << 5, Technology::wcdma},
                                         {1u << 10, Technology::cdma1x},
                                         {1u << 4 | 1u << 3, Technology::edge},
                                         {1u << 1, Technology::gprs}}) {
    service->set(1, "AccessTechnologies", g_variant_new_uint32(bits));
    EXPECT_TRUE(spinMainLoopUntil([&] {
      return telephony.currentRadioAccessTechnology() == technology;
    })) << bits;
  }
  service.reset();
  EXPECT_TRUE(spinMainLoopUntil([&] { return !telephony.carrierName(); }));
  EXPECT_FALSE(telephony.currentRadioAccessTechnology());
}

TEST_F(LinuxServices, ReachableOverAModemIsWWAN) {
  if (!g_network_monitor_get_network_available(g_network_monitor_get_default()))
    GTEST_SKIP() << "this machine has no network";
  TestService manager(bus, "org.freedesktop.NetworkManager");
  manager.add("/org/freedesktop/NetworkManager",
              "<node><interface name='org.freedesktop.NetworkManager'>"
              "<property name='PrimaryConnectionType' type='s' access='read'/></interface></node>",
              {{"PrimaryConnectionType", g_variant_new_string("gsm")}});
  manager.begin();
  SystemBus system;
  NetworkReachability service(ReachabilityPolicy::followSystem, system);
  auto internet = service.createWithAddress(0);
  const auto becomes = [&](std::uint32_t flags) {
    return spinMainLoopUntil([&] { return internet->flags() == flags; });
  };
  EXPECT_TRUE(becomes(kReachable | kWWAN));
  manager.set(0, "PrimaryConnectionType", g_variant_new_string("802-11-wireless"));
  EXPECT_TRUE(becomes(kReachable));
}

}  // namespace
}  // namespace kva::test
