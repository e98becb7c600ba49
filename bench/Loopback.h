#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <Kelvara/base/Guarded.h>

#include "platform/linux/Threads.h"

namespace kva::bench {

/// A server on this machine with a fixed answer for each path under "/api/v1".
class FixedServer {
 public:
  /// `bodies` has the JSON text for each path, such as "/init".
  explicit FixedServer(const std::map<std::string, std::string>& bodies)
      : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    for (const auto& [path, body] : bodies)
      answers_[path] = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                       std::to_string(body.size()) + "\r\n\r\n" + body;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    socklen_t size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    listen(fd_, 16);
    base_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/api/v1";
    std::thread([this] {
      for (int peer; (peer = accept(fd_, nullptr, nullptr)) >= 0;)
        std::thread([this, peer] { serve(peer); }).detach();
    }).detach();
  }
  /// The API base.
  const std::string& base() const { return base_; }
  /// The last request to a path, as it was received.
  std::string lastRequest(const std::string& path) const {
    return requests_.with([&](const auto& all) { return all.at(path); });
  }

 private:
  void serve(int peer) {
    const int on = 1;
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::string request;
    char chunk[65536];
    for (ssize_t got; (got = recv(peer, chunk, sizeof chunk, 0)) > 0;) {
      request.append(chunk, static_cast<std::size_t>(got));
      if (!isComplete(request)) continue;
      const auto target = request.find("/api/v1") + 7;
      const std::string path = request.substr(target, request.find_first_of("? ", target) - target);
      const std::string& answer = answers_.at(path);
      requests_.with([&](auto& all) { std::swap(all[path], request); });
      request.clear();
      if (send(peer, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
    }
    close(peer);
  }
  static bool isComplete(const std::string& request) {
    constexpr std::string_view kLength = "Content-Length: ";
    const auto end = request.find("\r\n\r\n");
    if (end == request.npos) return false;
    const auto length = request.find(kLength);
    return length > end ||
           request.size() == end + 4 + std::stoul(request.substr(length + kLength.size()));
  }

  int fd_;
  std::string base_;
  std::map<std::string, std::string> answers_;
  Guarded<std::map<std::string, std::string>> requests_;
};

/// Bare libcurl: repeats a request of the SDK byte for byte and parses no answer.
class BareRequest {
 public:
  /// `recorded` is the request as the server received it, `base` the API base.
  BareRequest(const std::string& base, const std::string& recorded)
      : easy_(curl_easy_init(), curl_easy_cleanup), headers_(nullptr, curl_slist_free_all) {
    const auto end = recorded.find("\r\n\r\n");
    body_ = recorded.substr(end + 4);
    const auto target = recorded.find(' ') + 1;
    const std::string path = recorded.substr(target, recorded.find(' ', target) - target);
    curl_slist* list = curl_slist_append(nullptr, "Expect:");
    for (auto line = recorded.find("\r\n") + 2; line < end;) {
      const auto next = std::min(recorded.find("\r\n", line), end);
      const std::string header = recorded.substr(line, next - line);
      if (!header.starts_with("Host:") && !header.starts_with("Content-Length:"))
        list = curl_slist_append(list, header.c_str());
      line = next + 2;
    }
    headers_.reset(list);
    set(CURLOPT_URL, (base.substr(0, base.find("/api/v1")) + path).c_str());
    set(CURLOPT_HTTPHEADER, list);
    set(CURLOPT_WRITEFUNCTION, &append);
    set(CURLOPT_WRITEDATA, &received_);
    if (!recorded.starts_with("POST")) return;
    set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body_.size()));
    set(CURLOPT_POSTFIELDS, body_.c_str());
  }
  void perform() {
    received_.clear();
    curl_easy_perform(easy_.get());
  }

 private:
  void set(CURLoption option, auto value) { curl_easy_setopt(easy_.get(), option, value); }
  static std::size_t append(char* bytes, std::size_t, std::size_t size, void* text) {
    static_cast<std::string*>(text)->append(bytes, size);
    return size;
  }

