// The network in namespaces that the test makes, and system services on a message bus that the test
// starts. The machine's own network and services do not matter.
#include <map>
#include <set>

#include <platform/linux/ModemTelephony.h>
#include <platform/linux/RouteMonitor.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

using namespace std::chrono_literals;
using LinuxNetwork = SessionTest;
using std::chrono::steady_clock;

TEST_F(LinuxNetwork, WithoutNetworkOnlyLoopbackIsReachable) {
  if (!isInNamespaceOfItsOwn()) return;
  for (const char* unreachable :
       {"http://192.0.2.77/", "http://[2001:db8::1]/", "http://host.example/"})
    EXPECT_EQ(errorOf(get(*URL::parse(unreachable))), URLError::notConnectedToInternet)
        << unreachable;
  ip("link set lo up");
  EXPECT_EQ(errorOf(get(refusingUrl())), URLError::cannotConnectToHost);

  constexpr auto kReachable = static_cast<std::uint32_t>(ReachabilityFlag::reachable);
  SystemBus bus;
  NetworkReachability service(ReachabilityPolicy::followSystem, bus, [] {});
  EXPECT_TRUE(*service.createWithName("localhost")->flags() & kReachable);
  EXPECT_TRUE(*service.createWithAddress(htonl(INADDR_LOOPBACK))->flags() & kReachable);
  EXPECT_EQ(service.createWithAddress(0)->flags(), 0U);
}

/// What a child process inherits besides its standard streams. The child lists it itself, when its
/// libraries are loaded and their files closed.
std::multiset<std::string> descriptorsOfAChild() {
  std::multiset<std::string> targets;
  FILE* child = popen("readlink /proc/$$/fd/[3-9] /proc/$$/fd/??*", "re");
  char* line = nullptr;
  for (std::size_t size = 0; getline(&line, &size, child) != -1;) targets.insert(line);
  std::free(line);
  pclose(child);
  return targets;
}

