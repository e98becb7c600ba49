#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/base/URL.h>

namespace kva {

class MRCommandHandler;

/// Carries out a page's commands. Main thread.
class MRCommandHandlerDelegate {
 public:
  virtual ~MRCommandHandlerDelegate() = default;
  /// Never called by the handler, which only starts commands.
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

/// Turns each command of the page into one call of the delegate: "open" and "resize" of MRAID,
/// "preloadComplete", "videoComplete" and "videoEvent" of the SDK. Names are case-sensitive.
/// Ignores commands without a delegate. Main thread.
class MRCommandHandler {
 public:
  using Params = std::map<std::string, std::string>;

  void setDelegate(std::weak_ptr<MRCommandHandlerDelegate> delegate);

  /// Handles the command of an mraid URL. The name with a single m is intended.
  void handleComand(const std::string& command, const std::optional<Params>& params);
  /// Handles the command of a kva URL.
  void handleKVAComand(const std::string& command, const std::optional<Params>& params);

 private:
  void open(MRCommandHandlerDelegate& delegate, const std::string& command,
            const std::optional<Params>& params);

  std::weak_ptr<MRCommandHandlerDelegate> delegate_;
};

}  // namespace kva
