// Export macro of the operating-system boundary library.
#pragma once

#define KVOS_API __attribute__((visibility("default")))
