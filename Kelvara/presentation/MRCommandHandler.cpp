#include <Kelvara/presentation/MRCommandHandler.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

#include <Kelvara/base/StringExtensions.h>

namespace kva {
namespace {

enum class MRCommand { open, resize };
constexpr std::array<std::pair<std::string_view, MRCommand>, 2> kMRCommands{
    {{"open", MRCommand::open}, {"resize", MRCommand::resize}}};

enum class MRKVACommand { preloadComplete, videoComplete, videoEvent };
constexpr std::array<std::pair<std::string_view, MRKVACommand>, 3> kMRKVACommands{
    {{"preloadComplete", MRKVACommand::preloadComplete},
     {"videoComplete", MRKVACommand::videoComplete},
     {"videoEvent", MRKVACommand::videoEvent}}};

// Schemes that the desktop never gets to open: those that dial, those that make sense only inside a
// page, those that access this machine, and the SDK's own.
constexpr std::array<std::string_view, 11> kBlockedSchemes{
    "sms", "tel", "file", "javascript", "data", "blob", "about", "ssh", "mraid", "kva", "ios-log"};

constexpr const char* kCommandNotFound = "Command not found!";

template <class Table>
auto command(const Table& table, std::string_view name)
    -> std::optional<typename Table::value_type::second_type> {
  auto found = std::ranges::find(table, name, &Table::value_type::first);
  if (found == table.end()) return {};
  return found->second;
}

const std::string* parameter(const std::optional<MRCommandHandler::Params>& params,
                             const std::string& name) {
  if (!params) return nullptr;
  auto found = params->find(name);
  return found == params->end() ? nullptr : &found->second;
}

/// Returns 0 if the parameter is missing or not a number.
double seconds(const std::optional<MRCommandHandler::Params>& params, const std::string& name) {
  const std::string* text = parameter(params, name);
  if (!text) return 0;
  const char* begin = text->data();
  const char* end = begin + text->size();
  double value = 0;
  auto [rest, error] = std::from_chars(begin, end, value);
  return error == std::errc() && rest == end ? value : 0;
}

}  // namespace

void MRCommandHandler::setDelegate(std::weak_ptr<MRCommandHandlerDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void MRCommandHandler::handleComand(const std::string& name, const std::optional<Params>& params) {
  auto delegate = delegate_.lock();
  if (!delegate) return;
  auto known = command(kMRCommands, name);
  if (!known) return delegate->commandHandlerCommandFailed(*this, name, kCommandNotFound);
  switch (*known) {
    case MRCommand::open:
      return open(*delegate, name, params);
    case MRCommand::resize:
      for (const char* required : {"width", "height", "offsetX", "offsetY"}) {
        if (!parameter(params, required))
          return delegate->commandHandlerCommandFailed(*this, name, "Size parameters not found!");
      }
      return delegate->commandHandlerResize(*this);
  }
}

void MRCommandHandler::open(MRCommandHandlerDelegate& delegate, const std::string& name,
                            const std::optional<Params>& params) {
  const std::string* text = parameter(params, "url");
  if (!text) return delegate.commandHandlerCommandFailed(*this, name, "URL not found!");
  auto url = URL::parse(*text);
  if (!url) return;
  // A relative address has no meaning outside the page.
  if (!url->scheme()) return;
  const std::string scheme = lowercased(*url->scheme());
  if (std::ranges::find(kBlockedSchemes, scheme) != kBlockedSchemes.end())
    return delegate.commandHandlerCommandFailed(*this, name, "Scheme not supported: " + scheme);
  delegate.commandHandlerOpenURL(*this, *url);
}

void MRCommandHandler::handleKVAComand(const std::string& name,
                                       const std::optional<Params>& params) {
  auto delegate = delegate_.lock();
  if (!delegate) return;
  auto known = command(kMRKVACommands, name);
  if (!known) return delegate->commandHandlerCommandFailed(*this, name, kCommandNotFound);
  switch (*known) {
    case MRKVACommand::preloadComplete:
      return delegate->commandHandlerPreloadComplete(*this);
    case MRKVACommand::videoComplete:
      return delegate->commandHandlerVideoComplete(*this);
    case MRKVACommand::videoEvent:
      return delegate->commandHandlerVideoEvent(*this, seconds(params, "duration"),
                                                seconds(params, "currenttime"));
  }
}

}  // namespace kva
