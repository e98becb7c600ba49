#include "sandbox/SpoilBytes.h"

#include <algorithm>
#include <string_view>

namespace kva::sandbox {
namespace {

constexpr std::string_view kNotHttp("\x16\x03\xff\0\r\n\xfe garbage \r\n", 18);
constexpr std::size_t kGarbledBytes = 9;

}  // namespace

bool spoilsBytes(Behaviour behaviour) { return behaviour >= Behaviour::throttled; }

std::optional<Connection::Ending> spoilBytes(Behaviour behaviour, std::string& answer) {
  using enum Connection::Ending;
  const std::size_t body = answer.find("\r\n\r\n") + 4, size = answer.size();
  const std::size_t middle = body + (size - body) / 2;
  switch (behaviour) {
    case Behaviour::truncated:
      answer.resize(middle);
      return close;
    case Behaviour::cutHead:
      answer.resize(body / 2);
      return close;
    case Behaviour::resetBody:
      answer.resize(middle);
      return reset;
    case Behaviour::garbageBefore:
      answer.insert(0, kNotHttp);
      return {};
    case Behaviour::garbageWithin:
      std::fill_n(answer.begin() + static_cast<std::ptrdiff_t>(middle),
                  std::min(size - middle, kGarbledBytes), '\xff');
      return {};
    case Behaviour::repeatedBytes:
      answer.insert(middle, answer.substr(middle, (size - middle) / 2));
      answer.resize(size);
      return {};
    case Behaviour::repeatedAnswer:
      answer += std::string(answer);
      return {};
    default:
      return {};
  }
}

}  // namespace kva::sandbox
