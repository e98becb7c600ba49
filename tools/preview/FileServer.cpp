#include "FileServer.h"

#include <stdexcept>
#include <thread>

#include "sandbox/HttpServer.h"

namespace kva::preview {

struct FileServer::Http {
  sandbox::HttpServer server;
};

FileServer::FileServer(const std::filesystem::path& folder, Link link)
    : http_(std::make_unique<Http>()) {
  auto& server = http_->server;
  server.set_mount_point("/", folder.string());
  server.set_file_extension_and_mimetype_mapping("webm", "video/webm");
  server.set_file_request_handler([link](const httplib::Request&, httplib::Response& response) {
    response.set_header("Accept-Ranges", "bytes");
    // A creative's page has no origin, so each of its requests is a cross-origin one.
    response.set_header("Access-Control-Allow-Origin", "*");
    auto wait = link.latency;
    if (link.bytesPerSecond > 0)
      wait += std::chrono::milliseconds(1000 * static_cast<std::int64_t>(response.body.size()) /
                                        link.bytesPerSecond);
    std::this_thread::sleep_for(wait);
  });
  const int port = server.bind("127.0.0.1", 0);
  if (port < 0) throw std::runtime_error("no port is free on this machine");
  origin_ = "http://127.0.0.1:" + std::to_string(port);
  server.startServing();
}

FileServer::~FileServer() { http_->server.stopServing(); }

}  // namespace kva::preview
