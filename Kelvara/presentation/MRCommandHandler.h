#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/base/URL.h>

namespace kva {

class MRCommandHandler;

/// What a page's commands come to. Main thread.
class MRCommandHandlerDelegate {
 public:
  virtual ~MRCommandHandlerDelegate() = default;
  /// For those who complete a command; the handler itself only starts them.
  virtual void commandHandlerCommandCompleted(MRCommandHandler&, const std::string& command) = 0;
  virtual void commandHandlerCommandFailed(MRCommandHandler&, const std::string& command,
                                           const std::string& error) = 0;
  virtual void commandHandlerOpenURL(MRCommandHandler&, const URL& url) = 0;
  virtual void commandHandlerResize(MRCommandHandler&) = 0;
  virtual void commandHandlerPreloadComplete(MRCommandHandler&) = 0;
  virtual void commandHandlerVideoComplete(MRCommandHandler&) = 0;
  /// Both in seconds.
  virtual void commandHandlerVideoEvent(MRCommandHandler&, double duration,
                                        double currentDuration) = 0;
};

/// Turns a command of the page into one call of the delegate: "open" and "resize" of the MRAID
/// family, "preloadComplete", "videoComplete" and "videoEvent" of the SDK's own. Names match
/// exactly; without a delegate nothing happens. Main thread.
class MRCommandHandler {
 public:
  using Params = std::map<std::string, std::string>;

  void setDelegate(std::weak_ptr<MRCommandHandlerDelegate> delegate);

  /// A command of an mraid URL. The name with a single m is intended.
  void handleComand(const std::string& command, const std::optional<Params>& params);
  /// A command of a kva URL.
  void handleKVAComand(const std::string& command, const std::optional<Params>& params);

 private:
  void open(MRCommandHandlerDelegate& delegate, const std::string& command,
            const std::optional<Params>& params);

  std::weak_ptr<MRCommandHandlerDelegate> delegate_;
};

}  // namespace kva
