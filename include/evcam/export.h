// Symbol visibility for libevcam. The library is built with hidden visibility;
// only declarations marked EVCAM_API are exported.
#ifndef EVCAM_EXPORT_H
#define EVCAM_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define EVCAM_API __attribute__((visibility("default")))
#else
#define EVCAM_API
#endif

#endif  // EVCAM_EXPORT_H
