// Export macro of SystemKvCore. On Windows the library's build exports the
// interface and its users import it; elsewhere builders and users both see it
// with default visibility, so that type information is shared across modules.
#pragma once

#if defined(_WIN32)
#if defined(SystemKvCore_EXPORTS)
#define KVCORE_API __declspec(dllexport)
#else
#define KVCORE_API __declspec(dllimport)
#endif
#else
#define KVCORE_API __attribute__((visibility("default")))
#endif

// printf-style argument checking. The Windows runtime's own printf takes other
// conversions; the library formats with the standard ones (as mingw-w64's
// standard-conforming printf family does).
#if defined(__MINGW32__)
#define KVCORE_PRINTF(formatIndex, firstArg) __attribute__((format(gnu_printf, formatIndex, firstArg)))
#elif defined(__GNUC__)
#define KVCORE_PRINTF(formatIndex, firstArg) __attribute__((format(printf, formatIndex, firstArg)))
#else
#define KVCORE_PRINTF(formatIndex, firstArg)
#endif
