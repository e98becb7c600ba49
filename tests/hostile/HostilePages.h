#pragma once

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "show/ShowTest.h"

typedef struct _WebKitWebView WebKitWebView;

namespace kva::show {

/// Measures how long the main loop is kept from sources that come after drawing.
class Pulse {
 public:
  Pulse();
  ~Pulse();
  Pulse(const Pulse&) = delete;
  Pulse& operator=(const Pulse&) = delete;
  double longestGap() const;  ///< in seconds, the one under way included

 private:
  gint64 last_, longest_ = 0;
  guint source_;
};

/// Shows the pages of pages/ as ads, one after the other in one process. A page says by
/// `window.acted` that it has done its worst.
class HostilePages : public ShowTest {
 protected:
  enum class Content { image, video };

  void SetUp() override;
  void TearDown() override;

  /// Bids for and loads an ad that is this page, and returns without waiting for what comes of it.
  /// It may be closed after `countdown` seconds.
  std::shared_ptr<KVAInterstital> beginLoading(const std::string& page, int countdown = 0,
                                               Content content = Content::image);
  /// Loads the page, waits until it is ready and shows it.
  void present(const std::string& page, int countdown = 0, Content content = Content::image);
  bool hasActed(int seconds = 20);
  /// Waits until the close control can be pressed, presses it once, and waits for what the host
  /// hears of it. With KELVARA_SCREENSHOTS set, saves what is on the screen there first.
  void close();
  /// What the host heard since the last call, and nothing since.
  std::vector<std::string> heardOfThis();
  /// Waits for the reports of all ads that were closed: each was seen and dismissed, none clicked.
  void expectUneventfulReports();

  unsigned windows();
  /// The newest page that is not the warm one; null when there is none.
  WebKitWebView* page();
  std::string address();
  /// In the page's own world, as JSON; "no answer" of a page that is busy.
  std::string evaluate(const std::string& script, int seconds = 10);
  bool comesTrue(const std::string& condition, int seconds = 20);
  void killPageProcesses();

  std::set<std::string> closed;  ///< bids
  std::optional<Pulse> pulse;

 private:
  std::string filled(const std::string& page) const;

  std::shared_ptr<KVAInterstital> presented_;
  std::string lastPage_;
  std::size_t heardBefore_ = 0;
  test::LoopbackSocket silent_, refused_;
};

}  // namespace kva::show
