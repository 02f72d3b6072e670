#pragma once

namespace Halvex::Testing {

/// Whether a sanitizer is at work, which makes everything several times slower, holds memory back
/// and keeps threads and descriptors of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

} // namespace Halvex::Testing
