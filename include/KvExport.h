// Export macro of SystemKvCore. Builders and users both see the interface with
// default visibility, so that type information is shared across modules.
#pragma once

#define KVCORE_API __attribute__((visibility("default")))