  std::unique_ptr<CURL, void (*)(CURL*)> easy_;
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers_;
  std::string body_, received_;
};

/// Bare libcurl on a thread that another thread hands each request to.
class BareThread {
 public:
  BareThread() : thread_([this] { run(); }) {}
  ~BareThread() {
    request_ = nullptr;
    asked_.release();
    thread_.join();
  }
  BareThread(const BareThread&) = delete;
  BareThread& operator=(const BareThread&) = delete;
  /// Runs `done` on the thread after the answer.
  void async(BareRequest& request, std::function<void()> done) {
    request_ = &request;
    done_ = std::move(done);
    asked_.release();
  }
  void perform(BareRequest& request) {
    async(request, [this] { answered_.release(); });
    answered_.acquire();
  }

 private:
  void run() {
    for (;;) {
      asked_.acquire();
      if (!request_) return;
      request_->perform();
      done_();
    }
  }

  Semaphore asked_, answered_;
  BareRequest* request_ = nullptr;
  std::function<void()> done_;
  std::thread thread_;
};

inline constexpr const char* kAppId = "7f1a1b60-0f6e-4d8e-9a64-3f2b8c1d0e55";
inline constexpr const char* kAdUnit = "0e9b7b3a-5f0c-4f6b-8a53-6f0f4a9c7d21";

/// The answers to a start, a registration, a bid and the request for its ad.
inline std::map<std::string, std::string> typicalAnswers() {
  const auto answer = [](const std::string& data) {
    return nlohmann::json::parse(R"({"ok":true,"err":null,"time":1700000000000,"data":)" + data +
                                 "}")
        .dump();
  };
  return {{"/init", answer(R"({"aid":"7f1a1b60-0f6e-4d8e-9a64-3f2b8c1d0e55",
        "tids":[{"idfa":"d41d8cd98f00b204e9800998ecf8427e","test":true,"log":false}],"btyp":[],
        "bads":["4c1f4ac5-9d0c-4a1c-8d38-0a4d7b3f8f10"],"tmpv":{"interstitial":3,"rewarded":5},
        "hasc":false,"pp":"https://ads.example/privacy","sett":{"dip":6000,"nfsp":3000,
        "sndm":false}})")},
          {"/register", answer(R"({"aid":null,"uid":"5d1b6f5e-6d8b-4a39-9a5e-2d0f4f3e9b77"})")},
          {"/bid/init", answer(R"({"bid":"b1d00000-0000-4000-8000-000000000001","plans":[
        {"plan":"91a00000-0000-4000-8000-000000000001","capd":10,"caph":4,"ecpm":2350},
        {"plan":"91a00000-0000-4000-8000-000000000002","capd":0,"caph":0,"ecpm":1200}]})")},
          {"/bid/load", answer(R"({"bid":"b1d00000-0000-4000-8000-000000000001",
        "tmpl":"interstitial","fls":[
        {"id":"f1e00000-0000-4000-8000-000000000001","ornt":"portrait","ftyp":"main",
         "furl":"https://cdn.example/creatives/2024/summer/clip-720p.mp4"},
        {"id":"f1e00000-0000-4000-8000-000000000001","ornt":"portrait","ftyp":"end_card",
         "furl":"https://cdn.example/creatives/2024/summer/clip-720p.mp4"}],
        "crea":{"id":"c1ea0000-0000-4000-8000-000000000001","adt":"interstitial","ctyp":"video",
        "adur":15000,"titl":"A game for the summer",
        "curl":"https://shop.example/games/summer?campaign=42&source=ad",
        "icon":"https://cdn.example/icons/summer.png",
        "bton":"{\"en\":\"Install\",\"tr\":\"Kur\"}",
        "deta":"{\"en\":\"Play it now\",\"tr\":\"Hemen oyna\"}"}})")}};
}

}  // namespace kva::bench
