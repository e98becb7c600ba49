// A page against the SDK: an ad, its page's navigations, and a user.
// Input: "video" or "image", then one event per line: "@show" or another word of Show::happens(),
// or a URL to which the page navigates.

#include <Kelvara/KVABidLoader.h>
#include <fuzz/Device.h>
#include <fuzz/Target.h>
#include <tests/support/AdRecorder.h>

namespace kva::fuzz {
namespace {

constexpr double kArcDuration = 5;

std::string adOf(std::string_view contentType) {
  return R"({"bid": "bid", "tmpl": "template", "fls": [], "crea": {"id": "c", "adt": "rewarded",
      "ctyp": ")" +
         std::string(contentType) + R"(", "adur": 5, "titl": "", "bton": "{}", "deta": "{}"}})";
}

/// One ad, from its load to its dismissal.
class Show {
 public:
  explicit Show(std::string_view contentType) {
    device_.server.reply("/bid/load", headless::envelope(adOf(contentType)));
    process_.emplace(device_);
    ad_ = KVARewarded::create();
    ad_->setDelegate(delegate_);
    ad_->loadAd(std::make_shared<KVABidResponse>("11111111-c36c-495a-93fc-0c247a3e6e5f",
                                                 "22222222-c36c-495a-93fc-0c247a3e6e5f", 1.5),
                1.5);
    device_.time.advance(0.1);
  }

  void happens(std::string_view line) {
    const auto page = device_.application.webView();
    const std::string argument(line.substr(line.find(' ') + 1));
    if (line == "@show") {
      ad_->showAdFrom(window_->viewController());
    } else if (line == "@tap") {
      wasTapped_ |= window_->tap({200, 400});
    } else if (line == "@close") {
      tap("icon.close");
      isClosing_ = true;
    } else if (line == "@skip") {
      tap("icon.skip");
    } else if (line == "@escape") {
      window_->pressEscape();
      isClosing_ = true;
    } else if (line == "@wait") {
      device_.time.advance(1);
    } else if (!page) {
      return;
    } else if (line == "@finish") {
      page->finishNavigation();
    } else if (line == "@fail") {
      page->failNavigation(Error("page", 1, "failed"));
    } else if (line.starts_with("@window ")) {
      page->createWebView(argument);
    } else if (line.starts_with("@dialog ")) {
      expect(!page->dialog({ScriptDialog::Kind::prompt, argument, argument}).confirmed,
             "a dialog is declined");
    } else {
      navigate(*page, line);
    }
    device_.time.run();
    check();
  }

  /// The user closes the ad. This must work whatever the page did.
  void end() {
    device_.time.advance(kArcDuration + 1);
    if (window_->presentedCount() > 0) {
      tap("icon.skip");
      device_.time.advance(1);
      tap("icon.close");
      device_.time.advance(1);
    }
    expect(window_->presentedCount() == 0, "the user can close the ad");
    expect(count("didDismiss") == count("didPresent"), "what was presented is dismissed");
    check();
  }

 private:
  void navigate(headless::HeadlessWebView& page, std::string_view url) {
    const bool isAllowed = page.navigate(std::string(url));
    // A closing ad no longer reads its page's commands.
    expect(isClosing_ || !isAllowed || (!url.starts_with("mraid:") && !url.starts_with("kva:")),
           "a command is no navigation");
  }

  void tap(std::string_view image) {
    if (const auto button = device_.application.button(image)) window_->tap(button->view());
  }

  int count(std::string_view event) const { return delegate_->count(event); }

  void check() const {
    expect(count("didReceive") + count("didFailToReceive") <= 1, "a load has one outcome");
    expect(count("didClick") <= 1, "a click counts once");
    expect(count("didComplete") <= 1, "a reward is earned once");
    expect(count("didDismiss") <= 1, "an ad is dismissed once");
    expect(wasTapped_ || (device_.application.openedURLs().empty() && count("didClick") == 0),
           "nothing opens without a tap");
  }

  Device device_;
  std::shared_ptr<headless::HeadlessWindow> window_ = device_.application.makeWindow();
  std::optional<Process> process_;
  std::shared_ptr<test::AdRecorder> delegate_ = std::make_shared<test::AdRecorder>();
  std::shared_ptr<KVARewarded> ad_;
  bool wasTapped_ = false;
  bool isClosing_ = false;
};

}  // namespace
}  // namespace kva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kva;
  auto rest = fuzz::text(data, size);
  fuzz::Show show(fuzz::cut(rest, "\n") == "video" ? "video" : "image");
  while (!rest.empty()) show.happens(fuzz::cut(rest, "\n"));
  show.end();
  return 0;
}
