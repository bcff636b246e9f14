#include "snapshots/MountPinRegistry.h"

#include <algorithm>

#include "platform/random.h"
#include "wire/QuillmarkError.h"

namespace quillmark {

void MountPinRegistry::dropExpired(Pins& pins, Date now) {
  std::erase_if(pins, [now](const auto& entry) { return entry.second.expiresAt <= now; });
}

std::string MountPinRegistry::pin(std::set<std::string> paths, std::string reason,
                                  const std::optional<std::string>& token, std::chrono::seconds lifetime) {
  const Date now = clock_.now();
  const Date expiresAt = now + Seconds(std::min(lifetime, longestLifetime));
  return pins_.with([&](Pins& pins) {
    dropExpired(pins, now);
    const bool renews = token && pins.contains(*token);
    if (!renews && pins.size() >= capacity) {
      throw QuillmarkError::make(QuillmarkErrorCode::internalError, "Mount pin capacity is temporarily exhausted");
    }
    std::string used = renews ? *token : random_.uuid().upper();
    pins[used] = {std::move(paths), std::move(reason), expiresAt};
    return used;
  });
}

void MountPinRegistry::unpin(const std::string& token) {
  const Date now = clock_.now();
  pins_.with([&](Pins& pins) {
    pins.erase(token);
    dropExpired(pins, now);
  });
}

std::optional<std::string> MountPinRegistry::activeReason(const std::string& path) {
  const Date now = clock_.now();
  return pins_.with([&](Pins& pins) -> std::optional<std::string> {
    dropExpired(pins, now);
    for (const auto& [token, pin] : pins) {
      if (pin.paths.contains(path)) return pin.reason;
    }
    return std::nullopt;
  });
}

}  // namespace quillmark
