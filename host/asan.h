// Marking memory the host keeps for reuse as unaddressable under
// AddressSanitizer, so that a stale access to it is still caught.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define QVA_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QVA_ASAN 1
#endif
#endif

#if defined(QVA_ASAN)
#include <sanitizer/asan_interface.h>
#define QVA_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define QVA_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#define QVA_NO_ASAN __attribute__((no_sanitize("address")))
#else
#define QVA_POISON(p, n) ((void)(p), (void)(n))
#define QVA_UNPOISON(p, n) ((void)(p), (void)(n))
#define QVA_NO_ASAN
#endif