TEST_F(LinuxNetwork, ASilentNameServerBlocksNoOtherRequestAndAChildInheritsNothing) {
  if (!isInNamespaceOfItsOwn()) return;
  TemporaryFolder folder;
  const auto servers = folder.path / "resolv.conf";
  std::ofstream(servers) << "nameserver 127.0.0.1\n";
  if (mount(servers.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
    GTEST_SKIP() << "the list of name servers cannot be replaced";
  ip("link set lo up");
  const LoopbackSocket silent(SOCK_DGRAM, 53);
  std::optional<LoopbackServer> server(std::in_place);
  const auto inheritedBefore = descriptorsOfAChild();
  const auto platform = launchPlatform(folder);
  platform.ports.userDefaults->set("key", "value");
  const auto begun = steady_clock::now();
  const URL unknown = *URL::parse("http://host.example/");
  auto brief = send(session, get(unknown, 0.3)), patient = send(session, get(unknown));
  EXPECT_EQ(textOf(get(server->url("/ok"))), "ok");
  EXPECT_EQ(brief.wait_for(0s), std::future_status::timeout) << "it came before the other answer";
  EXPECT_EQ(errorOf(std::move(brief)), URLError::timedOut);
  server.reset();  // closes the server's descriptors, which a child inherits
  EXPECT_EQ(descriptorsOfAChild(), inheritedBefore);
  session.invalidate();
  EXPECT_EQ(errorOf(std::move(patient)), URLError::cancelled);
  EXPECT_LT(steady_clock::now() - begun, 4s) << "it waited for the name server";
}

TEST_F(LinuxNetwork, TrustsTheSystemsCertificatesAloneAndRefusesARedirectFromHttpsToHttp) {
  if (!isInNamespaceOfItsOwn()) return;
  ip("link set lo up");
  TemporaryFolder folder;
  const auto certificate = folder.path / "cert.pem", key = folder.path / "key.pem";
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
      " -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
      key.native() + " -out " + certificate.native() + " 2>/dev/null";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "no openssl command to make a certificate";

  Guarded<std::string> bodies;
  const auto note = [&](const auto& request, auto& answer) {
    bodies.with([&](auto& all) { all += request.body + " "; });
    answer.set_content("ok", "text/plain");
  };
  LoopbackServer plain([&](httplib::Server& s) { s.Post("/target", note); });
  httplib::SSLServer encrypted(certificate.c_str(), key.c_str());
  const auto origin =
      "https://127.0.0.1:" + std::to_string(encrypted.bind_to_any_port("127.0.0.1"));
  encrypted.Post("/target", note);
  encrypted.Post("/stays", [&](const auto&, auto& answer) { answer.set_redirect("/target", 307); });
  encrypted.Post("/leaves", [&](const auto&, auto& answer) {
    answer.set_redirect(plain.base() + "/target", 307);
  });
  LoopbackServer first([&](httplib::Server& s) {
    s.Post(".*", [&](const auto& request, auto& answer) {
      answer.set_redirect(origin + request.path, 308);
    });
  });
  std::jthread listening([&] { encrypted.listen_after_bind(); });

  const auto secretTo = [](const std::string& address) {
    return post(*URL::parse(address), "secret");
  };
  for (const auto& from : {origin, first.base()})
    EXPECT_EQ(errorOf(secretTo(from + "/target")), URLError::serverCertificateUntrusted) << from;
  EXPECT_EQ(errorOf(secretTo("https" + plain.base().substr(4))), URLError::secureConnectionFailed);
  EXPECT_EQ(bodies.get(), "");
  const bool canTrust = mount(certificate.c_str(), "/etc/ssl/certs/ca-certificates.crt", nullptr,
                              MS_BIND, nullptr) == 0;
  if (canTrust) {
    LazySession trusting({}, nullptr);
    EXPECT_EQ(textOf(trusting, secretTo(origin + "/stays")), "ok");
    for (const auto& from : {origin, first.base()})
      EXPECT_EQ(errorOf(send(trusting, secretTo(from + "/leaves"))), URLError::unsupportedURL)
          << from;
    EXPECT_EQ(bodies.get(), "secret ");
  }
  encrypted.stop();
  if (!canTrust) GTEST_SKIP() << "the list of certificates cannot be replaced";
}

TEST_F(LinuxNetwork, ANewAddressOpensNewConnectionsAndADeadPeerEndsARequest) {
  if (!isInNamespaceOfItsOwn()) return;
  makeLink();
  Guarded<std::set<int>> ports;
  LoopbackServer server([&](httplib::Server& s) {
    s.set_logger([&](const auto& request, const auto&) {
      ports.with([&](auto& all) { all.insert(request.remote_port); });
    });
    s.set_keep_alive_max_count(1'000'000'000);
  });
  TemporaryFolder folder;
  const auto platform = launchPlatform(folder);
  URLSession& real = *platform.ports.urlSession;
  const auto isAnswered = [&] { return textOf(real, get(server.url("/ok"))) == "ok"; };
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(isAnswered());
  EXPECT_EQ(ports.get().size(), 1U);
  ip("address del 192.0.2.2/24 dev outside");
  ip("address add 192.0.2.3/24 dev outside");
  ip("route add default via 192.0.2.1");
  EXPECT_TRUE(spinUntil([&] {
    EXPECT_TRUE(isAnswered());
    return ports.get().size() == 2;
  })) << "the keep-alive connection is still used";

  // The peer stops acknowledging, without any message.
  const auto begun = steady_clock::now();
  auto lost = send(real, get(server.url("/never")));
  std::this_thread::sleep_for(200ms);
  ip("link set lo down");
  EXPECT_EQ(errorOf(std::move(lost)), URLError::networkConnectionLost);
  const auto taken = steady_clock::now() - begun;
  EXPECT_TRUE(5s < taken && taken < 12s) << taken / 1ms;
}

/// A service on the bus with one object of one interface, which is in D-Bus's XML and has one
/// method. Values are in GVariant's text format. The service exits when this value is destroyed.
/// Main thread.
class TestService {
 public:
  TestService(const char* bus, const char* name, const char* path, const std::string& interface)
      : name_(name),
        path_(path),
        node_(g_dbus_node_info_new_for_xml(("<node>" + interface + "</node>").c_str(), nullptr)),
        connection_(g_dbus_connection_new_for_address_sync(
            bus,
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr)) {
    // Without property functions, GLib passes GetAll to the method's function too.
    static const GDBusInterfaceVTable functions{
        .method_call = called, .get_property = nullptr, .set_property = nullptr, .padding = {}};
    g_dbus_connection_register_object(connection_.get(), path_, interface_, &functions, this,
                                      nullptr, nullptr);
  }
  ~TestService() { g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr); }

  /// Sets the reply to GetAll or to the method.
  void answer(const std::string& method, const std::string& body) { replies_[method] = body; }
  /// Takes the service's name. Set the replies first.
  void begin() {
    g_bus_own_name_on_connection(connection_.get(), name_, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                 nullptr, nullptr, nullptr);
  }
  /// Emits PropertiesChanged for the interface.
  void change(const std::string& properties) {
    const auto body = std::string("('") + interface_->name + "', " + properties + ", @as [])";
    g_dbus_connection_emit_signal(connection_.get(), nullptr, path_,
                                  "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                  g_variant_new_parsed(body.c_str()), nullptr);
  }
  /// Counts the calls of the interface's method.
  int calls() const { return calls_; }

 private:
  static void called(GDBusConnection*, const char*, const char*, const char*, const char* method,
                     GVariant*, GDBusMethodInvocation* invocation, gpointer data) {
    auto& self = *static_cast<TestService*>(data);
    self.calls_ += method == std::string_view(self.interface_->methods[0]->name);
    const auto& body = self.replies_[method];
    g_dbus_method_invocation_return_value(
        invocation, body.empty() ? nullptr : g_variant_new_parsed(body.c_str()));
  }

  const char *name_, *path_;
  std::unique_ptr<GDBusNodeInfo, Release<g_dbus_node_info_unref>> node_;
  GDBusInterfaceInfo* interface_ = node_->interfaces[0];
  GObjectPtr<GDBusConnection> connection_;
  std::map<std::string, std::string> replies_;
  int calls_ = 0;
};

/// Starts a message bus that the SDK uses as the system's.
struct LinuxServices : testing::Test {
  void SetUp() override {
    if (!GStringPtr(g_find_program_in_path("dbus-daemon")))
      GTEST_SKIP() << "no dbus-daemon to make a message bus with";
    g_test_dbus_up(daemon.get());
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus(), 1);
  }
  void TearDown() override {
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (bus()) g_test_dbus_stop(daemon.get());
  }
  const char* bus() const { return g_test_dbus_get_bus_address(daemon.get()); }
  GObjectPtr<GTestDBus> daemon{g_test_dbus_new(G_TEST_DBUS_NONE)};
};

TEST_F(LinuxServices, OrientationFollowsTheSensorOrElseTheWindow) {
  using enum DeviceOrientation;
  const auto runSensor = [this](std::optional<TestService>& sensor) {
    sensor.emplace(
        bus(), "net.hadess.SensorProxy", "/net/hadess/SensorProxy",
        "<interface name='net.hadess.SensorProxy'><method name='ClaimAccelerometer'/>"
        "<property name='AccelerometerOrientation' type='s' access='read'/></interface>");
    sensor->answer("GetAll", "({'AccelerometerOrientation': <'normal'>},)");
    sensor->begin();
  };
  auto center = std::make_shared<NotificationCenter>();
  SystemBus system;
  LinuxDevice desktop(center, system, "/nonexistent");
  desktop.setWindowOrientation(landscapeRight);
  int changes = 0;
  const auto observation =
      center->addObserver(kOrientationDidChangeNotification, nullptr, [&] { ++changes; });
  TemporaryFolder displays;
  const auto connect = [&](const char* connector, const char* modes) {
    std::filesystem::create_directory(displays.path / connector);
    std::ofstream(displays.path / connector / "modes") << modes;
  };
  connect("card0-HDMI-A-1", "1920x1080\n");
  connect("card0-DSI-1", "720x1440\n");
  LinuxDevice device(center, system, displays.path);
  const auto becomes = [](const LinuxDevice& one, DeviceOrientation wanted) {
    return spinUntil([&] { return one.orientation() == wanted; });
  };
  EXPECT_EQ(device.orientation(), unknown);
  device.setWindowOrientation(landscapeLeft);
  device.setWindowOrientation(landscapeLeft);
  EXPECT_EQ(device.orientation(), landscapeLeft);
  EXPECT_EQ(changes, 0) << "the first known orientation is not a change";

  std::optional<TestService> sensor;
  for (int life = 0; life < 2; ++life) {
    runSensor(sensor);
    EXPECT_TRUE(becomes(device, portrait));
    EXPECT_TRUE(spinUntil([&] { return sensor->calls() == 2; }));
    for (const auto& [edge, orientation] : {std::pair{"left-up", landscapeRight},
                                            {"bottom-up", portraitUpsideDown},
                                            {"right-up", landscapeLeft},
                                            {"normal", portrait},
                                            {"undefined", landscapeLeft},
                                            {"normal", portrait}}) {
      sensor->change(std::string("{'AccelerometerOrientation': <'") + edge + "'>}");
      EXPECT_TRUE(becomes(device, orientation)) << edge;
    }
    sensor.reset();
    EXPECT_TRUE(becomes(device, landscapeLeft)) << "the service exited";
  }
  EXPECT_EQ(changes, 2 * 8);

  runSensor(sensor);
  EXPECT_TRUE(becomes(device, portrait));
  connect("card0-DSI-1", "1280x800\n800x600\n");
  SystemBus laptopsBus;
  const LinuxDevice laptop(center, laptopsBus, displays.path);
  EXPECT_TRUE(becomes(laptop, landscapeLeft)) << "the panel is wider than high";
  sensor->change("{'AccelerometerOrientation': <'left-up'>}");
  EXPECT_TRUE(becomes(laptop, portrait));
  EXPECT_EQ(desktop.orientation(), landscapeRight) << "it has no panel";
}

TEST_F(LinuxServices, TelephonyReportsTheFirstRegisteredModem) {
  using Technology = Telephony::RadioAccessTechnology;
  SystemBus system;
  ModemTelephony telephony(system);
  std::optional<TestService> service(
      std::in_place, bus(), "org.freedesktop.ModemManager1", "/org/freedesktop/ModemManager1",
      "<interface name='org.freedesktop.DBus.ObjectManager'><method name='GetManagedObjects'>"
      "<arg direction='out' type='a{oa{sa{sv}}}'/></method></interface>");
  const auto modem = [](const char* number, int state, const std::string& carrier,
                        std::uint32_t bits) {
    return "objectpath '/org/freedesktop/ModemManager1/Modem/" + std::string(number) +
           "': {'org.freedesktop.ModemManager1.Modem': {'State': <int32 " + std::to_string(state) +
           ">, 'AccessTechnologies': <uint32 " + std::to_string(bits) +
           ">}, 'org.freedesktop.ModemManager1.Modem.Modem3gpp': {'OperatorName': <'" + carrier +
           "'>}}";
  };
  const auto set = [&](int state, std::uint32_t bits) {
    service->answer("GetManagedObjects", "({" + modem("0", 6, "Not Registered", 1U << 1) + ", " +
                                             modem("1", state, "Example Mobile", bits) + "},)");
    service->change("@a{sv} {}");
  };
  set(7, 0);
  service->begin();
  EXPECT_TRUE(spinUntil([&] { return service->calls() > 0; }));
  EXPECT_FALSE(telephony.carrierName());
  set(8, 0);
  EXPECT_TRUE(spinUntil([&] { return telephony.carrierName() == "Example Mobile"; }));
  EXPECT_FALSE(telephony.currentRadioAccessTechnology());
  for (const auto& [bits, technology] : {std::pair{1U << 14 | 1U << 5, Technology::lte},
                                         {1U << 15, Technology::other},
                                         {1U << 9 | 1U << 6, Technology::hsupa},
                                         {1U << 5, Technology::wcdma},
                                         {1U << 10, Technology::cdma1x},
                                         {1U << 4 | 1U << 3, Technology::edge},
                                         {1U << 1, Technology::gprs}}) {
    set(11, bits);
    EXPECT_TRUE(spinUntil([&, expected = technology] {
      return telephony.currentRadioAccessTechnology() == expected;
    })) << bits;
  }
  service.reset();
  EXPECT_TRUE(spinUntil([&] { return !telephony.carrierName(); }));
  EXPECT_FALSE(telephony.currentRadioAccessTechnology());
}

TEST_F(LinuxServices, NetworkManagerReportsModemsAndPortals) {
  if (routesToInternet().empty()) GTEST_SKIP() << "this machine has no network";
  constexpr auto kWWAN = static_cast<std::uint32_t>(ReachabilityFlag::isWWAN);
  TestService manager(bus(), "org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                      "<interface name='org.freedesktop.NetworkManager'><method name='Reload'/>"
                      "<property name='Connectivity' type='u' access='read'/></interface>");
  manager.answer("GetAll", "({'PrimaryConnectionType': <'gsm'>},)");
  manager.begin();
  SystemBus system;
  NetworkReachability service(ReachabilityPolicy::followSystem, system, [] {});
  auto internet = service.createWithAddress(0);
  EXPECT_TRUE(spinUntil([&] { return *internet->flags() & kWWAN; }));
  manager.change("{'PrimaryConnectionType': <'802-11-wireless'>}");
  EXPECT_TRUE(spinUntil([&] { return !(*internet->flags() & kWWAN); }));
  constexpr auto kPortal = static_cast<std::uint32_t>(ReachabilityFlag::interventionRequired);
  manager.change("{'Connectivity': <uint32 2>}");
  EXPECT_TRUE(spinUntil([&] { return *internet->flags() & kPortal; }));
}

}  // namespace
}  // namespace kva::test
