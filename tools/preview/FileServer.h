#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace kva::preview {

/// A network as a user has it. Zero: as fast as this machine.
struct Link {
  std::chrono::milliseconds latency{0};
  std::int64_t bytesPerSecond = 0;
};

/// Serves a creative's files on this machine, each as late as it would arrive over the link.
class FileServer {
 public:
  FileServer(const std::filesystem::path& folder, Link link);
  ~FileServer();
  std::string origin() const { return origin_; }

 private:
  struct Http;
  std::unique_ptr<Http> http_;
  std::string origin_;
};

}  // namespace kva::preview
