#pragma once

namespace kva {

/// What assistive technology names: the ad itself, and what each control does.
enum class Spoken { ad, close, skip, privacy, mute, unmute };

/// Returns the name in the first of the user's languages that has names here, else in English.
const char* accessibleName(Spoken what);

}  // namespace kva
