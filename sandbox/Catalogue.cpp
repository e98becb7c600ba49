#include "sandbox/Catalogue.h"

#include <algorithm>

namespace kva::sandbox {
namespace {

constexpr CatalogueFile kLampFiles[] = {
    {"lamp-main-landscape", "/creatives/lamp-landscape.svg", "landscape", "main"},
    {"lamp-main-portrait", "/creatives/lamp-portrait.svg", "portrait", "main"},
    {"lamp-end-landscape", "/creatives/lamp-end-landscape.svg", "landscape", "end_card"},
    {"lamp-end-portrait", "/creatives/lamp-end-portrait.svg", "portrait", "end_card"},
};
constexpr CatalogueFile kCometsMp4Files[] = {
    {"comets-mp4-landscape", "/creatives/comets-landscape.mp4", "landscape", "main"},
    {"comets-mp4-portrait", "/creatives/comets-portrait.mp4", "portrait", "main"},
    {"comets-end-landscape", "/creatives/comets-end-landscape.svg", "landscape", "end_card"},
    {"comets-end-portrait", "/creatives/comets-end-portrait.svg", "portrait", "end_card"},
};
constexpr CatalogueFile kCometsWebMFiles[] = {
    {"comets-webm-landscape", "/creatives/comets-landscape.webm", "landscape", "main"},
    {"comets-webm-portrait", "/creatives/comets-portrait.webm", "portrait", "main"},
    {"comets-end-landscape", "/creatives/comets-end-landscape.svg", "landscape", "end_card"},
    {"comets-end-portrait", "/creatives/comets-end-portrait.svg", "portrait", "end_card"},
};
// No end card: the playable's page accepts an unfilled placeholder.
constexpr CatalogueFile kPlayableFiles[] = {
    {"comets-sky-landscape", "/creatives/comets-sky-landscape.svg", "landscape", "main"},
    {"comets-sky-portrait", "/creatives/comets-sky-portrait.svg", "portrait", "main"},
};

constexpr std::string_view kLampUrl = "https://halvik.example/dusk-lamp?from=sandbox";
constexpr std::string_view kCometsUrl = "https://papercomets.example/play?from=sandbox";
constexpr std::array<Text, 3> kCometsButton = {
    {{"en", "Play free"}, {"tr", "Ücretsiz oyna"}, {"de", "Gratis spielen"}}};
constexpr std::array<Text, 3> kCometsText = {
    {{"en", "Fold a comet, catch the wind, cross the whole sky."},
     {"tr", "Bir kuyruklu yıldız katla, rüzgârı yakala, göğü boydan boya geç."},
     {"de", "Falte einen Kometen, fang den Wind, quere den ganzen Himmel."}}};

constexpr CatalogueCreative kLamp = {
    "lamp-image",
    "interstitial",
    "image",
    3,
    "Halvik Dusk Lamp",
    kImageTemplate,
    kLampUrl,
    "/creatives/lamp-icon.svg",
    {{{"en", "See it glow"}, {"tr", "Işığını gör"}, {"de", "Leuchten sehen"}}},
    {{{"en", "A lamp that follows the sunset, so your evenings slow down with it."},
      {"tr", "Gün batımını izleyen lamba: akşamlarınız onunla yavaşlar."},
      {"de", "Eine Lampe, die dem Sonnenuntergang folgt und den Abend ruhiger macht."}}},
    kLampFiles};
constexpr CatalogueCreative kCometsMp4 = {
    "comets-video-mp4", "rewarded",     "video",        5,
    "Paper Comets",     kVideoTemplate, kCometsUrl,     "/creatives/comets-icon.svg",
    kCometsButton,      kCometsText,    kCometsMp4Files};
constexpr CatalogueCreative kCometsWebM = {
    "comets-video-webm", "rewarded",     "video",         5,
    "Paper Comets",      kVideoTemplate, kCometsUrl,      "/creatives/comets-icon.svg",
    kCometsButton,       kCometsText,    kCometsWebMFiles};
constexpr CatalogueCreative kPlayable = {
    "comets-playable",
    "interstitial",
    "image",
    5,
    "Paper Comets",
    kPlayableTemplate,
    kCometsUrl,
    "/creatives/comets-icon.svg",
    kCometsButton,
    {{{"en", "Tap the comets before they cross the sky."},
      {"tr", "Göğü geçmeden kuyruklu yıldızlara dokun."},
      {"de", "Tippe die Kometen an, bevor sie den Himmel queren."}}},
    kPlayableFiles};

// The dearest plan of each unit has the lowest cap, the last one none, so a host that requests bids
// again and again sees the price fall step by step and always gets a bid.
constexpr CataloguePlan kInterstitialPlans[] = {
    {"a1f0c0de-0001-4c11-8a01-5a0d0b0c0001", 4250, 3, 12},
    {"a1f0c0de-0001-4c11-8a01-5a0d0b0c0002", 2600, 6, 30},
    {"a1f0c0de-0001-4c11-8a01-5a0d0b0c0003", 900, 0, 0}};
constexpr CataloguePlan kRewardedPlans[] = {{"a1f0c0de-0002-4c11-8a02-5a0d0b0c0001", 12500, 2, 6},
                                            {"a1f0c0de-0002-4c11-8a02-5a0d0b0c0002", 8750, 5, 20},
                                            {"a1f0c0de-0002-4c11-8a02-5a0d0b0c0003", 3100, 0, 0}};
constexpr CataloguePlan kPlayablePlans[] = {{"a1f0c0de-0003-4c11-8a03-5a0d0b0c0001", 6800, 3, 12},
                                            {"a1f0c0de-0003-4c11-8a03-5a0d0b0c0002", 1450, 0, 0}};
constexpr CataloguePlan kRewardedWebMPlans[] = {
    {"a1f0c0de-0004-4c11-8a04-5a0d0b0c0001", 11900, 2, 6},
    {"a1f0c0de-0004-4c11-8a04-5a0d0b0c0002", 2950, 0, 0}};

constexpr CatalogueAdUnit kAdUnits[] = {
    {kInterstitialAdUnit, "interstitial", kInterstitialPlans, &kLamp},
    {kRewardedAdUnit, "rewarded", kRewardedPlans, &kCometsMp4},
    {kPlayableAdUnit, "interstitial", kPlayablePlans, &kPlayable},
    {kRewardedWebMAdUnit, "rewarded", kRewardedWebMPlans, &kCometsWebM},
};

constexpr CatalogueTemplate kTemplates[] = {
    {kImageTemplate, "interstitial", "Image with end card", "image-with-end-card.html", 3},
    {kVideoTemplate, "rewarded", "Rewarded video", "rewarded-video.html", 5},
    {kPlayableTemplate, "interstitial", "Playable", "playable.html", 2},
};

}  // namespace

std::span<const CatalogueAdUnit> adUnits() { return kAdUnits; }
std::span<const CatalogueTemplate> templates() { return kTemplates; }

const CatalogueAdUnit* findAdUnit(std::string_view id) {
  auto found = std::ranges::find(kAdUnits, id, &CatalogueAdUnit::id);
  return found == std::end(kAdUnits) ? nullptr : &*found;
}

}  // namespace kva::sandbox
