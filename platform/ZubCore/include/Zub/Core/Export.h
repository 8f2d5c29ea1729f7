// Export macro of the ZubCore infrastructure library. Builders and users
// both see the interface with default visibility, so that type information
// of the exported classes is shared across modules.
#pragma once

#define ZUB_API __attribute__((visibility("default")))
