// Export macro of the ZubCore infrastructure library. On Windows the
// library's build exports the interface and its users import it; elsewhere
// builders and users both see it with default visibility, so that type
// information of the exported classes is shared across modules.
#pragma once

#if defined(_WIN32)
#if defined(ZubCore_EXPORTS)
#define ZUB_API __declspec(dllexport)
#else
#define ZUB_API __declspec(dllimport)
#endif
#else
#define ZUB_API __attribute__((visibility("default")))
#endif

// printf-style argument checking. The Windows runtime's own printf takes other
// conversions; ZubCore formats with the standard ones (as mingw-w64's
// standard-conforming printf family does).
#if defined(__MINGW32__)
#define ZUB_PRINTF(formatIndex, firstArg) __attribute__((format(gnu_printf, formatIndex, firstArg)))
#elif defined(__GNUC__)
#define ZUB_PRINTF(formatIndex, firstArg) __attribute__((format(printf, formatIndex, firstArg)))
#else
#define ZUB_PRINTF(formatIndex, firstArg)
#endif
