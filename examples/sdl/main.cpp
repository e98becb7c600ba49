// An SDL 2 host with OpenGL and a loop of its own. The SDK opens a window for each ad, and
// Host::pump() handles its events once a frame. I shows an interstitial, R a rewarded ad. Run
// kelvara-sandbox first.
#include <SDL.h>
#include <SDL_opengl.h>

#include <cmath>
#include <mutex>

#include "../Ads.h"

namespace {

/// The newest text of the SDK, for the window's title.
class Title {
 public:
  void set(std::string text) {
    const std::lock_guard lock(mutex_);
    text_ = std::move(text);
  }
  void show(SDL_Window* window) {
    const std::lock_guard lock(mutex_);
    if (!text_.empty()) SDL_SetWindowTitle(window, text_.c_str());
    text_.clear();
  }

 private:
  std::mutex mutex_;
  std::string text_;
};

void draw(SDL_Window* window, Uint32 milliseconds) {
  const auto pulse = static_cast<float>(0.5 + 0.5 * std::sin(milliseconds / 500.0));
  glClearColor(0.1F, 0.2F + 0.3F * pulse, 0.5F, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  SDL_GL_SwapWindow(window);
}

}  // namespace

int main(int, char**) {
  if (SDL_Init(SDL_INIT_VIDEO) != 0) {
    SDL_Log("%s", SDL_GetError());
    return 1;
  }
  auto* window = SDL_CreateWindow("Starting", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, 960,
                                  640, SDL_WINDOW_OPENGL);
  auto* context = SDL_GL_CreateContext(window);
  SDL_GL_SetSwapInterval(1);
  {
    kva::gtk::Host host(example::options());
    Title title;
    auto ads =
        std::make_shared<example::Ads>([&](std::string text) { title.set(std::move(text)); });
    ads->start();
    for (bool runs = true; runs;) {
      for (SDL_Event event; SDL_PollEvent(&event);) {
        if (event.type == SDL_QUIT) runs = false;
        if (event.type != SDL_KEYDOWN) continue;
        if (event.key.keysym.sym == SDLK_i) ads->showInterstitial(host.viewController());
        if (event.key.keysym.sym == SDLK_r) ads->showRewarded(host.viewController());
      }
      host.pump();
      title.show(window);
      draw(window, SDL_GetTicks());
    }
  }
  SDL_GL_DeleteContext(context);
  SDL_DestroyWindow(window);
  SDL_Quit();
}
