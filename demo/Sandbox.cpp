#include "demo/Sandbox.h"

#include <curl/curl.h>
#include <signal.h>
#include <sys/prctl.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

namespace demo {
namespace {

std::size_t append(char* data, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

std::optional<std::string> transfer(const std::string& url, const std::string* body) {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
      curl_slist_append(nullptr, "Content-Type: application/json"), &curl_slist_free_all);
  std::string answer;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 5L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &append);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
  if (body) {
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body->c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
  }
  long status = 0;
  if (curl_easy_perform(curl.get()) != CURLE_OK) return {};
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) return {};
  return answer;
}

/// The first "http://..." in the output of the server, which prints it when it is ready.
std::string originIn(GSubprocess* process) {
  g_autoptr(GDataInputStream) lines =
      g_data_input_stream_new(g_subprocess_get_stdout_pipe(process));
  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(lines), FALSE);
  while (true) {
    g_autofree char* line = g_data_input_stream_read_line(lines, nullptr, nullptr, nullptr);
    if (!line) return {};
    const std::string text = line;
    const auto begin = text.find("http://");
    if (begin == std::string::npos) continue;
    return text.substr(begin, text.find_first_of(" /", begin + 7) - begin);
  }
}

}  // namespace

std::unique_ptr<Sandbox> Sandbox::launch() {
  const auto program =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kelvara-sandbox";
  g_autoptr(GSubprocessLauncher) launcher =
      g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE);
  // The kernel terminates the server when the demo dies.
  g_subprocess_launcher_set_child_setup(
      launcher, [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); }, nullptr, nullptr);
  g_autoptr(GSubprocess) process = g_subprocess_launcher_spawn(
      launcher, nullptr, program.c_str(), "--port", "0", "--quiet", "--memory", nullptr);
  if (!process) return {};
  const std::string origin = originIn(process);
  if (origin.empty()) return {};
  auto sandbox = std::make_unique<Sandbox>(origin);
  sandbox->process_ = g_steal_pointer(&process);
  return sandbox;
}

Sandbox::~Sandbox() {
  if (!process_) return;
  g_subprocess_send_signal(process_, SIGTERM);
  g_subprocess_wait(process_, nullptr, nullptr);
  g_object_unref(process_);
}

std::optional<nlohmann::json> Sandbox::get(const std::string& path) const {
  const auto answer = transfer(origin_ + path, nullptr);
  if (!answer) return {};
  auto json = nlohmann::json::parse(*answer, nullptr, false);
  if (json.is_discarded()) return {};
  return json;
}

bool Sandbox::post(const std::string& path, const nlohmann::json& body) const {
  const std::string text = body.dump();
  return transfer(origin_ + path, &text).has_value();
}

}  // namespace demo
