#include "FileServer.h"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

#include "sandbox/HttpServer.h"

namespace kva::preview {

struct FileServer::Http {
  sandbox::HttpServer server;
};

namespace {

/// Sends the answer in pieces, ten a second.
void slowDown(httplib::Response& response, std::int64_t bytesPerSecond) {
  const auto piece = static_cast<std::size_t>(std::max<std::int64_t>(1, bytesPerSecond / 10));
  const auto body = std::make_shared<const std::string>(std::exchange(response.body, {}));
  const auto type = response.get_header_value("Content-Type");
  response.headers.erase("Content-Type");
  response.set_content_provider(
      body->size(), type,
      [body, piece](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return sink.write(body->data() + offset, std::min(length, piece));
      });
}

}  // namespace

FileServer::FileServer(const std::filesystem::path& folder, Link link)
    : http_(std::make_unique<Http>()) {
  auto& server = http_->server;
  server.set_mount_point("/", folder.string());
  server.set_file_extension_and_mimetype_mapping("webm", "video/webm");
  server.set_file_request_handler([link](const httplib::Request&, httplib::Response& response) {
    response.set_header("Accept-Ranges", "bytes");
    // A creative's page has no origin, so each of its requests is a cross-origin one.
    response.set_header("Access-Control-Allow-Origin", "*");
    std::this_thread::sleep_for(link.latency);
    if (link.bytesPerSecond > 0) slowDown(response, link.bytesPerSecond);
  });
  const int port = server.bind("127.0.0.1", 0);
  if (port < 0) throw std::runtime_error("no port is free on this machine");
  origin_ = "http://127.0.0.1:" + std::to_string(port);
  server.startServing();
}

FileServer::~FileServer() { http_->server.stopServing(); }

}  // namespace kva::preview
