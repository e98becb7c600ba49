#include <Kelvara/presentation/AccessibleNames.h>

#include <algorithm>
#include <string_view>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/platform/Locale.h>

namespace kva {
namespace {

/// A language's names in the order of `Spoken`.
struct Names {
  std::string_view language;
  const char* names[6];
};

// clang-format off
constexpr Names kNames[] = {
    {"en", {"Advertisement", "Close", "Skip", "Privacy", "Mute", "Unmute"}},
    {"ar", {"إعلان", "إغلاق", "تخطي", "الخصوصية", "كتم الصوت", "إلغاء كتم الصوت"}},
    {"de", {"Werbung", "Schließen", "Überspringen", "Datenschutz", "Ton aus", "Ton ein"}},
    {"es", {"Anuncio", "Cerrar", "Omitir", "Privacidad", "Silenciar", "Activar sonido"}},
    {"fr", {"Publicité", "Fermer", "Passer", "Confidentialité", "Couper le son", "Activer le son"}},
    {"he", {"פרסומת", "סגירה", "דילוג", "פרטיות", "השתקה", "ביטול השתקה"}},
    {"tr", {"Reklam", "Kapat", "Geç", "Gizlilik", "Sesi kapat", "Sesi aç"}},
};
// clang-format on

const Names& namesOfUser() {
  for (const auto& tag : Runtime::current().platform().locale->preferredLanguages()) {
    const auto language = std::string_view(tag).substr(0, tag.find('-'));
    const auto found = std::ranges::find(kNames, language, &Names::language);
    if (found != std::end(kNames)) return *found;
  }
  return kNames[0];
}

}  // namespace

const char* accessibleName(Spoken what) { return namesOfUser().names[static_cast<int>(what)]; }

}  // namespace kva
